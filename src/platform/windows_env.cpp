#include "platform/windows_env.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <iphlpapi.h>
#include <shlobj.h>
#include <shlwapi.h>
#include <winioctl.h>
#include <winver.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <iostream>

namespace platform {
namespace {

// Env's Win32-shaped types must be the real ones where pointers to them cross over.
static_assert(sizeof(::DWORD) == sizeof(DWORD));
static_assert(sizeof(::HANDLE) == sizeof(HANDLE));
static_assert(sizeof(::HKEY) == sizeof(HKEY));
static_assert(sizeof(::SYSTEMTIME) == sizeof(SystemTime));
static_assert(sizeof(::LUID) == sizeof(Luid));
static_assert(sizeof(::TOKEN_PRIVILEGES) == sizeof(TokenPrivileges));
static_assert(offsetof(::TOKEN_PRIVILEGES, Privileges) == offsetof(TokenPrivileges, PrivilegeLuid));
static_assert(sizeof(::DISK_EXTENT) == sizeof(DISK_EXTENT));
static_assert(sizeof(::DISK_GEOMETRY_EX) == sizeof(DISK_GEOMETRY_EX));
static_assert(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS == kIoctlVolumeGetVolumeDiskExtents);
static_assert(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX == kIoctlDiskGetDriveGeometryEx);
static_assert(ERROR_INSUFFICIENT_BUFFER == kErrorInsufficientBuffer);
static_assert(ERROR_MORE_DATA == kErrorMoreData);
static_assert(ERROR_PROC_NOT_FOUND == kErrorProcNotFound);
static_assert(ERROR_BUFFER_OVERFLOW == kErrorBufferOverflow);
static_assert(ERROR_ENVVAR_NOT_FOUND == kErrorEnvVarNotFound);
static_assert(ERROR_CANT_ACCESS_FILE == kErrorCantAccessFile);
static_assert(ERROR_FILE_CORRUPT == kErrorFileCorrupt);
static_assert(FileNameInfo == kFileNameInfo);
static_assert(CSIDL_COMMON_DOCUMENTS == kCsidlCommonDocuments);
static_assert(FILE_FLAG_BACKUP_SEMANTICS == kFileFlagBackupSemantics);
static_assert(FILE_FLAG_OPEN_REPARSE_POINT == kFileFlagOpenReparsePoint);
static_assert(sizeof(::FILE_ID_DESCRIPTOR) == sizeof(FileIdDescriptor));
static_assert(offsetof(::FIXED_INFO, HostName) == 0 && sizeof(::FIXED_INFO::HostName) == kFixedInfoHostNameSize);

// Env carries the predefined keys as their 32-bit values; 64-bit Windows
// sign-extends them (HKEY_LOCAL_MACHINE is 0xFFFFFFFF80000002 there).
::HKEY ToWin32(HKEY key) {
  if (key >= 0x80000000u && key <= 0x8000000Fu)
    return reinterpret_cast<::HKEY>(static_cast<std::intptr_t>(static_cast<std::int32_t>(key)));
  return reinterpret_cast<::HKEY>(key);
}

HMODULE Module(const wchar_t* name) { return ::GetModuleHandleW(name); }

template <typename Fn>
Fn Export(const wchar_t* module, const char* name) {
  const ::HMODULE m = ::GetModuleHandleW(module);
  if (m == nullptr) return nullptr;
  // FARPROC to the real signature: the usual GetProcAddress cast.
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(m, name)));
}

}  // namespace

Env& DefaultBackend() {
  static WindowsEnv* env = new WindowsEnv;  // lives for the process: tracing may run at unload
  return *env;
}

DWORD WindowsEnv::GetLastError() { return ::GetLastError(); }
void WindowsEnv::SetLastError(DWORD error) { ::SetLastError(error); }

HMODULE WindowsEnv::GetModuleHandleW(const wchar_t* module_name) { return Module(module_name); }

DWORD WindowsEnv::GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) {
  return ::GetModuleFileNameW(static_cast<::HMODULE>(module), buffer, size);
}

DWORD WindowsEnv::GetFileVersionInfoSizeW(const wchar_t* file_name) {
  return ::GetFileVersionInfoSizeW(file_name, nullptr);
}

bool WindowsEnv::GetFileVersionInfoW(const wchar_t* file_name, DWORD size, void* data) {
  return ::GetFileVersionInfoW(file_name, 0, size, data) != FALSE;
}

bool WindowsEnv::VerQueryValueW(const void* block, const wchar_t* sub_block, const void** value, UINT* length) {
  void* found = nullptr;
  ::UINT found_length = 0;
  const bool ok = ::VerQueryValueW(block, sub_block, &found, &found_length) != FALSE;
  if (value) *value = found;
  if (length) *length = found_length;
  return ok;
}

DWORD WindowsEnv::GetPrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* default_value,
                                           wchar_t* buffer, DWORD size, const wchar_t* file_name) {
  return ::GetPrivateProfileStringW(section, key, default_value, buffer, size, file_name);
}

UINT WindowsEnv::GetPrivateProfileIntW(const wchar_t* section, const wchar_t* key, int default_value,
                                       const wchar_t* file_name) {
  return ::GetPrivateProfileIntW(section, key, default_value, file_name);
}

bool WindowsEnv::WritePrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* value,
                                            const wchar_t* file_name) {
  return ::WritePrivateProfileStringW(section, key, value, file_name) != FALSE;
}

bool WindowsEnv::PathFileExistsW(const wchar_t* path) { return ::PathFileExistsW(path) != FALSE; }
bool WindowsEnv::PathIsDirectoryW(const wchar_t* path) { return ::PathIsDirectoryW(path) != FALSE; }
bool WindowsEnv::CreateDirectoryW(const wchar_t* path) { return ::CreateDirectoryW(path, nullptr) != FALSE; }

bool WindowsEnv::CopyFileW(const wchar_t* from, const wchar_t* to, bool fail_if_exists) {
  return ::CopyFileW(from, to, fail_if_exists ? TRUE : FALSE) != FALSE;
}

bool WindowsEnv::DeleteFileW(const wchar_t* path) { return ::DeleteFileW(path) != FALSE; }

HANDLE WindowsEnv::CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags) {
  return ::CreateFileW(path, access, share, nullptr, disposition, flags, nullptr);
}

bool WindowsEnv::ReadFile(HANDLE file, void* buffer, DWORD to_read, DWORD* read) {
  ::DWORD done = 0;
  const bool ok = ::ReadFile(file, buffer, to_read, &done, nullptr) != FALSE;
  if (read) *read = done;
  return ok;
}

bool WindowsEnv::WriteFile(HANDLE file, const void* buffer, DWORD to_write, DWORD* written) {
  ::DWORD done = 0;
  const bool ok = ::WriteFile(file, buffer, to_write, &done, nullptr) != FALSE;
  if (written) *written = done;
  return ok;
}

bool WindowsEnv::SetFilePointerEx(HANDLE file, std::int64_t distance, std::int64_t* new_position, DWORD method) {
  ::LARGE_INTEGER move{};
  move.QuadPart = distance;
  ::LARGE_INTEGER now{};
  const bool ok = ::SetFilePointerEx(file, move, &now, method) != FALSE;
  if (ok && new_position) *new_position = now.QuadPart;
  return ok;
}

bool WindowsEnv::CloseHandle(HANDLE handle) { return ::CloseHandle(handle) != FALSE; }

bool WindowsEnv::DeviceIoControl(HANDLE device, DWORD code, const void* in, DWORD in_size, void* out,
                                 DWORD out_size, DWORD* returned) {
  ::DWORD count = 0;
  // The input buffer is never written by the IOCTLs used; Win32 just does not say const.
  const bool ok = ::DeviceIoControl(device, code, const_cast<void*>(in), in_size, out, out_size, &count, nullptr) !=
                  FALSE;
  if (returned) *returned = count;
  return ok;
}

bool WindowsEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) {
  return ::GetVolumeNameForVolumeMountPointW(mount_point, buffer, size) != FALSE;
}

HANDLE WindowsEnv::OpenFileById(HANDLE volume_hint, const FileIdDescriptor* id, DWORD access, DWORD share,
                                DWORD flags) {
  if (id == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return InvalidHandle();
  }
  ::FILE_ID_DESCRIPTOR descriptor{};
  descriptor.dwSize = id->dwSize;
  descriptor.Type = static_cast<::FILE_ID_TYPE>(id->Type);
  descriptor.FileId.QuadPart = id->FileId;
  return ::OpenFileById(volume_hint, &descriptor, access, share, nullptr, flags);
}

bool WindowsEnv::GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size) {
  return ::GetFileInformationByHandleEx(file, static_cast<::FILE_INFO_BY_HANDLE_CLASS>(info_class), buffer, size) !=
         FALSE;
}

bool WindowsEnv::GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info) {
  ::BY_HANDLE_FILE_INFORMATION found{};
  const bool ok = ::GetFileInformationByHandle(file, &found) != FALSE;
  if (ok && info) {
    info->dwFileAttributes = found.dwFileAttributes;
    info->dwVolumeSerialNumber = found.dwVolumeSerialNumber;
    info->nFileSizeHigh = found.nFileSizeHigh;
    info->nFileSizeLow = found.nFileSizeLow;
    info->nNumberOfLinks = found.nNumberOfLinks;
    info->nFileIndexHigh = found.nFileIndexHigh;
    info->nFileIndexLow = found.nFileIndexLow;
  }
  return ok;
}

bool WindowsEnv::GetFileSizeEx(HANDLE file, std::int64_t* size) {
  ::LARGE_INTEGER found{};
  const bool ok = ::GetFileSizeEx(file, &found) != FALSE;
  if (ok && size) *size = found.QuadPart;
  return ok;
}

// Looked up at run time: Wine does not export the hard-link enumeration.
HANDLE WindowsEnv::FindFirstFileNameW(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer) {
  using Fn = ::HANDLE(WINAPI*)(::LPCWSTR, ::DWORD, ::LPDWORD, ::PWSTR);
  static const Fn fn = Export<Fn>(L"kernel32.dll", "FindFirstFileNameW");
  if (fn == nullptr) {
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return InvalidHandle();
  }
  ::DWORD n = length ? *length : 0;
  const ::HANDLE h = fn(path, flags, &n, buffer);
  if (length) *length = n;
  return h;
}

bool WindowsEnv::FindNextFileNameW(HANDLE find, DWORD* length, wchar_t* buffer) {
  using Fn = ::BOOL(WINAPI*)(::HANDLE, ::LPDWORD, ::PWSTR);
  static const Fn fn = Export<Fn>(L"kernel32.dll", "FindNextFileNameW");
  if (fn == nullptr) {
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return false;
  }
  ::DWORD n = length ? *length : 0;
  const bool ok = fn(find, &n, buffer) != FALSE;
  if (length) *length = n;
  return ok;
}

namespace {
void CopyFindData(const ::WIN32_FIND_DATAW& found, FindData* data) {
  if (data == nullptr) return;
  data->dwFileAttributes = found.dwFileAttributes;
  data->nFileSizeHigh = found.nFileSizeHigh;
  data->nFileSizeLow = found.nFileSizeLow;
  std::copy(std::begin(found.cFileName), std::end(found.cFileName), data->cFileName);
  data->cFileName[259] = 0;
}
}  // namespace

HANDLE WindowsEnv::FindFirstFileW(const wchar_t* pattern, FindData* data) {
  ::WIN32_FIND_DATAW found{};
  const ::HANDLE h = ::FindFirstFileW(pattern, &found);
  if (h != INVALID_HANDLE_VALUE) CopyFindData(found, data);
  return h;
}

bool WindowsEnv::FindNextFileW(HANDLE find, FindData* data) {
  ::WIN32_FIND_DATAW found{};
  const bool ok = ::FindNextFileW(find, &found) != FALSE;
  if (ok) CopyFindData(found, data);
  return ok;
}

bool WindowsEnv::FindClose(HANDLE find) { return ::FindClose(find) != FALSE; }

DWORD WindowsEnv::GetFileAttributesW(const wchar_t* path) { return ::GetFileAttributesW(path); }

DWORD WindowsEnv::GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) {
  return ::GetEnvironmentVariableW(name, buffer, size);
}

UINT WindowsEnv::GetWindowsDirectoryW(wchar_t* buffer, UINT size) { return ::GetWindowsDirectoryW(buffer, size); }

LONG WindowsEnv::SHGetFolderPathW(int csidl, DWORD flags, wchar_t* path) {
  return ::SHGetFolderPathW(nullptr, csidl, nullptr, flags, path);
}

DWORD WindowsEnv::GetNetworkParams(void* fixed_info, DWORD* size) {
  ::ULONG n = size ? *size : 0;
  const DWORD result = ::GetNetworkParams(static_cast<::PFIXED_INFO>(fixed_info), &n);
  if (size) *size = n;
  return result;
}

bool WindowsEnv::FileTimeToSystemTime(std::uint64_t file_time, SystemTime* time) {
  ::FILETIME ft{static_cast<::DWORD>(file_time), static_cast<::DWORD>(file_time >> 32)};
  ::SYSTEMTIME st{};
  if (!::FileTimeToSystemTime(&ft, &st) || time == nullptr) return false;
  *time = SystemTime{st.wYear, st.wMonth, st.wDayOfWeek, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
  return true;
}

std::int64_t WindowsEnv::Time64() { return ::_time64(nullptr); }

int WindowsEnv::LocalTime64(std::int64_t time, std::tm* out) {
  const ::__time64_t t = time;
  return ::_localtime64_s(out, &t);
}

void WindowsEnv::GetLocalTime(SystemTime* time) {
  ::SYSTEMTIME now{};
  ::GetLocalTime(&now);
  if (time == nullptr) return;
  *time = SystemTime{now.wYear, now.wMonth, now.wDayOfWeek, now.wDay,
                     now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

DWORD WindowsEnv::GetCurrentThreadId() { return ::GetCurrentThreadId(); }

std::wostream& WindowsEnv::StdOut() { return std::wcout; }
std::wostream& WindowsEnv::StdErr() { return std::wcerr; }

bool WindowsEnv::GetVersionExW(OsVersionInfo* info) {
  ::OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof version;
#if defined(_MSC_VER)
#pragma warning(suppress : 4996)  // deprecated, but it is the call the classification is defined on
#endif
  const bool ok = ::GetVersionExW(reinterpret_cast<::OSVERSIONINFOW*>(&version)) != FALSE;
  if (ok && info) {
    info->dwMajorVersion = version.dwMajorVersion;
    info->dwMinorVersion = version.dwMinorVersion;
    info->dwBuildNumber = version.dwBuildNumber;
    info->dwPlatformId = version.dwPlatformId;
    info->wServicePackMajor = version.wServicePackMajor;
    info->wServicePackMinor = version.wServicePackMinor;
    info->wSuiteMask = version.wSuiteMask;
    info->wProductType = version.wProductType;
  }
  return ok;
}

bool WindowsEnv::GetProductInfo(DWORD major, DWORD minor, DWORD sp_major, DWORD sp_minor, DWORD* product_type) {
  using Fn = BOOL(WINAPI*)(::DWORD, ::DWORD, ::DWORD, ::DWORD, ::PDWORD);
  static const Fn fn = Export<Fn>(L"kernel32.dll", "GetProductInfo");
  if (fn == nullptr) {
    if (product_type) *product_type = 0;
    ::SetLastError(ERROR_PROC_NOT_FOUND);
    return false;
  }
  ::DWORD type = 0;
  const bool ok = fn(major, minor, sp_major, sp_minor, &type) != FALSE;
  if (product_type) *product_type = type;
  return ok;
}

UINT WindowsEnv::GetSystemDirectoryW(wchar_t* buffer, UINT size) { return ::GetSystemDirectoryW(buffer, size); }

UINT WindowsEnv::GetSystemWow64DirectoryW(wchar_t* buffer, UINT size) {
  return ::GetSystemWow64DirectoryW(buffer, size);
}

LONG WindowsEnv::RegOpenKeyExW(HKEY root, const wchar_t* sub_key, DWORD options, DWORD sam, HKEY* result) {
  ::HKEY opened = nullptr;
  const LONG status = ::RegOpenKeyExW(ToWin32(root), sub_key, options, sam, &opened);
  if (result) *result = status == ERROR_SUCCESS ? reinterpret_cast<HKEY>(opened) : 0;
  return status;
}

LONG WindowsEnv::RegQueryValueExW(HKEY key, const wchar_t* value_name, DWORD* type, void* data, DWORD* size) {
  ::DWORD value_type = 0;
  ::DWORD value_size = size ? *size : 0;
  const LONG status = ::RegQueryValueExW(ToWin32(key), value_name, nullptr, type ? &value_type : nullptr,
                                         static_cast<::BYTE*>(data), size ? &value_size : nullptr);
  if (type) *type = value_type;
  if (size) *size = value_size;
  return status;
}

LONG WindowsEnv::RegCloseKey(HKEY key) { return ::RegCloseKey(ToWin32(key)); }

LONG WindowsEnv::RegUnLoadKeyW(HKEY root, const wchar_t* sub_key) { return ::RegUnLoadKeyW(ToWin32(root), sub_key); }

bool WindowsEnv::OpenProcessToken(DWORD access, HANDLE* token) {
  ::HANDLE opened = nullptr;
  const bool ok = ::OpenProcessToken(::GetCurrentProcess(), access, &opened) != FALSE;
  if (token) *token = ok ? opened : InvalidHandle();
  return ok;
}

bool WindowsEnv::LookupPrivilegeValueW(const wchar_t* name, Luid* luid) {
  ::LUID found{};
  const bool ok = ::LookupPrivilegeValueW(nullptr, name, &found) != FALSE;
  if (ok && luid) *luid = Luid{found.LowPart, found.HighPart};
  return ok;
}

bool WindowsEnv::AdjustTokenPrivileges(HANDLE token, const TokenPrivileges* new_state, DWORD previous_size,
                                       TokenPrivileges* previous, DWORD* returned) {
  // Env's TokenPrivileges has room for exactly one privilege, as TOKEN_PRIVILEGES does.
  ::TOKEN_PRIVILEGES wanted{};
  if (new_state) {
    wanted.PrivilegeCount = new_state->PrivilegeCount;
    wanted.Privileges[0].Luid.LowPart = new_state->PrivilegeLuid.LowPart;
    wanted.Privileges[0].Luid.HighPart = new_state->PrivilegeLuid.HighPart;
    wanted.Privileges[0].Attributes = new_state->Attributes;
  }
  ::TOKEN_PRIVILEGES before{};
  const ::DWORD before_size = previous ? (previous_size < sizeof before ? previous_size : sizeof before) : 0;
  ::DWORD needed = 0;
  const bool ok = ::AdjustTokenPrivileges(token, FALSE, new_state ? &wanted : nullptr, before_size,
                                          previous ? &before : nullptr, returned ? &needed : nullptr) != FALSE;
  if (returned) *returned = needed;
  if (ok && previous) {
    previous->PrivilegeCount = before.PrivilegeCount;
    previous->PrivilegeLuid = Luid{before.Privileges[0].Luid.LowPart, before.Privileges[0].Luid.HighPart};
    previous->Attributes = before.Privileges[0].Attributes;
  }
  return ok;
}

namespace windows {

const char* WineVersion() {
  using Fn = const char*(CDECL*)();
  static const Fn fn = Export<Fn>(L"ntdll.dll", "wine_get_version");
  return fn ? fn() : nullptr;
}

}  // namespace windows
}  // namespace platform
