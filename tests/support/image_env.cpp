#include "support/image_env.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>

#include "base/ntfs_layout.h"
#include "base/bytes.h"

namespace koru::test {
namespace {

std::wstring Upper(std::wstring text) {
  for (auto& c : text) c = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
  return text;
}

// Copies an IOCTL's answer out, as Windows does when the buffer holds it.
template <typename T>
bool Answer(const T& answer, void* out, DWORD out_size, DWORD* returned) {
  if (out_size < sizeof answer) return false;
  std::memcpy(out, &answer, sizeof answer);
  *returned = static_cast<DWORD>(sizeof answer);
  return true;
}

}  // namespace

ImageEnv::ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size)
    : FaultEnv(inner), inner_(inner), image_(std::move(image)), sector_size_(sector_size) {
  const Bytes bytes(image_);
  bare_volume_ = boot::HasOemId(bytes, boot::kNtfsOemId) || boot::HasOemId(bytes, boot::kBitLockerOemId);
  const std::uint16_t own = le16Or0(bytes, boot::kBytesPerSector);
  if (sector_size_ == 0) sector_size_ = bare_volume_ && (own == 512 || own == 4096) ? own : 512;
  // The name the Linux personality gives a bare volume: disk signature field, "KORU", offset 0.
  wchar_t name[64];
  std::swprintf(name, 64, L"\\\\?\\Volume{%08X-4B4F-5255-0000-000000000000}\\",
                static_cast<unsigned>(le32Or0(bytes, 0x1B8)));
  volume_name_ = name;
}

bool ImageEnv::Fail(DWORD error) {
  inner_.SetLastError(error);
  return false;
}

ImageEnv::Open* ImageEnv::Find(platform::HANDLE handle) {
  auto it = open_.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == open_.end() ? nullptr : &it->second;
}

platform::HANDLE ImageEnv::CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                                       DWORD flags) {
  std::wstring name = Upper(path ? path : L"");
  if (name.rfind(L"\\\\.\\", 0) != 0 && name.rfind(L"\\\\?\\", 0) != 0)
    return FaultEnv::CreateFileW(path, access, share, disposition, flags);
  if (name.back() != L'\\') name += L'\\';
  const bool volume = bare_volume_ && (name == L"\\\\.\\C:\\" || name == Upper(volume_name_));
  if (!volume && name != L"\\\\.\\PHYSICALDRIVE0\\") {
    Fail(platform::kErrorFileNotFound);
    return platform::InvalidHandle();
  }
  if ((access & (platform::kGenericWrite | platform::kFileAppendData)) != 0) {
    Fail(platform::kErrorAccessDenied);  // disks are only ever read
    return platform::InvalidHandle();
  }
  const std::uintptr_t id = (next_ += 4);
  open_[id] = Open{volume, 0};
  inner_.SetLastError(platform::kErrorSuccess);
  return reinterpret_cast<platform::HANDLE>(id);
}

bool ImageEnv::ReadFile(platform::HANDLE file, void* buffer, DWORD to_read, DWORD* read) {
  Open* open = Find(file);
  if (!open) return FaultEnv::ReadFile(file, buffer, to_read, read);
  // Past the end is a short read, as a disk gives it.
  const auto n = std::clamp<std::int64_t>(static_cast<std::int64_t>(image_.size()) - open->position, 0, to_read);
  if (n > 0) std::memcpy(buffer, image_.data() + open->position, static_cast<std::size_t>(n));
  open->position += n;
  if (read) *read = static_cast<DWORD>(n);
  inner_.SetLastError(platform::kErrorSuccess);
  return true;
}

bool ImageEnv::SetFilePointerEx(platform::HANDLE file, std::int64_t distance, std::int64_t* new_position,
                                DWORD method) {
  Open* open = Find(file);
  if (!open) return FaultEnv::SetFilePointerEx(file, distance, new_position, method);
  if (method != platform::kFileBegin) return Fail(platform::kErrorInvalidParameter);  // the core seeks only so
  if (distance < 0) return Fail(platform::kErrorNegativeSeek);
  open->position = distance;
  if (new_position) *new_position = open->position;
  inner_.SetLastError(platform::kErrorSuccess);
  return true;
}

bool ImageEnv::CloseHandle(platform::HANDLE handle) {
  return open_.erase(reinterpret_cast<std::uintptr_t>(handle)) != 0 || FaultEnv::CloseHandle(handle);
}

bool ImageEnv::DeviceIoControl(platform::HANDLE device, DWORD code, const void* in, DWORD in_size, void* out,
                               DWORD out_size, DWORD* returned) {
  const Open* open = Find(device);
  if (!open) return FaultEnv::DeviceIoControl(device, code, in, in_size, out, out_size, returned);
  *returned = 0;
  const auto size = static_cast<std::int64_t>(image_.size());
  if (code == platform::kIoctlVolumeGetVolumeDiskExtents && open->volume) {
    // One extent, all of disk 0, after the 8-byte header holding the count.
    const struct { std::uint32_t count, pad; platform::DISK_EXTENT extent; } extents{1, 0, {0, 0, size}};
    static_assert(offsetof(decltype(extents), extent) == platform::kVolumeDiskExtentsHeader);
    return Answer(extents, out, out_size, returned) || Fail(platform::kErrorMoreData);
  }
  if (code == platform::kIoctlDiskGetDriveGeometryEx) {
    platform::DISK_GEOMETRY_EX geometry{};
    geometry.Geometry.BytesPerSector = sector_size_;
    geometry.DiskSize = size;
    return Answer(geometry, out, out_size, returned) || Fail(platform::kErrorInsufficientBuffer);
  }
  return Fail(platform::kErrorInvalidFunction);  // a physical drive is not a volume
}

bool ImageEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) {
  if (!bare_volume_ || Upper(mount_point) != L"C:\\") return Fail(platform::kErrorFileNotFound);
  if (volume_name_.size() + 1 > size) return Fail(platform::kErrorFilenameExcedRange);
  std::wcscpy(buffer, volume_name_.c_str());
  return true;
}

}  // namespace koru::test
