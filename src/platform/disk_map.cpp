#include "platform/disk_map.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <set>

#include "base/bytes.h"
#include "base/ntfs_layout.h"
#include "base/partition_layout.h"

namespace platform {
namespace {

namespace pt = koru::partition;
using koru::Bytes;
using koru::le16Or0;
using koru::le32Or0;
using koru::le64Or0;
using koru::le8Or0;
using Block = std::vector<std::byte>;

// Bounds of our own on what a table may ask for.
constexpr std::size_t kMaxLogicalPartitions = 256;  // an EBR chain longer than this is a loop
constexpr std::uint32_t kMaxGptEntries = kMaxPartitionNumber;
constexpr std::uint32_t kMaxGptEntrySize = 4096;
constexpr std::uint64_t kMaxSectors = 1ull << 40;  // x 64 KiB sectors: byte offsets stay far inside 63 bits
constexpr DWORD kFallbackSectorSize = 512;
constexpr DWORD kLargeSectorSize = 4096;

struct Partition {
  int number;
  std::int64_t offset;
  std::int64_t length;
  std::wstring guid;
};

class DiskReader {
 public:
  explicit DiskReader(const DiskSource& source) : source_(source) {}

  std::optional<Block> Read(std::uint64_t offset, std::size_t count) const {
    const auto size = static_cast<std::uint64_t>(std::max<std::int64_t>(source_.size, 0));
    if (!source_.read_at || offset > size || count > size - offset) return std::nullopt;
    Block block(count);
    if (!source_.read_at(offset, block)) return std::nullopt;
    return block;
  }
  std::int64_t size() const { return source_.size; }

 private:
  const DiskSource& source_;
};

std::wstring Hex(std::uint64_t value, int digits) {
  static const wchar_t* kDigits = L"0123456789ABCDEF";
  std::wstring out(static_cast<std::size_t>(digits), L'0');
  for (int i = digits - 1; i >= 0; --i, value >>= 4) out[static_cast<std::size_t>(i)] = kDigits[value & 0xF];
  return out;
}

// A GUID as Windows prints it: the first three fields little-endian, then bytes.
std::wstring GuidText(Bytes g) {
  std::wstring out = L"{" + Hex(le32Or0(g, 0), 8) + L"-" + Hex(le16Or0(g, 4), 4) + L"-" + Hex(le16Or0(g, 6), 4) + L"-";
  for (std::size_t i = 8; i < pt::kGuidSize; ++i) {
    if (i == 10) out += L"-";
    out += Hex(le8Or0(g, i), 2);
  }
  return out + L"}";
}

// MBR volumes have no GUID on disk. Ours is made from what identifies the volume:
// the disk signature as the first field, "KORU" in the next two, and the byte
// offset of the partition as the last 64 bits.
std::wstring MbrGuid(std::uint32_t signature, std::int64_t offset) {
  const auto off = static_cast<std::uint64_t>(offset);
  return L"{" + Hex(signature, 8) + L"-4B4F-5255-" + Hex(off >> 48, 4) + L"-" + Hex(off & 0xFFFFFFFFFFFFull, 12) + L"}";
}

bool HasText(Bytes view, std::size_t offset, const char* text, std::size_t length) {
  const Bytes field = koru::Sub(view, offset, length);
  return field.size() == length && std::memcmp(field.data(), text, length) == 0;
}

bool IsNtfsOrBitLocker(Bytes boot) {
  return koru::boot::HasOemId(boot, koru::boot::kNtfsOemId) || koru::boot::HasOemId(boot, koru::boot::kBitLockerOemId);
}

std::optional<std::wstring> VolumeKind(const DiskReader& disk, std::int64_t offset) {
  const auto boot = disk.Read(static_cast<std::uint64_t>(offset), koru::boot::kSize);
  if (!boot) return std::nullopt;
  if (koru::boot::HasOemId(*boot, koru::boot::kNtfsOemId)) return std::wstring(L"NTFS");
  if (koru::boot::HasOemId(*boot, koru::boot::kBitLockerOemId)) return std::wstring(L"BitLocker");
  return std::nullopt;
}

bool HasGptHeader(const DiskReader& disk, DWORD sector) {
  const auto header = disk.Read(pt::kGptHeaderLba * sector, pt::kGptSignatureLength);
  return header && HasText(*header, pt::kGptSignature, pt::kGptSignatureText, pt::kGptSignatureLength);
}

DWORD DetectSectorSize(const DiskReader& disk) {
  for (DWORD candidate : {kFallbackSectorSize, kLargeSectorSize})
    if (HasGptHeader(disk, candidate)) return candidate;
  // BitLocker keeps the boot sector's bytes-per-sector field too.
  if (const auto boot = disk.Read(0, koru::boot::kSize); boot && IsNtfsOrBitLocker(*boot)) {
    const DWORD own = le16Or0(*boot, koru::boot::kBytesPerSector);
    if (IsSectorSize(own)) return own;
  }
  return kFallbackSectorSize;
}

void ScanGpt(const DiskReader& disk, DWORD sector, std::vector<Partition>* out) {
  const auto header = disk.Read(pt::kGptHeaderLba * sector, pt::kGptHeaderSize);
  if (!header || !HasText(*header, pt::kGptSignature, pt::kGptSignatureText, pt::kGptSignatureLength)) return;
  const std::uint64_t entries_lba = le64Or0(*header, pt::kGptEntriesLba);
  const std::uint32_t count = std::min(le32Or0(*header, pt::kGptEntryCount), kMaxGptEntries);
  const std::uint32_t entry_size = le32Or0(*header, pt::kGptEntrySize);
  if (entry_size < pt::kGptMinEntrySize || entry_size > kMaxGptEntrySize || entries_lba > kMaxSectors) return;
  for (std::uint32_t i = 0; i < count; ++i) {
    const auto entry = disk.Read(entries_lba * sector + std::uint64_t{i} * entry_size, pt::kGptMinEntrySize);
    if (!entry) return;  // the table runs past the end of the disk
    const Bytes e(*entry);
    if (le64Or0(e, pt::kGptTypeGuid) == 0 && le64Or0(e, pt::kGptTypeGuid + 8) == 0) continue;  // unused
    const std::uint64_t first = le64Or0(e, pt::kGptFirstLba), last = le64Or0(e, pt::kGptLastLba);
    if (last < first || last >= kMaxSectors) continue;
    out->push_back({static_cast<int>(i + 1), static_cast<std::int64_t>(first * sector),
                    static_cast<std::int64_t>((last - first + 1) * sector),
                    GuidText(koru::Sub(e, pt::kGptPartitionGuid, pt::kGuidSize))});
  }
}

bool IsExtended(std::uint8_t type) {
  return type == pt::kTypeExtendedChs || type == pt::kTypeExtendedLba || type == pt::kTypeExtendedLinux;
}

Bytes Entry(Bytes record, std::size_t slot) {
  return koru::Sub(record, pt::kMbrEntries + slot * pt::kMbrEntrySize, pt::kMbrEntrySize);
}

void ScanMbr(const DiskReader& disk, Bytes mbr, DWORD sector, std::vector<Partition>* out) {
  const std::uint32_t signature = le32Or0(mbr, pt::kMbrDiskSignature);
  std::optional<std::uint64_t> extended;
  for (std::size_t slot = 0; slot < pt::kMbrEntryCount; ++slot) {
    const Bytes e = Entry(mbr, slot);
    const std::uint8_t type = le8Or0(e, pt::kEntryType);
    const std::uint64_t lba = le32Or0(e, pt::kEntryFirstLba), count = le32Or0(e, pt::kEntrySectors);
    if (type == pt::kTypeEmpty || count == 0) continue;
    if (IsExtended(type)) {
      if (!extended) extended = lba;
      continue;
    }
    const auto offset = static_cast<std::int64_t>(lba * sector);
    out->push_back({static_cast<int>(slot + 1), offset, static_cast<std::int64_t>(count * sector),
                    MbrGuid(signature, offset)});
  }
  if (!extended) return;
  std::set<std::uint64_t> seen;
  std::uint64_t ebr = *extended;
  int number = 5;
  while (seen.insert(ebr).second && seen.size() <= kMaxLogicalPartitions) {
    const auto block = disk.Read(ebr * sector, pt::kBootRecordSize);
    if (!block || le16Or0(*block, pt::kMbrBootSignature) != pt::kBootSignature) return;
    const Bytes logical = Entry(*block, pt::kEbrLogicalEntry), next = Entry(*block, pt::kEbrNextEntry);
    const std::uint64_t count = le32Or0(logical, pt::kEntrySectors);
    if (le8Or0(logical, pt::kEntryType) != pt::kTypeEmpty && count != 0) {
      const auto offset = static_cast<std::int64_t>((ebr + le32Or0(logical, pt::kEntryFirstLba)) * sector);
      out->push_back({number++, offset, static_cast<std::int64_t>(count * sector), MbrGuid(signature, offset)});
    }
    if (!IsExtended(le8Or0(next, pt::kEntryType)) || le32Or0(next, pt::kEntryFirstLba) == 0) return;
    ebr = *extended + le32Or0(next, pt::kEntryFirstLba);
  }
}

std::vector<MappedVolume> Volumes(const DiskReader& disk, const std::vector<Partition>& partitions) {
  std::vector<MappedVolume> volumes;
  for (const auto& p : partitions)
    if (auto kind = VolumeKind(disk, p.offset)) volumes.push_back({0, 0, p.number, p.offset, p.length, p.guid, *kind});
  return volumes;
}

// A new first field for a GUID that is taken: FNV-1a of the old one and the disk.
std::uint32_t Remix(std::uint32_t field, int disk) {
  std::uint32_t hash = 2166136261u;
  for (const std::uint32_t part : {field, static_cast<std::uint32_t>(disk)})
    for (int i = 0; i < 4; ++i) hash = (hash ^ ((part >> (8 * i)) & 0xFF)) * 16777619u;
  return hash;
}

void MakeGuidsUnique(std::vector<MappedVolume>& volumes) {
  std::set<std::wstring> taken;
  for (auto& v : volumes) {
    if (taken.count(v.guid)) {
      const auto first = static_cast<std::uint32_t>(std::wcstoul(v.guid.c_str() + 1, nullptr, 16));
      const std::wstring rest = v.guid.substr(9);  // -XXXX-XXXX-XXXX-XXXXXXXXXXXX}
      std::uint32_t field = Remix(first, v.disk);
      while (taken.count(L"{" + Hex(field, 8) + rest)) ++field;  // ends: fewer names are taken than there are
      v.guid = L"{" + Hex(field, 8) + rest;
    }
    taken.insert(v.guid);
  }
}

void Letter(std::vector<MappedVolume>& volumes, const std::vector<LetterPin>& pins) {
  std::set<wchar_t> taken;
  for (auto& v : volumes)
    for (const auto& pin : pins)
      if (v.letter == 0 && pin.disk == v.disk && pin.partition == v.partition && !taken.count(pin.letter)) {
        v.letter = pin.letter;
        taken.insert(pin.letter);
      }
  wchar_t next = L'C';
  for (auto& v : volumes) {
    if (v.letter != 0) continue;
    while (next <= L'Z' && taken.count(next)) ++next;
    if (next > L'Z') return;
    v.letter = next;
    taken.insert(next++);
  }
}

wchar_t Upper(wchar_t c) { return static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c))); }

bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return Upper(x) == Upper(y);
         });
}

}  // namespace

bool IsSectorSize(std::uint64_t bytes) { return bytes >= 512 && bytes <= 65536 && (bytes & (bytes - 1)) == 0; }

ScannedDisk ScanDisk(const DiskSource& source) {
  const DiskReader disk(source);
  const bool given = IsSectorSize(source.sector_size);
  ScannedDisk out;
  out.sector_size = given ? source.sector_size : DetectSectorSize(disk);
  const auto mbr = disk.Read(0, pt::kBootRecordSize);
  if (!mbr) return out;
  const Bytes m(*mbr);
  if (IsNtfsOrBitLocker(m)) {
    out.volumes = Volumes(disk, {{1, 0, disk.size(), MbrGuid(le32Or0(m, pt::kMbrDiskSignature), 0)}});
    return out;
  }
  if (le16Or0(m, pt::kMbrBootSignature) != pt::kBootSignature) return out;
  bool protective = false;
  for (std::size_t slot = 0; slot < pt::kMbrEntryCount; ++slot)
    protective |= le8Or0(Entry(m, slot), pt::kEntryType) == pt::kTypeGptProtective;
  std::vector<Partition> partitions;
  if (protective) {
    ScanGpt(disk, out.sector_size, &partitions);
    out.volumes = Volumes(disk, partitions);
    return out;
  }
  ScanMbr(disk, m, out.sector_size, &partitions);
  out.volumes = Volumes(disk, partitions);
  // An MBR disk of 4096-byte sectors whose size nobody gave: its NTFS boot sectors
  // show up only at the larger scale.
  if (!given && out.sector_size == kFallbackSectorSize && out.volumes.empty()) {
    partitions.clear();
    ScanMbr(disk, m, kLargeSectorSize, &partitions);
    auto large = Volumes(disk, partitions);
    if (!large.empty()) {
      out.sector_size = kLargeSectorSize;
      out.volumes = std::move(large);
    }
  }
  return out;
}

DiskMap::DiskMap(const std::vector<DiskSource>& disks, const std::vector<LetterPin>& pins) {
  for (std::size_t d = 0; d < disks.size(); ++d) {
    ScannedDisk scanned = ScanDisk(disks[d]);
    disks_.push_back({std::max<std::int64_t>(disks[d].size, 0), scanned.sector_size});
    for (auto& v : scanned.volumes) {
      v.disk = static_cast<int>(d);
      volumes_.push_back(std::move(v));
    }
  }
  MakeGuidsUnique(volumes_);
  Letter(volumes_, pins);
}

DWORD DiskMap::sector_size(int disk) const {
  return disk >= 0 && static_cast<std::size_t>(disk) < disks_.size() ? disks_[static_cast<std::size_t>(disk)].sector_size
                                                                      : kFallbackSectorSize;
}

bool DiskMap::Resolve(std::wstring_view path, DeviceWindow* device, DWORD* error) const {
  *error = kErrorFileNotFound;
  constexpr std::wstring_view kDrive = L"\\\\.\\PhysicalDrive";
  if (path.size() > kDrive.size() && EqualNoCase(path.substr(0, kDrive.size()), kDrive)) {
    std::size_t n = 0;
    for (const wchar_t c : path.substr(kDrive.size()))
      if (c < L'0' || c > L'9' || (n = n * 10 + static_cast<std::size_t>(c - L'0')) > kMaxDiskNumber) return false;
    if (n >= disks_.size()) return false;
    *device = {static_cast<int>(n), -1, 0, disks_[n].size};
    return true;
  }
  const std::wstring_view prefix = path.substr(0, 4);
  const bool by_letter = prefix == L"\\\\.\\" && path.size() == 6 && path[5] == L':';
  if (!by_letter && prefix != L"\\\\.\\" && prefix != L"\\\\?\\") return false;
  std::wstring_view name = path.substr(4);
  if (!name.empty() && name.back() == L'\\') name.remove_suffix(1);
  for (std::size_t i = 0; i < volumes_.size(); ++i) {
    const MappedVolume& v = volumes_[i];
    if (by_letter ? v.letter != 0 && Upper(path[4]) == v.letter : EqualNoCase(name, L"Volume" + v.guid)) {
      *device = {v.disk, static_cast<int>(i), v.offset, v.length};
      return true;
    }
  }
  return false;
}

bool DiskMap::VolumeNameForMountPoint(std::wstring_view mount_point, std::wstring* name, DWORD* error) const {
  if (mount_point.size() == 3 && mount_point[1] == L':' && mount_point[2] == L'\\') {
    for (const auto& v : volumes_)
      if (v.letter != 0 && Upper(mount_point[0]) == v.letter) {
        *name = L"\\\\?\\Volume" + v.guid + L"\\";
        return true;
      }
  }
  *error = mount_point.size() == 3 ? kErrorFileNotFound : kErrorInvalidName;
  return false;
}

bool DiskMap::DeviceIoControl(const DeviceWindow& device, DWORD code, void* out, DWORD out_size, DWORD* returned,
                              DWORD* error) const {
  *returned = 0;
  if (device.disk < 0 || static_cast<std::size_t>(device.disk) >= disks_.size()) {
    *error = kErrorInvalidHandle;
    return false;
  }
  const Disk& disk = disks_[static_cast<std::size_t>(device.disk)];
  if (code == kIoctlVolumeGetVolumeDiskExtents) {
    if (device.volume < 0) {
      *error = kErrorInvalidFunction;  // a physical drive is not a volume
      return false;
    }
    // A partition lies on one disk: one extent.
    return AnswerVolumeDiskExtents({DISK_EXTENT{static_cast<DWORD>(device.disk), device.base, device.length}}, out,
                                   out_size, returned, error);
  }
  if (code != kIoctlDiskGetDriveGeometryEx) {
    *error = kErrorInvalidFunction;
    return false;
  }
  if (out == nullptr || out_size < sizeof(DISK_GEOMETRY)) {
    *error = kErrorInsufficientBuffer;
    return false;
  }
  DISK_GEOMETRY_EX g{};
  g.Geometry.BytesPerSector = disk.sector_size;
  g.Geometry.TracksPerCylinder = 255;
  g.Geometry.SectorsPerTrack = 63;
  g.Geometry.MediaType = 12;  // FixedMedia
  g.Geometry.Cylinders = disk.size / (255 * 63 * std::int64_t{disk.sector_size});
  g.DiskSize = disk.size;
  const std::size_t n = std::min<std::size_t>(out_size, sizeof g);
  std::memcpy(out, &g, n);
  *returned = static_cast<DWORD>(n);
  return true;
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

}  // namespace platform
