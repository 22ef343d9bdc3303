// The disks and volumes PosixEnv offers: attached images or block devices (or the
// machine's own disks), their partition tables (MBR with logical partitions, GPT,
// or a bare volume), and the NTFS/BitLocker volumes on them, lettered from C:.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "platform/disks.h"
#include "platform/posix_disks.h"
#include "platform/posix_env.h"
#include "base/bytes.h"

namespace platform {
namespace {

using koru::Bytes;
using koru::le16Or0;
using koru::le32Or0;
using koru::le64Or0;

constexpr std::size_t kMbrEntries = 446;
constexpr std::size_t kMbrEntrySize = 16;
constexpr std::size_t kMbrSignature = 440;
constexpr std::size_t kMaxLogicalPartitions = 256;  // an EBR chain longer than this is a loop
constexpr std::uint32_t kMaxGptEntries = 4096;
constexpr std::uint32_t kMaxGptEntrySize = 4096;
// 2^40 sectors of at most 64 KiB: byte offsets stay far inside 63 bits.
constexpr std::uint64_t kMaxSectors = 1ull << 40;

struct Disk {
  std::string path;
  DWORD given_sector_size = 0;  // 0: not given
  DWORD sector_size = 0;        // in use, set by every scan
  std::int64_t size = 0;        // bytes
  bool block_device = false;
  bool sector_size_known = false;  // given, or told by the kernel: never second-guessed
};

struct Volume {
  wchar_t letter = 0;
  int disk = 0;
  int partition = 0;  // 1-based in table order (primaries 1-4, logical from 5; GPT entry order)
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::wstring guid;  // {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}
  std::wstring kind;  // NTFS or BitLocker
};

struct Pin {
  wchar_t letter;
  int disk;
  int partition;
};

struct Registry {
  std::mutex mutex;
  bool environment_read = false;
  bool scanned = false;
  std::vector<Disk> disks;
  std::vector<Pin> pins;
  std::vector<Volume> volumes;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

bool ReadAt(int fd, std::int64_t offset, std::byte* out, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    const ssize_t n = ::pread(fd, out + done, count - done, static_cast<off_t>(offset) + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::optional<std::vector<std::byte>> ReadBlock(int fd, std::int64_t offset, std::size_t count) {
  std::vector<std::byte> block(count);
  if (offset < 0 || !ReadAt(fd, offset, block.data(), count)) return std::nullopt;
  return block;
}

std::wstring Hex(std::uint64_t value, int digits) {
  static const wchar_t* kDigits = L"0123456789ABCDEF";
  std::wstring out(static_cast<std::size_t>(digits), L'0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) out[static_cast<std::size_t>(i)] = kDigits[value & 0xF];
  return out;
}

// A GUID as Windows prints it: the first three fields little-endian, then bytes.
std::wstring GuidText(Bytes g) {
  std::wstring out = L"{" + Hex(le32Or0(g, 0), 8) + L"-" + Hex(le16Or0(g, 4), 4) + L"-" + Hex(le16Or0(g, 6), 4) + L"-";
  for (std::size_t i = 8; i < 16; ++i) {
    if (i == 10) out += L"-";
    out += Hex(koru::le8Or0(g, i), 2);
  }
  return out + L"}";
}

// MBR volumes have no GUID on disk. Ours is made from what identifies the volume:
// the disk signature as the first field, "KORU" in the next two, and the byte
// offset of the partition as the last 64 bits, so it is the same on every run.
std::wstring MbrGuid(std::uint32_t signature, std::int64_t offset) {
  const auto off = static_cast<std::uint64_t>(offset);
  return L"{" + Hex(signature, 8) + L"-4B4F-5255-" + Hex(off >> 48, 4) + L"-" + Hex(off & 0xFFFFFFFFFFFFull, 12) + L"}";
}

bool HasText(Bytes view, std::size_t offset, const char* text) {
  const std::size_t length = std::strlen(text);
  const Bytes field = koru::Sub(view, offset, length);
  return field.size() == length && std::memcmp(field.data(), text, length) == 0;
}

constexpr std::size_t kOemId = 3;
constexpr std::size_t kBootBytesPerSector = 0x0B;

std::optional<std::wstring> VolumeKind(int fd, std::int64_t offset) {
  const auto boot = ReadBlock(fd, offset, 512);
  if (!boot) return std::nullopt;
  if (HasText(*boot, kOemId, "NTFS    ")) return std::wstring(L"NTFS");
  if (HasText(*boot, kOemId, "-FVE-FS-")) return std::wstring(L"BitLocker");
  return std::nullopt;
}

// Given, else what the kernel says for a block device, else what an image shows: a
// GPT header at 512 or 4096, or the bytes-per-sector field of a bare volume's boot
// sector (BitLocker keeps the same field), else 512.
void DetectSectorSize(int fd, Disk* disk) {
  disk->sector_size = disk->given_sector_size;
  disk->sector_size_known = disk->sector_size != 0;
  if (disk->sector_size_known) return;
  if (disk->block_device) {
    int size = 0;
    if (::ioctl(fd, BLKSSZGET, &size) == 0 && size > 0) {
      disk->sector_size = static_cast<DWORD>(size);
      disk->sector_size_known = true;
      return;
    }
  }
  disk->sector_size = 512;
  for (DWORD candidate : {512u, 4096u}) {
    const auto header = ReadBlock(fd, candidate, 8);
    if (header && HasText(*header, 0, "EFI PART")) {
      disk->sector_size = candidate;
      return;
    }
  }
  if (const auto boot = ReadBlock(fd, 0, 512)) {
    if (HasText(*boot, kOemId, "NTFS    ") || HasText(*boot, kOemId, "-FVE-FS-")) {
      const DWORD bps = le16Or0(*boot, kBootBytesPerSector);
      if (bps >= 512 && bps <= 65536 && (bps & (bps - 1)) == 0) disk->sector_size = bps;
    }
  }
}

struct Candidate {
  int partition;
  std::int64_t offset;
  std::int64_t length;
  std::wstring guid;
};

void ScanGpt(int fd, DWORD sector, std::vector<Candidate>* out) {
  const auto header = ReadBlock(fd, sector, 92);
  if (!header || !HasText(*header, 0, "EFI PART")) return;
  const Bytes h(*header);
  const std::uint64_t entries_lba = le64Or0(h, 72);
  const std::uint32_t count = std::min(le32Or0(h, 80), kMaxGptEntries);
  const std::uint32_t entry_size = le32Or0(h, 84);
  if (entry_size < 128 || entry_size > kMaxGptEntrySize || entries_lba > kMaxSectors) return;
  const auto table = ReadBlock(fd, static_cast<std::int64_t>(entries_lba * sector), std::size_t{count} * entry_size);
  if (!table) return;
  const Bytes t(*table);
  for (std::uint32_t i = 0; i < count; ++i) {
    const Bytes entry = koru::Sub(t, std::size_t{i} * entry_size, entry_size);
    if (le64Or0(entry, 0) == 0 && le64Or0(entry, 8) == 0) continue;  // unused
    const std::uint64_t first = le64Or0(entry, 32), last = le64Or0(entry, 40);
    if (last < first || last > kMaxSectors) continue;
    out->push_back({static_cast<int>(i + 1), static_cast<std::int64_t>(first * sector),
                    static_cast<std::int64_t>((last - first + 1) * sector), GuidText(koru::Sub(entry, 16, 16))});
  }
}

bool IsExtended(std::uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

void ScanMbr(int fd, Bytes mbr, DWORD sector, std::vector<Candidate>* out) {
  const std::uint32_t signature = le32Or0(mbr, kMbrSignature);
  std::optional<std::uint64_t> extended;
  for (int i = 0; i < 4; ++i) {
    const Bytes e = koru::Sub(mbr, kMbrEntries + static_cast<std::size_t>(i) * kMbrEntrySize, kMbrEntrySize);
    const std::uint8_t type = koru::le8Or0(e, 4);
    const std::uint64_t lba = le32Or0(e, 8), count = le32Or0(e, 12);
    if (type == 0 || count == 0) continue;
    if (IsExtended(type)) {
      if (!extended) extended = lba;
      continue;
    }
    const auto offset = static_cast<std::int64_t>(lba * sector);
    out->push_back({i + 1, offset, static_cast<std::int64_t>(count * sector), MbrGuid(signature, offset)});
  }
  if (!extended) return;
  // Logical partitions: a chain of EBRs, each relative to the extended partition's start.
  std::set<std::uint64_t> seen;
  std::uint64_t ebr = *extended;
  int number = 5;
  while (seen.insert(ebr).second && seen.size() <= kMaxLogicalPartitions) {
    const auto block = ReadBlock(fd, static_cast<std::int64_t>(ebr * sector), 512);
    if (!block || le16Or0(Bytes(*block), 510) != 0xAA55) break;
    const Bytes b(*block);
    const Bytes logical = koru::Sub(b, kMbrEntries, kMbrEntrySize);
    const Bytes next = koru::Sub(b, kMbrEntries + kMbrEntrySize, kMbrEntrySize);
    if (koru::le8Or0(logical, 4) != 0 && le32Or0(logical, 12) != 0) {
      const auto offset = static_cast<std::int64_t>((ebr + le32Or0(logical, 8)) * sector);
      out->push_back({number++, offset, static_cast<std::int64_t>(std::uint64_t{le32Or0(logical, 12)} * sector),
                      MbrGuid(signature, offset)});
    }
    if (!IsExtended(koru::le8Or0(next, 4)) || le32Or0(next, 8) == 0) break;
    ebr = *extended + le32Or0(next, 8);
  }
}

std::size_t Volumes(int fd, const std::vector<Candidate>& candidates) {
  return static_cast<std::size_t>(
      std::count_if(candidates.begin(), candidates.end(), [fd](const Candidate& c) { return VolumeKind(fd, c.offset).has_value(); }));
}

std::vector<Candidate> ScanDisk(int fd, Disk& disk) {
  std::vector<Candidate> found;
  const auto mbr = ReadBlock(fd, 0, 512);
  if (!mbr) return found;
  const Bytes m(*mbr);
  if (VolumeKind(fd, 0)) {
    found.push_back({1, 0, disk.size, MbrGuid(le32Or0(m, kMbrSignature), 0)});
    return found;
  }
  if (le16Or0(m, 510) != 0xAA55) return found;
  bool protective = false;
  for (int i = 0; i < 4; ++i)
    protective |= koru::le8Or0(m, kMbrEntries + static_cast<std::size_t>(i) * kMbrEntrySize + 4) == 0xEE;
  if (protective) {
    ScanGpt(fd, disk.sector_size, &found);
  } else {
    ScanMbr(fd, m, disk.sector_size, &found);
    // An MBR image of 4096-byte sectors whose size nobody gave: its NTFS boot
    // sectors show up only at the larger scale.
    if (!disk.sector_size_known && disk.sector_size == 512 && Volumes(fd, found) == 0) {
      std::vector<Candidate> again;
      ScanMbr(fd, m, 4096, &again);
      if (Volumes(fd, again) > 0) {
        disk.sector_size = 4096;
        found = std::move(again);
      }
    }
  }
  return found;
}

int OpenRead(const std::string& path) { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }

std::int64_t SizeOf(int fd, bool block_device) {
  if (block_device) {
    std::uint64_t size = 0;
    if (::ioctl(fd, BLKGETSIZE64, &size) == 0) return static_cast<std::int64_t>(size);
  }
  struct stat st{};
  return ::fstat(fd, &st) == 0 ? st.st_size : 0;
}

bool ParseDiskSpec(const std::string& arg, Disk* disk, std::string* error) {
  std::string path = arg;
  DWORD size = 0;
  const auto colon = arg.rfind(':');
  if (colon != std::string::npos && colon + 1 < arg.size() &&
      std::all_of(arg.begin() + static_cast<std::ptrdiff_t>(colon) + 1, arg.end(),
                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
    path = arg.substr(0, colon);
    const unsigned long value = std::strtoul(arg.c_str() + colon + 1, nullptr, 10);
    if (value < 512 || value > 65536 || (value & (value - 1)) != 0) {
      *error = "sector size must be a power of two from 512 to 65536";
      return false;
    }
    size = static_cast<DWORD>(value);
  }
  struct stat st{};
  if (path.empty() || ::stat(path.c_str(), &st) != 0) {
    *error = path + ": " + std::strerror(errno ? errno : ENOENT);
    return false;
  }
  if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    *error = path + ": not a disk image or block device";
    return false;
  }
  disk->path = path;
  disk->given_sector_size = size;
  disk->block_device = S_ISBLK(st.st_mode);
  return true;
}

bool ParsePin(const std::string& arg, Pin* pin, std::string* error) {
  // L=DISK:PARTITION
  if (arg.size() < 5 || arg[1] != '=' || !std::isalpha(static_cast<unsigned char>(arg[0]))) {
    *error = "expected L=DISK:PARTITION";
    return false;
  }
  const auto colon = arg.find(':', 2);
  if (colon == std::string::npos) {
    *error = "expected L=DISK:PARTITION";
    return false;
  }
  char* end = nullptr;
  const long disk = std::strtol(arg.c_str() + 2, &end, 10);
  if (end != arg.c_str() + colon || disk < 0) {
    *error = "bad disk number";
    return false;
  }
  const long partition = std::strtol(arg.c_str() + colon + 1, &end, 10);
  if (*end != 0 || partition < 1) {
    *error = "bad partition number (1-based)";
    return false;
  }
  const auto letter = static_cast<wchar_t>(std::toupper(static_cast<unsigned char>(arg[0])));
  if (letter < L'C') {
    *error = "letters start at C";
    return false;
  }
  *pin = {letter, static_cast<int>(disk), static_cast<int>(partition)};
  return true;
}

std::vector<std::string> SplitList(const char* text) {
  std::vector<std::string> items;
  if (text == nullptr) return items;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');)
    if (!item.empty()) items.push_back(item);
  return items;
}

// The machine's own whole disks, in the order Windows would number them roughly:
// sd/hd/vd before nvme before mmc.
std::vector<Disk> MachineDisks() {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("loop", 0) == 0 || name.rfind("ram", 0) == 0 || name.rfind("zram", 0) == 0 ||
        name.rfind("sr", 0) == 0 || name.rfind("fd", 0) == 0)
      continue;
    std::ifstream size_file(entry.path() / "size");
    std::uint64_t sectors = 0;
    if (!(size_file >> sectors) || sectors == 0) continue;
    names.push_back(name);
  }
  std::vector<Disk> disks;
  for (const auto& name : posix::OrderMachineDisks(std::move(names))) {
    Disk disk;
    disk.path = "/dev/" + name;
    disk.block_device = true;
    disks.push_back(disk);
  }
  return disks;
}

// Under the registry's lock.
void ReadEnvironment(Registry& r) {
  if (r.environment_read) return;
  r.environment_read = true;
  std::string ignored;
  for (const auto& arg : SplitList(std::getenv("KORU_MFT_DISKS"))) {
    Disk disk;
    if (ParseDiskSpec(arg, &disk, &ignored)) r.disks.push_back(disk);
  }
  for (const auto& arg : SplitList(std::getenv("KORU_MFT_VOLUMES"))) {
    Pin pin{};
    if (ParsePin(arg, &pin, &ignored)) r.pins.push_back(pin);
  }
}

void Scan(Registry& r) {
  ReadEnvironment(r);
  if (r.scanned) return;
  r.scanned = true;
  if (r.disks.empty()) r.disks = MachineDisks();
  r.volumes.clear();
  for (std::size_t d = 0; d < r.disks.size(); ++d) {
    Disk& disk = r.disks[d];
    const int fd = OpenRead(disk.path);
    if (fd < 0) continue;
    disk.size = SizeOf(fd, disk.block_device);
    DetectSectorSize(fd, &disk);
    for (const auto& c : ScanDisk(fd, disk)) {
      const auto kind = VolumeKind(fd, c.offset);
      if (!kind) continue;
      r.volumes.push_back({0, static_cast<int>(d), c.partition, c.offset, c.length, c.guid, *kind});
    }
    ::close(fd);
  }
  std::set<wchar_t> taken;
  for (auto& v : r.volumes)
    for (const auto& pin : r.pins)
      if (pin.disk == v.disk && pin.partition == v.partition && !taken.count(pin.letter)) {
        v.letter = pin.letter;
        taken.insert(pin.letter);
      }
  wchar_t next = L'C';
  for (auto& v : r.volumes) {
    if (v.letter != 0) continue;
    while (next <= L'Z' && taken.count(next)) ++next;
    if (next > L'Z') break;
    v.letter = next;
    taken.insert(next++);
  }
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<std::wint_t>(x)) == std::towupper(static_cast<std::wint_t>(y));
         });
}

DeviceBinding VolumeBinding(const Registry& r, const Volume& v) {
  DeviceBinding b;
  b.host_path = r.disks[static_cast<std::size_t>(v.disk)].path;
  b.base = v.offset;
  b.length = v.length;
  b.disk = v.disk;
  b.volume = static_cast<int>(&v - r.volumes.data());
  return b;
}

}  // namespace

namespace posix {

bool ResolveDevice(const std::wstring& path, DeviceBinding* binding, DWORD* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Scan(r);
  const std::wstring drive_prefix = L"\\\\.\\PhysicalDrive";
  if (path.size() > drive_prefix.size() && EqualNoCase(path.substr(0, drive_prefix.size()), drive_prefix)) {
    const std::wstring digits = path.substr(drive_prefix.size());
    if (digits.size() > 6 || !std::all_of(digits.begin(), digits.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; })) {
      *error = kErrorFileNotFound;
      return false;
    }
    const std::size_t n = std::stoul(digits);
    if (n >= r.disks.size()) {
      *error = kErrorFileNotFound;
      return false;
    }
    *binding = DeviceBinding{r.disks[n].path, 0, r.disks[n].size, static_cast<int>(n), -1};
    return true;
  }
  // \\.\C:
  if (path.size() == 6 && path.compare(0, 4, L"\\\\.\\") == 0 && path[5] == L':') {
    for (const auto& v : r.volumes)
      if (std::towupper(static_cast<std::wint_t>(v.letter)) == std::towupper(static_cast<std::wint_t>(path[4]))) {
        *binding = VolumeBinding(r, v);
        return true;
      }
    *error = kErrorFileNotFound;
    return false;
  }
  // \\?\Volume{GUID} or \\.\Volume{GUID}, with or without the trailing backslash
  std::wstring name = path;
  if (!name.empty() && name.back() == L'\\') name.pop_back();
  for (const auto& v : r.volumes) {
    if (EqualNoCase(name, L"\\\\?\\Volume" + v.guid) || EqualNoCase(name, L"\\\\.\\Volume" + v.guid)) {
      *binding = VolumeBinding(r, v);
      return true;
    }
  }
  *error = kErrorFileNotFound;
  return false;
}

bool DeviceControl(const DeviceBinding& binding, DWORD code, void* out, DWORD out_size, DWORD* returned,
                   DWORD* error) {
  *returned = 0;
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (binding.disk < 0 || static_cast<std::size_t>(binding.disk) >= r.disks.size()) {
    *error = kErrorInvalidHandle;
    return false;
  }
  const Disk& disk = r.disks[static_cast<std::size_t>(binding.disk)];
  auto* bytes = static_cast<unsigned char*>(out);
  if (code == kIoctlVolumeGetVolumeDiskExtents) {
    if (binding.volume < 0) {
      *error = kErrorInvalidFunction;  // a physical drive is not a volume
      return false;
    }
    // A partition lies on one disk: one extent.
    return posix::AnswerVolumeDiskExtents({DISK_EXTENT{static_cast<DWORD>(binding.disk), binding.base, binding.length}},
                                          out, out_size, returned, error);
  }
  if (code == kIoctlDiskGetDriveGeometryEx) {
    if (out == nullptr || out_size < sizeof(DISK_GEOMETRY)) {
      *error = kErrorInsufficientBuffer;
      return false;
    }
    DISK_GEOMETRY_EX g{};
    g.Geometry.BytesPerSector = disk.sector_size;
    g.Geometry.TracksPerCylinder = 255;
    g.Geometry.SectorsPerTrack = 63;
    g.Geometry.MediaType = 12;  // FixedMedia
    g.Geometry.Cylinders = disk.sector_size ? disk.size / (255 * 63 * std::int64_t{disk.sector_size}) : 0;
    g.DiskSize = disk.size;
    const std::size_t n = std::min<std::size_t>(out_size, sizeof g);
    std::memcpy(bytes, &g, n);
    *returned = static_cast<DWORD>(n);
    return true;
  }
  *error = kErrorInvalidFunction;
  return false;
}

bool AnswerVolumeDiskExtents(const std::vector<DISK_EXTENT>& extents, void* out, DWORD out_size, DWORD* returned,
                             DWORD* error) {
  *returned = 0;
  constexpr std::size_t kMinimum = kVolumeDiskExtentsHeader + sizeof(DISK_EXTENT);  // sizeof(VOLUME_DISK_EXTENTS)
  if (out == nullptr || out_size < kMinimum) {
    *error = kErrorInvalidParameter;
    return false;
  }
  auto* bytes = static_cast<unsigned char*>(out);
  const auto count = static_cast<std::uint32_t>(extents.size());
  std::memset(bytes, 0, kVolumeDiskExtentsHeader);
  std::memcpy(bytes, &count, sizeof count);
  const std::size_t needed = kVolumeDiskExtentsHeader + extents.size() * sizeof(DISK_EXTENT);
  if (out_size < needed) {
    *returned = static_cast<DWORD>(kMinimum);
    *error = kErrorMoreData;
    return false;
  }
  if (!extents.empty()) std::memcpy(bytes + kVolumeDiskExtentsHeader, extents.data(), extents.size() * sizeof(DISK_EXTENT));
  *returned = static_cast<DWORD>(needed);
  return true;
}

std::vector<std::string> OrderMachineDisks(std::vector<std::string> names) {
  auto rank = [](const std::string& n) {
    if (n.rfind("nvme", 0) == 0) return 1;
    if (n.rfind("mmcblk", 0) == 0) return 2;
    if (n.rfind("sd", 0) == 0 || n.rfind("hd", 0) == 0 || n.rfind("vd", 0) == 0 || n.rfind("xvd", 0) == 0) return 0;
    return 3;
  };
  std::sort(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
    if (rank(a) != rank(b)) return rank(a) < rank(b);
    if (a.size() != b.size()) return a.size() < b.size();
    return a < b;
  });
  return names;
}

bool VolumeNameForMountPoint(const std::wstring& mount_point, std::wstring* volume_name, DWORD* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Scan(r);
  if (mount_point.size() == 3 && mount_point[1] == L':' && mount_point[2] == L'\\') {
    for (const auto& v : r.volumes)
      if (std::towupper(static_cast<std::wint_t>(v.letter)) == std::towupper(static_cast<std::wint_t>(mount_point[0]))) {
        *volume_name = L"\\\\?\\Volume" + v.guid + L"\\";
        return true;
      }
  }
  *error = mount_point.size() == 3 ? kErrorFileNotFound : kErrorInvalidName;
  return false;
}

void ResetDisks() {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.environment_read = false;
  r.scanned = false;
  r.disks.clear();
  r.pins.clear();
  r.volumes.clear();
}

}  // namespace posix

bool AttachDisk(const std::string& arg, std::string* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  ReadEnvironment(r);
  Disk disk;
  if (!ParseDiskSpec(arg, &disk, error)) return false;
  r.disks.push_back(disk);
  r.scanned = false;
  return true;
}

bool PinVolume(const std::string& arg, std::string* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  ReadEnvironment(r);
  Pin pin{};
  if (!ParsePin(arg, &pin, error)) return false;
  r.pins.push_back(pin);
  r.scanned = false;
  return true;
}

std::vector<ListedVolume> ListVolumes() {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Scan(r);
  std::vector<ListedVolume> out;
  for (const auto& v : r.volumes) {
    if (v.letter == 0) continue;
    out.push_back({v.letter, L"\\\\?\\Volume" + v.guid + L"\\", static_cast<DWORD>(v.disk), v.offset, v.length,
                   r.disks[static_cast<std::size_t>(v.disk)].sector_size, v.kind});
  }
  std::sort(out.begin(), out.end(), [](const ListedVolume& a, const ListedVolume& b) { return a.letter < b.letter; });
  return out;
}

}  // namespace platform
