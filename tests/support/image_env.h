// ImageEnv: serves a disk image held in memory as \\.\PhysicalDrive0, for builds
// without the Linux personality (Windows), so tests that attach an image run there
// too. Its volumes, letters, volume names and IOCTL answers come from the same disk
// map as on Linux. Every other call goes to the wrapped Env (FaultEnv does the
// forwarding; no fault is ever injected here). Not thread-safe: no test shares a
// disk across threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/disk_map.h"
#include "support/fault_env.h"

namespace koru::test {

class ImageEnv : public FaultEnv {
 public:
  // `sector_size` 0: found on the disk.
  ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size);

  platform::HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                               DWORD flags) override;
  bool ReadFile(platform::HANDLE file, void* buffer, DWORD to_read, DWORD* read) override;
  bool SetFilePointerEx(platform::HANDLE file, std::int64_t distance, std::int64_t* new_position,
                        DWORD method) override;
  bool CloseHandle(platform::HANDLE handle) override;
  bool DeviceIoControl(platform::HANDLE device, DWORD code, const void* in, DWORD in_size, void* out,
                       DWORD out_size, DWORD* returned) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) override;
  std::wostream& StdOut() override { return inner_.StdOut(); }  // FaultEnv would capture it
  std::wostream& StdErr() override { return inner_.StdErr(); }

 private:
  struct Open {
    platform::DeviceWindow device;
    std::int64_t position = 0;
  };
  Open* Find(platform::HANDLE handle);  // nullptr: not one of ours

  platform::Env& inner_;
  const std::vector<std::byte> image_;
  platform::DiskMap map_;
  std::map<std::uintptr_t, Open> open_;
  std::uintptr_t next_ = 0x7E570000;
};

}  // namespace koru::test
