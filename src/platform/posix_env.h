// PosixEnv: the Win32 personality on Linux, a mapping of errno, handles and paths.
// Host paths appear as Z:\... (posix_paths); devices (\\.\PhysicalDriveN, \\.\C:,
// volume names) are resolved by the disks (posix_disks). The handles of host files
// and devices (posix_host_files), the file-level calls on lettered volumes
// (posix_volume_files), INI files and the version resource have units of their own
// (posix_ini, posix_version), as have errno's Win32 meaning (posix_errno) and the
// answers about the system itself (posix_system).
#pragma once

#include <cstdint>
#include <string>

#include "platform/env.h"
#include "platform/posix_host_files.h"

namespace platform {

class PosixEnv : public Env {
 public:
  DWORD GetLastError() override;
  void SetLastError(DWORD error) override;
  HMODULE GetModuleHandleW(const wchar_t* module_name) override;
  DWORD GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) override;
  DWORD GetFileVersionInfoSizeW(const wchar_t* file_name) override;
  bool GetFileVersionInfoW(const wchar_t* file_name, DWORD size, void* data) override;
  bool VerQueryValueW(const void* block, const wchar_t* sub_block, const void** value, UINT* length) override;
  DWORD GetPrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* default_value,
                                 wchar_t* buffer, DWORD size, const wchar_t* file_name) override;
  UINT GetPrivateProfileIntW(const wchar_t* section, const wchar_t* key, int default_value,
                             const wchar_t* file_name) override;
  bool WritePrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* value,
                                  const wchar_t* file_name) override;
  bool PathFileExistsW(const wchar_t* path) override;
  bool PathIsDirectoryW(const wchar_t* path) override;
  bool CreateDirectoryW(const wchar_t* path) override;
  bool CopyFileW(const wchar_t* from, const wchar_t* to, bool fail_if_exists) override;
  bool DeleteFileW(const wchar_t* path) override;
  HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags) override;
  bool ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read) override;
  bool WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written) override;
  bool SetFilePointerEx(HANDLE file, std::int64_t distance, std::int64_t* new_position, DWORD method) override;
  ReadResult ReadAt(HANDLE file, std::uint64_t offset, void* buffer, DWORD size) override;
  bool CloseHandle(HANDLE handle) override;
  bool DeviceIoControl(HANDLE device, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
                       DWORD* returned) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) override;
  HANDLE OpenFileById(HANDLE volume_hint, const FileIdDescriptor* id, DWORD access, DWORD share,
                      DWORD flags) override;
  bool GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size) override;
  bool GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info) override;
  bool GetFileSizeEx(HANDLE file, std::int64_t* size) override;
  HANDLE FindFirstFileNameW(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer) override;
  bool FindNextFileNameW(HANDLE find, DWORD* length, wchar_t* buffer) override;
  HANDLE FindFirstFileW(const wchar_t* pattern, FindData* data) override;
  bool FindNextFileW(HANDLE find, FindData* data) override;
  bool FindClose(HANDLE find) override;
  DWORD GetFileAttributesW(const wchar_t* path) override;
  DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) override;
  UINT GetWindowsDirectoryW(wchar_t* buffer, UINT size) override;
  LONG SHGetFolderPathW(int csidl, DWORD flags, wchar_t* path) override;
  DWORD GetNetworkParams(void* fixed_info, DWORD* size) override;
  std::int64_t Time64() override;
  int LocalTime64(std::int64_t time, std::tm* out) override;
  void GetLocalTime(SystemTime* time) override;
  DWORD GetCurrentThreadId() override;
  std::wostream& StdOut() override;
  std::wostream& StdErr() override;
  bool GetVersionExW(OsVersionInfo* info) override;
  bool GetProductInfo(DWORD major, DWORD minor, DWORD sp_major, DWORD sp_minor, DWORD* product_type) override;
  UINT GetSystemDirectoryW(wchar_t* buffer, UINT size) override;
  UINT GetSystemWow64DirectoryW(wchar_t* buffer, UINT size) override;
  LONG RegOpenKeyExW(HKEY root, const wchar_t* sub_key, DWORD options, DWORD sam, HKEY* result) override;
  LONG RegQueryValueExW(HKEY key, const wchar_t* value_name, DWORD* type, void* data, DWORD* size) override;
  LONG RegCloseKey(HKEY key) override;
  LONG RegUnLoadKeyW(HKEY root, const wchar_t* sub_key) override;
  bool OpenProcessToken(DWORD access, HANDLE* token) override;
  bool LookupPrivilegeValueW(const wchar_t* name, Luid* luid) override;
  bool AdjustTokenPrivileges(HANDLE token, const TokenPrivileges* new_state, DWORD previous_size,
                             TokenPrivileges* previous, DWORD* returned) override;

 private:
  // Copies text into a Win32 caller buffer, truncating; returns the count copied.
  static DWORD CopyOut(const std::wstring& text, wchar_t* buffer, DWORD size);
  // Sets the last error; false (0) for the caller to return.
  bool Refuse(DWORD error) {
    SetLastError(error);
    return false;
  }

  posix::HostFiles files_;
};

}  // namespace platform
