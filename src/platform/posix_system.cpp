// PosixEnv's answers about the system itself: time, threads and the console, and the
// Windows services Linux has no counterpart for (OS version, system folders, registry,
// privileges), which answer as a system without them would.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <iostream>

#include "platform/posix_env.h"

namespace platform {

std::int64_t PosixEnv::Time64() { return static_cast<std::int64_t>(std::time(nullptr)); }

int PosixEnv::LocalTime64(std::int64_t time, std::tm* out) {
  if (out == nullptr) return EINVAL;
  const auto t = static_cast<std::time_t>(time);
  return ::localtime_r(&t, out) != nullptr ? 0 : (errno ? errno : EINVAL);
}

void PosixEnv::GetLocalTime(SystemTime* time) {
  struct timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm{};
  ::localtime_r(&ts.tv_sec, &tm);
  time->wYear = static_cast<std::uint16_t>(tm.tm_year + 1900);
  time->wMonth = static_cast<std::uint16_t>(tm.tm_mon + 1);
  time->wDayOfWeek = static_cast<std::uint16_t>(tm.tm_wday);
  time->wDay = static_cast<std::uint16_t>(tm.tm_mday);
  time->wHour = static_cast<std::uint16_t>(tm.tm_hour);
  time->wMinute = static_cast<std::uint16_t>(tm.tm_min);
  time->wSecond = static_cast<std::uint16_t>(tm.tm_sec);
  time->wMilliseconds = static_cast<std::uint16_t>(ts.tv_nsec / 1000000);
}

DWORD PosixEnv::GetCurrentThreadId() { return static_cast<DWORD>(::syscall(SYS_gettid)); }

std::wostream& PosixEnv::StdOut() { return std::wcout; }
std::wostream& PosixEnv::StdErr() { return std::wcerr; }

bool PosixEnv::GetVersionExW(OsVersionInfo* info) {
  // Not Windows: a version no classification row matches.
  if (info == nullptr) return Refuse(kErrorInvalidParameter);
  *info = OsVersionInfo{};
  return true;
}

bool PosixEnv::GetProductInfo(DWORD, DWORD, DWORD, DWORD, DWORD* product_type) {
  if (product_type) *product_type = 0;
  return Refuse(kErrorProcNotFound);
}

UINT PosixEnv::GetSystemDirectoryW(wchar_t*, UINT) { return Refuse(kErrorCallNotImplemented); }
UINT PosixEnv::GetSystemWow64DirectoryW(wchar_t*, UINT) { return Refuse(kErrorCallNotImplemented); }

LONG PosixEnv::RegOpenKeyExW(HKEY, const wchar_t*, DWORD, DWORD, HKEY* result) {
  if (result) *result = 0;
  return static_cast<LONG>(kErrorFileNotFound);
}
LONG PosixEnv::RegQueryValueExW(HKEY, const wchar_t*, DWORD*, void*, DWORD*) {
  return static_cast<LONG>(kErrorInvalidHandle);
}
LONG PosixEnv::RegCloseKey(HKEY) { return static_cast<LONG>(kErrorInvalidHandle); }
LONG PosixEnv::RegUnLoadKeyW(HKEY, const wchar_t*) { return static_cast<LONG>(kErrorFileNotFound); }

bool PosixEnv::OpenProcessToken(DWORD, HANDLE* token) {
  if (token) *token = InvalidHandle();
  return Refuse(kErrorCallNotImplemented);
}
bool PosixEnv::LookupPrivilegeValueW(const wchar_t*, Luid*) { return Refuse(kErrorNoSuchPrivilege); }
bool PosixEnv::AdjustTokenPrivileges(HANDLE, const TokenPrivileges*, DWORD, TokenPrivileges*, DWORD*) {
  return Refuse(kErrorInvalidHandle);
}

}  // namespace platform
