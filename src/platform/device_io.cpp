#include "platform/device_io.h"

#include <vector>

#include "base/format.h"

namespace platform {

namespace {
// No real module path is longer; a system that keeps asking for more is broken.
constexpr DWORD kMaxPathChars = 32768;
}  // namespace

DrivePath PhysicalDrivePath(DWORD disk) {
  DrivePath path;
  varnel::FormatFixed(path.text, kPathChars, L"\\\\.\\PhysicalDrive%u", unsigned{disk});
  return path;
}

HANDLE OpenForRead(Env& env, const wchar_t* path) {
  return env.CreateFileW(path, kGenericRead, kFileShareRead | kFileShareWrite, kOpenExisting, 0);
}

std::optional<std::wstring> ModuleFileName(Env& env, HMODULE module) {
  std::vector<wchar_t> buffer(kPathChars, L'\0');
  for (;;) {
    env.SetLastError(kErrorSuccess);
    const DWORD n = env.GetModuleFileNameW(module, buffer.data(), static_cast<DWORD>(buffer.size()));
    const DWORD error = env.GetLastError();
    if (n == 0) return std::nullopt;
    if (error == kErrorInsufficientBuffer) {
      if (buffer.size() >= kMaxPathChars) return std::nullopt;
      buffer.assign(buffer.size() + kPathChars, L'\0');
      continue;
    }
    if (error != kErrorSuccess) return std::nullopt;
    return std::wstring(buffer.data());
  }
}

}  // namespace platform
