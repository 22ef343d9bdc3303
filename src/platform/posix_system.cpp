// PosixEnv's answers about the system itself: time, threads and the console, the
// host name, the Windows installation the hard-link walk asks about (its variables,
// the Windows and public folders), and the Windows services Linux has no counterpart
// for (OS version, system folders, registry, privileges), which answer as a system
// without them would.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwctype>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "base/utf8.h"
#include "platform/posix_env.h"
#include "platform/posix_errno.h"

namespace platform {
namespace {

bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<std::wint_t>(x)) == std::towupper(static_cast<std::wint_t>(y));
         });
}

// A variable of the Windows installation the hard-link walk asks for: the Linux
// environment's value when it sets one (an empty value counts as unset, since
// Windows has no empty variables), else Windows's own default for the folders of a
// system volume (ProgramData, ProgramFiles, ProgramFiles(x86), windir, PUBLIC).
std::optional<std::wstring> WindowsVariable(std::wstring_view name) {
  if (const char* value = std::getenv(koru::Utf8FromWide(name).c_str()))
    return *value != 0 ? std::optional<std::wstring>(koru::WideFromUtf8(value)) : std::nullopt;
  static const std::pair<const wchar_t*, const wchar_t*> kDefaults[] = {
      {L"ProgramData", L"C:\\ProgramData"},
      {L"ProgramFiles", L"C:\\Program Files"},
      {L"ProgramFiles(x86)", L"C:\\Program Files (x86)"},
      {L"windir", L"C:\\Windows"},
      {L"PUBLIC", L"C:\\Users\\Public"},
  };
  for (const auto& [key, value] : kDefaults)
    if (EqualNoCase(name, key)) return std::wstring(value);
  return std::nullopt;
}

}  // namespace

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

DWORD PosixEnv::GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) {
  const auto value = name ? WindowsVariable(name) : std::nullopt;
  if (!value) return Refuse(kErrorEnvVarNotFound);
  if (buffer == nullptr || value->size() + 1 > size) return static_cast<DWORD>(value->size() + 1);
  return CopyOut(*value, buffer, size);
}

UINT PosixEnv::GetWindowsDirectoryW(wchar_t* buffer, UINT size) {
  const std::wstring folder = WindowsVariable(L"windir").value_or(L"C:\\Windows");
  if (buffer == nullptr || folder.size() + 1 > size) return static_cast<UINT>(folder.size() + 1);
  return CopyOut(folder, buffer, size);
}

LONG PosixEnv::SHGetFolderPathW(int csidl, DWORD, wchar_t* path) {
  const auto public_folder = WindowsVariable(L"PUBLIC");
  if (csidl != kCsidlCommonDocuments || path == nullptr || !public_folder) return kEFail;
  CopyOut(*public_folder + L"\\Documents", path, 260);
  return kSOk;
}

DWORD PosixEnv::GetNetworkParams(void* fixed_info, DWORD* size) {
  if (size == nullptr) return kErrorInvalidParameter;
  constexpr DWORD kNeeded = 2 * kFixedInfoHostNameSize;  // host and domain names, as far as they are read
  if (fixed_info == nullptr || *size < kNeeded) {
    *size = kNeeded;
    return kErrorBufferOverflow;
  }
  char host[kFixedInfoHostNameSize] = {};
  if (::gethostname(host, sizeof host - 1) != 0) return posix::FromErrno(errno);
  std::memset(fixed_info, 0, kNeeded);
  std::memcpy(fixed_info, host, std::strlen(host));
  return kErrorSuccess;
}

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
