// The disks PosixEnv offers: attached images or block devices (or the machine's own
// disks), opened and read for the disk map, which finds and letters their volumes.
#include "platform/posix_disks.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string_view>

#include "base/utf8.h"
#include "platform/disks.h"

namespace platform {
namespace {

struct Disk {
  std::string path;
  DWORD given_sector_size = 0;  // 0: not given
  posix::ImageKind kind;
  std::shared_ptr<posix::ContainerImage> image;  // a container's; raw files and devices are read directly
  bool block_device() const { return kind.format == posix::ImageFormat::kBlockDevice; }
};

struct Registry {
  std::mutex mutex;
  bool environment_read = false;
  bool scanned = false;
  std::vector<Disk> disks;
  std::vector<LetterPin> pins;
  DiskMap map;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry;  // lives for the process: the library may be used at unload
  return *registry;
}

bool ReadAt(int fd, std::uint64_t offset, std::span<std::byte> out) {
  std::size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::int64_t SizeOf(int fd, bool block_device) {
  if (block_device) {
    std::uint64_t size = 0;
    if (::ioctl(fd, BLKGETSIZE64, &size) == 0) return static_cast<std::int64_t>(size);
  }
  struct stat st{};
  return ::fstat(fd, &st) == 0 ? st.st_size : 0;
}

// The whole of `text` as a number from `low` to `high`: no sign, blank or trailing junk.
std::optional<DWORD> Number(std::string_view text, DWORD low, DWORD high) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < low || value > high)
    return std::nullopt;
  return static_cast<DWORD>(value);
}

// PATH[:SECTOR_SIZE]. The reason for a refusal leaves the argument to the caller.
bool ParseDiskSpec(const std::string& arg, Disk* disk, std::string* error) {
  std::string path = arg;
  DWORD size = 0;
  const auto colon = arg.rfind(':');
  if (colon != std::string::npos && colon + 1 < arg.size() &&
      arg.find_first_not_of("0123456789", colon + 1) == std::string::npos) {
    path = arg.substr(0, colon);
    const auto given = Number(std::string_view(arg).substr(colon + 1), 512, 65536);
    if (!given || !IsSectorSize(*given)) {
      *error = "sector size must be a power of two from 512 to 65536";
      return false;
    }
    size = *given;
  }
  struct stat st{};
  if (path.empty() || ::stat(path.c_str(), &st) != 0) {
    *error = std::strerror(path.empty() ? ENOENT : errno);
    return false;
  }
  if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode)) {
    *error = "not a disk image or block device";
    return false;
  }
  *disk = {path, size, {}, nullptr};
  if (!posix::IdentifyImage(path, &disk->kind, error)) return false;
  if (disk->kind.format == posix::ImageFormat::kBlockDevice || disk->kind.format == posix::ImageFormat::kRaw)
    return true;
  disk->image = posix::ContainerImage::Open(disk->kind, error);
  return disk->image != nullptr;
}

// L=DISK:PARTITION
bool ParsePin(const std::string& arg, LetterPin* pin, std::string* error) {
  const auto colon = arg.find(':', 2);
  const char letter = static_cast<char>(arg.empty() ? 0 : arg[0] & ~0x20);  // upper case
  if (arg.size() < 5 || arg[1] != '=' || letter < 'A' || letter > 'Z' || colon == std::string::npos) {
    *error = "expected L=DISK:PARTITION";
    return false;
  }
  const auto disk = Number(std::string_view(arg).substr(2, colon - 2), 0, kMaxDiskNumber);
  if (!disk) {
    *error = "disk number must be 0 to " + std::to_string(kMaxDiskNumber);
    return false;
  }
  const auto partition = Number(std::string_view(arg).substr(colon + 1), 1, kMaxPartitionNumber);
  if (!partition) {
    *error = "partition number must be 1 to " + std::to_string(kMaxPartitionNumber);
    return false;
  }
  if (letter < 'C') {
    *error = "letters start at C";
    return false;
  }
  *pin = {static_cast<wchar_t>(letter), static_cast<int>(*disk), static_cast<int>(*partition)};
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
  for (const auto& name : posix::OrderMachineDisks(std::move(names)))
    disks.push_back({"/dev/" + name, 0, {posix::ImageFormat::kBlockDevice, {"/dev/" + name}}, nullptr});
  return disks;
}

// The rest run under the registry's lock.
void ReadEnvironment(Registry& r) {
  if (r.environment_read) return;
  r.environment_read = true;
  std::string ignored;
  for (const auto& arg : SplitList(std::getenv("KORU_MFT_DISKS"))) {
    Disk disk;
    if (ParseDiskSpec(arg, &disk, &ignored)) r.disks.push_back(disk);
  }
  for (const auto& arg : SplitList(std::getenv("KORU_MFT_VOLUMES"))) {
    LetterPin pin{};
    if (ParsePin(arg, &pin, &ignored)) r.pins.push_back(pin);
  }
}

void Scan(Registry& r) {
  ReadEnvironment(r);
  if (r.scanned) return;
  r.scanned = true;
  if (r.disks.empty()) r.disks = MachineDisks();
  std::vector<DiskSource> sources(r.disks.size());
  std::vector<int> open;
  for (std::size_t d = 0; d < r.disks.size(); ++d) {
    const Disk& disk = r.disks[d];
    DiskSource& source = sources[d];
    if (disk.image) {
      source.read_at = [image = disk.image](std::uint64_t offset, std::span<std::byte> out) {
        return image->Read(offset, out) == static_cast<std::int64_t>(out.size());
      };
      source.size = disk.image->size();
      source.sector_size = disk.given_sector_size != 0 ? disk.given_sector_size : disk.image->sector_size();
      continue;
    }
    const int fd = ::open(disk.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;  // keeps its number, with nothing on it
    open.push_back(fd);
    source.read_at = [fd](std::uint64_t offset, std::span<std::byte> out) { return ReadAt(fd, offset, out); };
    source.size = SizeOf(fd, disk.block_device());
    source.sector_size = disk.given_sector_size;
    int kernel = 0;
    if (source.sector_size == 0 && disk.block_device() && ::ioctl(fd, BLKSSZGET, &kernel) == 0 && kernel > 0)
      source.sector_size = static_cast<DWORD>(kernel);
  }
  r.map = DiskMap(sources, r.pins);
  for (const int fd : open) ::close(fd);
}

}  // namespace

namespace posix {

bool ResolveDevice(const std::wstring& path, DeviceBinding* binding, DWORD* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Scan(r);
  if (!r.map.Resolve(path, binding, error)) return false;
  const Disk& disk = r.disks[static_cast<std::size_t>(binding->disk)];
  binding->host_path = disk.path;
  binding->image = disk.image;
  return true;
}

bool DeviceControl(const DeviceBinding& binding, DWORD code, void* out, DWORD out_size, DWORD* returned,
                   DWORD* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.map.DeviceIoControl(binding, code, out, out_size, returned, error);
}

bool VolumeNameForMountPoint(const std::wstring& mount_point, std::wstring* volume_name, DWORD* error) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  Scan(r);
  return r.map.VolumeNameForMountPoint(mount_point, volume_name, error);
}

void ResetDisks() {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.environment_read = false;
  r.scanned = false;
  r.disks.clear();
  r.pins.clear();
  r.map = DiskMap();
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
  LetterPin pin{};
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
  for (const auto& v : r.map.volumes()) {
    if (v.letter == 0) continue;
    const Disk& disk = r.disks[static_cast<std::size_t>(v.disk)];
    out.push_back({v.letter, L"\\\\?\\Volume" + v.guid + L"\\", static_cast<DWORD>(v.disk), v.offset, v.length,
                   r.map.sector_size(v.disk), v.kind, koru::WideFromUtf8(disk.path),
                   koru::WideFromUtf8(posix::FormatName(disk.kind.format)), static_cast<DWORD>(disk.kind.files.size())});
  }
  std::sort(out.begin(), out.end(), [](const ListedVolume& a, const ListedVolume& b) { return a.letter < b.letter; });
  return out;
}

}  // namespace platform
