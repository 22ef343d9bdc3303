// ImageEnv: serves a disk image held in memory as \\.\PhysicalDrive0, for builds
// without the Linux personality (Windows), so tests that attach an image run there
// too. Its volumes, letters, volume names and IOCTL answers come from the same disk
// map as on Linux. Every other call goes to the wrapped Env (FaultEnv does the
// forwarding; no fault is ever injected here). Not thread-safe: no test shares a
// disk across threads.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/disk_map.h"
#include "support/fault_env.h"

namespace koru::test {

// A disk for the disk map over bytes in memory, which must outlive it; `sector_size` 0:
// found on the disk.
inline platform::DiskSource SourceOver(const std::vector<std::byte>& image, std::uint32_t sector_size = 0) {
  return {[&image](std::uint64_t offset, std::span<std::byte> out) {
            if (offset > image.size() || out.size() > image.size() - offset) return false;
            std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
            return true;
          },
          static_cast<std::int64_t>(image.size()), sector_size};
}

class ImageEnv : public FaultEnv {
 public:
  // `sector_size` 0: found on the disk.
  ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size)
      : FaultEnv(inner), inner_(inner), image_(std::move(image)) {
    map_ = platform::DiskMap({SourceOver(image_, sector_size)}, {});
  }

  platform::HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                               DWORD flags) override {
    const std::wstring name = path ? path : L"";
    if (name.rfind(L"\\\\.\\", 0) != 0 && name.rfind(L"\\\\?\\", 0) != 0)
      return FaultEnv::CreateFileW(path, access, share, disposition, flags);
    Open open;
    DWORD error = platform::kErrorFileNotFound;
    if (!map_.Resolve(name, &open.device, &error)) return FailHandle(error);
    if ((access & (platform::kGenericWrite | platform::kFileAppendData)) != 0)
      return FailHandle(platform::kErrorAccessDenied);  // disks are only ever read
    const std::uintptr_t id = (next_ += 4);
    open_[id] = open;
    inner_.SetLastError(platform::kErrorSuccess);
    return reinterpret_cast<platform::HANDLE>(id);
  }
  bool ReadFile(platform::HANDLE file, void* buffer, DWORD to_read, DWORD* read) override {
    Open* open = Find(file);
    if (!open) return FaultEnv::ReadFile(file, buffer, to_read, read);
    // Past the end of the device, or of the image, is a short read, as a disk gives it.
    const auto left =
        std::min(open->device.base + open->device.length, static_cast<std::int64_t>(image_.size())) - open->device.base;
    const auto n = open->position >= left ? 0 : std::min<std::int64_t>(left - open->position, to_read);
    if (n > 0) std::memcpy(buffer, image_.data() + open->device.base + open->position, static_cast<std::size_t>(n));
    open->position += n;
    if (read) *read = static_cast<DWORD>(n);
    inner_.SetLastError(platform::kErrorSuccess);
    return true;
  }
  bool SetFilePointerEx(platform::HANDLE file, std::int64_t distance, std::int64_t* new_position,
                        DWORD method) override {
    Open* open = Find(file);
    if (!open) return FaultEnv::SetFilePointerEx(file, distance, new_position, method);
    if (method != platform::kFileBegin) return Fail(platform::kErrorInvalidParameter);  // the core seeks only so
    if (distance < 0) return Fail(platform::kErrorNegativeSeek);
    open->position = distance;
    if (new_position) *new_position = open->position;
    inner_.SetLastError(platform::kErrorSuccess);
    return true;
  }
  bool CloseHandle(platform::HANDLE handle) override {
    return open_.erase(reinterpret_cast<std::uintptr_t>(handle)) != 0 || FaultEnv::CloseHandle(handle);
  }
  bool DeviceIoControl(platform::HANDLE device, DWORD code, const void* in, DWORD in_size, void* out,
                       DWORD out_size, DWORD* returned) override {
    const Open* open = Find(device);
    if (!open) return FaultEnv::DeviceIoControl(device, code, in, in_size, out, out_size, returned);
    DWORD error = 0, count = 0;
    const bool ok = map_.DeviceIoControl(open->device, code, out, out_size, &count, &error);
    if (returned) *returned = count;
    return ok || Fail(error);
  }
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) override {
    std::wstring name;
    DWORD error = 0;
    if (!map_.VolumeNameForMountPoint(mount_point ? mount_point : L"", &name, &error)) return Fail(error);
    if (buffer == nullptr || name.size() + 1 > size) return Fail(platform::kErrorFilenameExcedRange);
    std::copy_n(name.c_str(), name.size() + 1, buffer);
    return true;
  }
  std::wostream& StdOut() override { return inner_.StdOut(); }  // FaultEnv would capture it
  std::wostream& StdErr() override { return inner_.StdErr(); }

 private:
  struct Open {
    platform::DeviceWindow device;
    std::int64_t position = 0;
  };
  Open* Find(platform::HANDLE handle) {  // nullptr: not one of ours
    auto it = open_.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == open_.end() ? nullptr : &it->second;
  }

  platform::Env& inner_;
  const std::vector<std::byte> image_;
  platform::DiskMap map_;
  std::map<std::uintptr_t, Open> open_;
  std::uintptr_t next_ = 0x7E570000;
};

}  // namespace koru::test
