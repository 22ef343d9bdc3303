// ImageEnv: serves a disk image held in memory as \\.\PhysicalDrive0, for builds
// without the Linux personality (Windows), so tests that attach an image run there
// too. A bare NTFS volume (boot sector at 0, no partition table) is also volume C:
// with its volume name, \\.\C: and the extents IOCTL; partition tables are not
// read. Every other call goes to the wrapped Env (FaultEnv does the forwarding; no
// fault is ever injected here). Not thread-safe: no test shares a disk across threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "support/fault_env.h"

namespace koru::test {

class ImageEnv : public FaultEnv {
 public:
  // `sector_size` 0: the bare volume's own bytes per sector, else 512.
  ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size);
  std::uint32_t sector_size() const { return sector_size_; }

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

 private:
  struct Open {
    bool volume = false;  // opened as the volume (C:), not as the disk
    std::int64_t position = 0;
  };
  Open* Find(platform::HANDLE handle);  // nullptr: not one of ours
  bool Fail(DWORD error);

  platform::Env& inner_;
  const std::vector<std::byte> image_;
  std::uint32_t sector_size_;
  bool bare_volume_;
  std::wstring volume_name_;  // \\?\Volume{...}\ of the bare volume
  std::map<std::uintptr_t, Open> open_;
  std::uintptr_t next_ = 0x7E570000;
};

}  // namespace koru::test
