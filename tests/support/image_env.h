// ImageEnv: serves a disk image held in memory as \\.\PhysicalDrive0, for builds
// without the Linux personality (Windows), so tests that attach an image run there
// too. A bare NTFS volume (boot sector at 0, no partition table) is also volume C:
// with its volume name, \\.\C: and the extents IOCTL; partition tables are not
// read. Every other call goes to the wrapped Env.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/env.h"

namespace koru::test {

class ImageEnv : public platform::Env {
 public:
  // `sector_size` 0: the bare volume's own bytes per sector, else 512.
  ImageEnv(platform::Env& inner, std::vector<std::byte> image, std::uint32_t sector_size);

  static const wchar_t* const kVolumeName;  // \\?\Volume{...}\ of the bare volume
  bool is_bare_volume() const { return bare_volume_; }
  std::uint32_t sector_size() const { return sector_size_; }

  using DWORD = platform::DWORD;
  using HANDLE = platform::HANDLE;
  using UINT = platform::UINT;
  using LONG = platform::LONG;
  using HKEY = platform::HKEY;

  HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags) override;
  bool ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read) override;
  bool WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written) override;
  bool SetFilePointerEx(HANDLE file, std::int64_t distance, std::int64_t* new_position, DWORD method) override;
  bool CloseHandle(HANDLE handle) override;
  bool DeviceIoControl(HANDLE device, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
                       DWORD* returned) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) override;

  // The rest is the wrapped Env's.
  DWORD GetLastError() override { return inner_.GetLastError(); }
  void SetLastError(DWORD e) override { inner_.SetLastError(e); }
  platform::HMODULE GetModuleHandleW(const wchar_t* n) override { return inner_.GetModuleHandleW(n); }
  DWORD GetModuleFileNameW(platform::HMODULE m, wchar_t* b, DWORD n) override {
    return inner_.GetModuleFileNameW(m, b, n);
  }
  DWORD GetFileVersionInfoSizeW(const wchar_t* f) override { return inner_.GetFileVersionInfoSizeW(f); }
  bool GetFileVersionInfoW(const wchar_t* f, DWORD n, void* d) override { return inner_.GetFileVersionInfoW(f, n, d); }
  bool VerQueryValueW(const void* b, const wchar_t* s, const void** v, UINT* l) override {
    return inner_.VerQueryValueW(b, s, v, l);
  }
  DWORD GetPrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* d, wchar_t* b, DWORD n,
                                 const wchar_t* f) override {
    return inner_.GetPrivateProfileStringW(s, k, d, b, n, f);
  }
  UINT GetPrivateProfileIntW(const wchar_t* s, const wchar_t* k, int d, const wchar_t* f) override {
    return inner_.GetPrivateProfileIntW(s, k, d, f);
  }
  bool WritePrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* v, const wchar_t* f) override {
    return inner_.WritePrivateProfileStringW(s, k, v, f);
  }
  bool PathFileExistsW(const wchar_t* p) override { return inner_.PathFileExistsW(p); }
  bool PathIsDirectoryW(const wchar_t* p) override { return inner_.PathIsDirectoryW(p); }
  bool CreateDirectoryW(const wchar_t* p) override { return inner_.CreateDirectoryW(p); }
  bool CopyFileW(const wchar_t* a, const wchar_t* b, bool f) override { return inner_.CopyFileW(a, b, f); }
  bool DeleteFileW(const wchar_t* p) override { return inner_.DeleteFileW(p); }
  void GetLocalTime(platform::SystemTime* t) override { inner_.GetLocalTime(t); }
  DWORD GetCurrentThreadId() override { return inner_.GetCurrentThreadId(); }
  std::wostream& StdOut() override { return inner_.StdOut(); }
  bool GetVersionExW(platform::OsVersionInfo* i) override { return inner_.GetVersionExW(i); }
  bool GetProductInfo(DWORD a, DWORD b, DWORD c, DWORD d, DWORD* t) override {
    return inner_.GetProductInfo(a, b, c, d, t);
  }
  UINT GetSystemDirectoryW(wchar_t* b, UINT n) override { return inner_.GetSystemDirectoryW(b, n); }
  UINT GetSystemWow64DirectoryW(wchar_t* b, UINT n) override { return inner_.GetSystemWow64DirectoryW(b, n); }
  LONG RegOpenKeyExW(HKEY r, const wchar_t* k, DWORD o, DWORD s, HKEY* out) override {
    return inner_.RegOpenKeyExW(r, k, o, s, out);
  }
  LONG RegQueryValueExW(HKEY k, const wchar_t* n, DWORD* t, void* d, DWORD* s) override {
    return inner_.RegQueryValueExW(k, n, t, d, s);
  }
  LONG RegCloseKey(HKEY k) override { return inner_.RegCloseKey(k); }
  LONG RegUnLoadKeyW(HKEY r, const wchar_t* k) override { return inner_.RegUnLoadKeyW(r, k); }
  bool OpenProcessToken(DWORD a, HANDLE* t) override { return inner_.OpenProcessToken(a, t); }
  bool LookupPrivilegeValueW(const wchar_t* n, platform::Luid* l) override { return inner_.LookupPrivilegeValueW(n, l); }
  bool AdjustTokenPrivileges(HANDLE t, const platform::TokenPrivileges* n, DWORD s, platform::TokenPrivileges* p,
                             DWORD* r) override {
    return inner_.AdjustTokenPrivileges(t, n, s, p, r);
  }

 private:
  struct Open {
    bool volume = false;  // opened as the volume (C:), not as the disk
    std::int64_t position = 0;
  };
  bool Fail(DWORD error);
  bool Find(HANDLE handle, Open** open);

  platform::Env& inner_;
  const std::vector<std::byte> image_;
  std::uint32_t sector_size_;
  bool bare_volume_;
  std::mutex mutex_;
  std::map<std::uintptr_t, Open> open_;
  std::uintptr_t next_ = 0x7E570000;
};

}  // namespace koru::test
