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

ReadResult ReadAt(Env& env, HANDLE device, std::uint64_t offset, void* buffer, DWORD size) {
  ReadResult result;
  std::int64_t position = 0;
  if (!env.SetFilePointerEx(device, static_cast<std::int64_t>(offset), &position, kFileBegin)) {
    result.step = ReadResult::kSeekFailed;
    result.error = env.GetLastError();
    return result;
  }
  if (static_cast<std::uint64_t>(position) != offset) {
    result.step = ReadResult::kSeekElsewhere;
    return result;
  }
  if (!env.ReadFile(device, buffer, size, &result.bytes)) {
    result.step = ReadResult::kReadFailed;
    result.error = env.GetLastError();
    return result;
  }
  if (result.bytes != size) result.step = ReadResult::kShortRead;
  return result;
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
