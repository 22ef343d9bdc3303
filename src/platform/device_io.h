// Device I/O as the core does it, written once: the drive path, the open, a handle
// that closes itself, a positional read that says which step failed (so each caller
// keeps its own trace texts), and the module-path query that grows its buffer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/env.h"

namespace platform {

inline constexpr DWORD kPathChars = 260;

// "\\.\PhysicalDrive%u" in a buffer of 260 characters (cut silently, as the core's
// fixed buffers are).
struct DrivePath {
  wchar_t text[kPathChars] = {};
};
DrivePath PhysicalDrivePath(DWORD disk);

// Generic read, shared read and write, open-existing, no flags: how every disk and
// volume is opened.
HANDLE OpenForRead(Env& env, const wchar_t* path);

// Closes a valid handle when it goes out of scope.
class ScopedHandle {
 public:
  ScopedHandle(Env& env, HANDLE handle) : env_(env), handle_(handle) {}
  ~ScopedHandle() {
    if (IsValid(handle_)) env_.CloseHandle(handle_);
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;
  HANDLE get() const { return handle_; }
  bool valid() const { return IsValid(handle_); }

 private:
  Env& env_;
  HANDLE handle_;
};

// The same for a search handle (FindFirstFileW, FindFirstFileNameW), closed with FindClose.
class ScopedFind {
 public:
  ScopedFind(Env& env, HANDLE find) : env_(env), find_(find) {}
  ~ScopedFind() { Close(); }
  ScopedFind(const ScopedFind&) = delete;
  ScopedFind& operator=(const ScopedFind&) = delete;
  HANDLE get() const { return find_; }
  // Closes now and says whether FindClose succeeded; later calls do nothing.
  bool Close() {
    const HANDLE find = find_;
    find_ = nullptr;
    return !IsValid(find) || env_.FindClose(find);
  }

 private:
  Env& env_;
  HANDLE find_;
};

// GetModuleFileNameW into a buffer grown by 260 characters while the system reports
// it too small; nothing when the query fails.
std::optional<std::wstring> ModuleFileName(Env& env, HMODULE module);

}  // namespace platform
