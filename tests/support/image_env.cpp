#include "support/image_env.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cwchar>
#include <cstring>
#include <cwctype>
#include <string>

#include "support/bytes.h"

namespace koru::test {
namespace {

using platform::DWORD;

bool EqualNoCase(const std::wstring& a, const std::wstring& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<std::wint_t>(x)) == std::towupper(static_cast<std::wint_t>(y));
         });
}

bool HasText(const std::vector<std::byte>& image, std::size_t at, const char* text) {
  const std::size_t n = std::strlen(text);
  return image.size() >= at + n && std::memcmp(image.data() + at, text, n) == 0;
}

// The name the Linux personality gives a bare volume: disk signature field, "KORU", offset 0.
std::wstring BareVolumeName(const std::vector<std::byte>& image) {
  const std::uint32_t signature = le32Or0(Bytes(image), 0x1B8);
  wchar_t text[64];
  std::swprintf(text, 64, L"\\\\?\\Volume{%08X-4B4F-5255-0000-000000000000}\\", static_cast<unsigned>(signature));
  return text;
}

}  // namespace

ImageEnv::ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size)
    : inner_(inner), image_(std::move(image)), sector_size_(sector_size),
      bare_volume_(HasText(image_, 3, "NTFS    ") || HasText(image_, 3, "-FVE-FS-")) {
  if (sector_size_ == 0) {
    const std::uint16_t own = le16Or0(Bytes(image_), 0x0B);
    sector_size_ = bare_volume_ && (own == 512 || own == 4096) ? own : 512;
  }
}

bool ImageEnv::Fail(DWORD error) {
  inner_.SetLastError(error);
  return false;
}

bool ImageEnv::Find(HANDLE handle, Open** open) {
  auto it = open_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == open_.end()) return false;
  *open = &it->second;
  return true;
}

platform::HANDLE ImageEnv::CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                                       DWORD flags) {
  if (path == nullptr) return inner_.CreateFileW(path, access, share, disposition, flags);
  std::wstring name(path);
  const bool device = name.rfind(L"\\\\.\\", 0) == 0 || name.rfind(L"\\\\?\\", 0) == 0;
  if (!device) return inner_.CreateFileW(path, access, share, disposition, flags);

  Open open;
  if (EqualNoCase(name, L"\\\\.\\PhysicalDrive0")) {
    open.volume = false;
  } else {
    std::wstring volume = BareVolumeName(image_);
    volume.pop_back();
    if (!name.empty() && name.back() == L'\\') name.pop_back();
    if (!bare_volume_ || !(EqualNoCase(name, L"\\\\.\\C:") || EqualNoCase(name, volume))) {
      Fail(platform::kErrorFileNotFound);
      return platform::InvalidHandle();
    }
    open.volume = true;
  }
  if ((access & (platform::kGenericWrite | platform::kFileAppendData)) != 0) {
    Fail(platform::kErrorAccessDenied);  // disks are only ever read
    return platform::InvalidHandle();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t id = (next_ += 4);
  open_[id] = open;
  inner_.SetLastError(platform::kErrorSuccess);
  return reinterpret_cast<HANDLE>(id);
}

bool ImageEnv::ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read) {
  std::unique_lock<std::mutex> lock(mutex_);
  Open* open = nullptr;
  if (!Find(file, &open)) {
    lock.unlock();
    return inner_.ReadFile(file, buffer, to_read, read);
  }
  if (read) *read = 0;
  if (buffer == nullptr && to_read > 0) return Fail(platform::kErrorInvalidParameter);
  const auto size = static_cast<std::int64_t>(image_.size());
  // Past the end is a short read, as a disk gives it.
  const std::int64_t n = std::max<std::int64_t>(0, std::min<std::int64_t>(to_read, size - open->position));
  if (n > 0) std::memcpy(buffer, image_.data() + open->position, static_cast<std::size_t>(n));
  open->position += n;
  if (read) *read = static_cast<DWORD>(n);
  inner_.SetLastError(platform::kErrorSuccess);
  return true;
}

bool ImageEnv::WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Open* open = nullptr;
    if (Find(file, &open)) {
      if (written) *written = 0;
      return Fail(platform::kErrorAccessDenied);
    }
  }
  return inner_.WriteFile(file, buffer, to_write, written);
}

bool ImageEnv::SetFilePointerEx(HANDLE file, std::int64_t distance, std::int64_t* new_position, DWORD method) {
  std::unique_lock<std::mutex> lock(mutex_);
  Open* open = nullptr;
  if (!Find(file, &open)) {
    lock.unlock();
    return inner_.SetFilePointerEx(file, distance, new_position, method);
  }
  std::int64_t origin = 0;
  if (method == platform::kFileCurrent) origin = open->position;
  else if (method == platform::kFileEnd) origin = static_cast<std::int64_t>(image_.size());
  else if (method != platform::kFileBegin) return Fail(platform::kErrorInvalidParameter);
  if ((distance > 0 && origin > INT64_MAX - distance) || origin + distance < 0)
    return Fail(platform::kErrorNegativeSeek);
  open->position = origin + distance;
  if (new_position) *new_position = open->position;
  inner_.SetLastError(platform::kErrorSuccess);
  return true;
}

bool ImageEnv::CloseHandle(HANDLE handle) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (open_.erase(reinterpret_cast<std::uintptr_t>(handle)) != 0) return true;
  }
  return inner_.CloseHandle(handle);
}

bool ImageEnv::DeviceIoControl(HANDLE device, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
                               DWORD* returned) {
  bool mine = false;
  bool volume = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Open* open = nullptr;
    mine = Find(device, &open);
    volume = mine && open->volume;
  }
  if (!mine) return inner_.DeviceIoControl(device, code, in, in_size, out, out_size, returned);
  if (returned) *returned = 0;
  if (code == platform::kIoctlVolumeGetVolumeDiskExtents) {
    if (!volume) return Fail(platform::kErrorInvalidFunction);  // a physical drive is not a volume
    if (out == nullptr || out_size < platform::kVolumeDiskExtentsHeader) return Fail(platform::kErrorInsufficientBuffer);
    auto* bytes = static_cast<unsigned char*>(out);
    const std::uint32_t count = 1;
    std::memset(bytes, 0, platform::kVolumeDiskExtentsHeader);
    std::memcpy(bytes, &count, sizeof count);
    if (out_size < platform::kVolumeDiskExtentsHeader + sizeof(platform::DISK_EXTENT)) {
      if (returned) *returned = static_cast<DWORD>(platform::kVolumeDiskExtentsHeader);
      return Fail(platform::kErrorMoreData);
    }
    const platform::DISK_EXTENT extent{0, 0, static_cast<std::int64_t>(image_.size())};
    std::memcpy(bytes + platform::kVolumeDiskExtentsHeader, &extent, sizeof extent);
    if (returned) *returned = static_cast<DWORD>(platform::kVolumeDiskExtentsHeader + sizeof extent);
    return true;
  }
  if (code == platform::kIoctlDiskGetDriveGeometryEx) {
    if (out == nullptr || out_size < sizeof(platform::DISK_GEOMETRY)) return Fail(platform::kErrorInsufficientBuffer);
    platform::DISK_GEOMETRY_EX g{};
    g.Geometry.BytesPerSector = sector_size_;
    g.Geometry.TracksPerCylinder = 255;
    g.Geometry.SectorsPerTrack = 63;
    g.Geometry.MediaType = 12;  // FixedMedia
    g.Geometry.Cylinders = static_cast<std::int64_t>(image_.size()) / (255 * 63 * std::int64_t{sector_size_});
    g.DiskSize = static_cast<std::int64_t>(image_.size());
    const std::size_t n = std::min<std::size_t>(out_size, sizeof g);
    std::memcpy(out, &g, n);
    if (returned) *returned = static_cast<DWORD>(n);
    return true;
  }
  return Fail(platform::kErrorInvalidFunction);
}

bool ImageEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) {
  if (mount_point == nullptr) return Fail(platform::kErrorInvalidParameter);
  const std::wstring point(mount_point);
  if (point.size() != 3 || point[1] != L':' || point[2] != L'\\') return Fail(platform::kErrorInvalidName);
  if (!bare_volume_ || std::towupper(static_cast<std::wint_t>(point[0])) != L'C')
    return Fail(platform::kErrorFileNotFound);
  const std::wstring name = BareVolumeName(image_);
  if (buffer == nullptr || name.size() + 1 > size) return Fail(platform::kErrorFilenameExcedRange);
  std::copy(name.begin(), name.end(), buffer);
  buffer[name.size()] = 0;
  return true;
}

}  // namespace koru::test
