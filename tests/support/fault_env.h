// FaultEnv: wraps another Env and makes chosen calls fail, come up short or land
// elsewhere, so every failure branch of the core runs for real in tests.
#pragma once

#include <cstdint>
#include <cwctype>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/env.h"

namespace koru::test {

using platform::DWORD;

// The calls a test can fault or count; all others pass straight through.
enum class Call {
  GetModuleHandleW, GetModuleFileNameW, GetFileVersionInfoSizeW, GetFileVersionInfoW, VerQueryValueW, CreateFileW,
  ReadFile, SetFilePointerEx, CloseHandle, DeviceIoControl, RegQueryValueExW, RegUnLoadKeyW, OpenProcessToken,
  AdjustTokenPrivileges, OpenFileById, GetFileInformationByHandleEx, GetFileInformationByHandle, GetFileSizeEx,
  FindFirstFileNameW, FindNextFileNameW, FindFirstFileW, FindNextFileW, FindClose, GetFileAttributesW, PathFileExistsW,
  GetEnvironmentVariableW, GetWindowsDirectoryW, SHGetFolderPathW, GetNetworkParams, LocalTime64,
};

class FaultEnv : public platform::Env {
 public:
  explicit FaultEnv(platform::Env& inner) : inner_(inner) {}

  // Each fault hits the nth call (1-based, counted from now); nth 0 means every call.
  void FailCall(Call call, DWORD error, int nth = 1) { Inject(call, {Kind::kFail, error, 0}, nth); }
  void ShortRead(DWORD bytes, int nth = 1) { Inject(Call::ReadFile, {Kind::kShortRead, bytes, 0}, nth); }
  void SeekOff(std::int64_t delta, int nth = 1) { Inject(Call::SetFilePointerEx, {Kind::kSeekOff, 0, delta}, nth); }
  int Count(Call call) const { return counts_.count(call) ? counts_.at(call) : 0; }
  void Clear() {
    rules_.clear();
    counts_.clear();
    ioctl_answer_ = nullptr;
    volume_name_answer_ = nullptr;
  }

  // Answers in place of the wrapped Env, for what no attached disk can show (a volume
  // on several disks, a platform that keeps asking for more room, an odd volume name).
  // A handler returns false with the Win32 error in *error. Injected faults come first.
  using IoctlAnswer = std::function<bool(DWORD code, void* out, DWORD out_size, DWORD* returned, DWORD* error)>;
  using VolumeNameAnswer = std::function<bool(const wchar_t* mount_point, wchar_t* buffer, DWORD size, DWORD* error)>;
  void AnswerIoctl(IoctlAnswer answer) { ioctl_answer_ = std::move(answer); }
  void AnswerVolumeName(VolumeNameAnswer answer) { volume_name_answer_ = std::move(answer); }
  std::wostringstream& captured_stdout() { return stdout_; }
  std::wostringstream& captured_stderr() { return stderr_; }

  // A faultable call is counted, and a fault makes it return `failed` with the last error set.
#define KORU_FAULTABLE(result, name, failed, params, args) \
  result name params override { return Failed(Call::name) ? failed : inner_.name args; }
#define KORU_FAULT_RESULT(result, name, params, args) \
  result name params override { \
    const Fault* f = Next(Call::name); \
    return f && f->kind == Kind::kFail ? static_cast<result>(f->value) : inner_.name args; \
  }
#define KORU_PASSED(result, name, params, args) \
  result name params override { return inner_.name args; }
  using HANDLE = platform::HANDLE;
  using HKEY = platform::HKEY;
  using LONG = platform::LONG;
  using UINT = platform::UINT;
  KORU_FAULTABLE(platform::HMODULE, GetModuleHandleW, nullptr, (const wchar_t* n), (n))
  KORU_FAULTABLE(DWORD, GetModuleFileNameW, 0, (platform::HMODULE m, wchar_t* b, DWORD n), (m, b, n))
  KORU_FAULTABLE(DWORD, GetFileVersionInfoSizeW, 0, (const wchar_t* f), (f))
  KORU_FAULTABLE(bool, GetFileVersionInfoW, false, (const wchar_t* f, DWORD s, void* d), (f, s, d))
  KORU_FAULTABLE(bool, VerQueryValueW, false, (const void* b, const wchar_t* s, const void** v, UINT* l), (b, s, v, l))
  KORU_FAULTABLE(HANDLE, CreateFileW, platform::InvalidHandle(), (const wchar_t* p, DWORD a, DWORD s, DWORD d, DWORD f),
                 (p, a, s, d, f))
  KORU_FAULTABLE(bool, CloseHandle, false, (HANDLE h), (h))
  KORU_FAULTABLE(bool, AdjustTokenPrivileges, false,
                 (HANDLE t, const platform::TokenPrivileges* n, DWORD s, platform::TokenPrivileges* p, DWORD* r),
                 (t, n, s, p, r))
  KORU_FAULTABLE(HANDLE, OpenFileById, platform::InvalidHandle(),
                 (HANDLE v, const platform::FileIdDescriptor* id, DWORD a, DWORD s, DWORD f), (v, id, a, s, f))
  KORU_FAULTABLE(bool, GetFileInformationByHandleEx, false, (HANDLE h, DWORD c, void* b, DWORD n), (h, c, b, n))
  KORU_FAULTABLE(bool, GetFileInformationByHandle, false, (HANDLE h, platform::ByHandleFileInformation* i), (h, i))
  KORU_FAULTABLE(bool, GetFileSizeEx, false, (HANDLE h, std::int64_t* s), (h, s))
  KORU_FAULTABLE(HANDLE, FindFirstFileNameW, platform::InvalidHandle(),
                 (const wchar_t* p, DWORD f, DWORD* l, wchar_t* b), (p, f, l, b))
  KORU_FAULTABLE(bool, FindNextFileNameW, false, (HANDLE h, DWORD* l, wchar_t* b), (h, l, b))
  KORU_FAULTABLE(HANDLE, FindFirstFileW, platform::InvalidHandle(), (const wchar_t* p, platform::FindData* d), (p, d))
  KORU_FAULTABLE(bool, FindNextFileW, false, (HANDLE h, platform::FindData* d), (h, d))
  KORU_FAULTABLE(bool, FindClose, false, (HANDLE h), (h))
  KORU_FAULTABLE(DWORD, GetFileAttributesW, platform::kInvalidFileAttributes, (const wchar_t* p), (p))
  KORU_FAULTABLE(bool, PathFileExistsW, false, (const wchar_t* p), (p))
  KORU_FAULTABLE(DWORD, GetEnvironmentVariableW, 0, (const wchar_t* n, wchar_t* b, DWORD s), (n, b, s))
  KORU_FAULTABLE(UINT, GetWindowsDirectoryW, 0, (wchar_t* b, UINT s), (b, s))
  KORU_FAULTABLE(LONG, SHGetFolderPathW, platform::kEFail, (int c, DWORD f, wchar_t* p), (c, f, p))
  bool ReadFile(HANDLE h, void* b, DWORD n, DWORD* r) override;
  bool SetFilePointerEx(HANDLE h, std::int64_t d, std::int64_t* p, DWORD m) override;
  bool DeviceIoControl(HANDLE h, DWORD c, const void* i, DWORD is, void* o, DWORD os, DWORD* r) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* m, wchar_t* b, DWORD n) override;
  // These fail with the error as their result, as the calls report it, the last error untouched.
  KORU_FAULT_RESULT(LONG, RegQueryValueExW, (HKEY k, const wchar_t* n, DWORD* t, void* d, DWORD* s), (k, n, t, d, s))
  KORU_FAULT_RESULT(DWORD, GetNetworkParams, (void* i, DWORD* s), (i, s))
  KORU_FAULT_RESULT(int, LocalTime64, (std::int64_t t, std::tm* o), (t, o))

  KORU_PASSED(DWORD, GetLastError, (), ())
  KORU_PASSED(void, SetLastError, (DWORD e), (e))
  KORU_PASSED(DWORD, GetPrivateProfileStringW,
              (const wchar_t* s, const wchar_t* k, const wchar_t* d, wchar_t* b, DWORD n, const wchar_t* f),
              (s, k, d, b, n, f))
  KORU_PASSED(UINT, GetPrivateProfileIntW, (const wchar_t* s, const wchar_t* k, int d, const wchar_t* f), (s, k, d, f))
  KORU_PASSED(bool, WritePrivateProfileStringW,
              (const wchar_t* s, const wchar_t* k, const wchar_t* v, const wchar_t* f), (s, k, v, f))
  KORU_PASSED(bool, PathIsDirectoryW, (const wchar_t* p), (p))
  KORU_PASSED(bool, CreateDirectoryW, (const wchar_t* p), (p))
  KORU_PASSED(bool, CopyFileW, (const wchar_t* a, const wchar_t* b, bool f), (a, b, f))
  KORU_PASSED(bool, DeleteFileW, (const wchar_t* p), (p))
  KORU_PASSED(bool, WriteFile, (HANDLE h, const void* b, DWORD n, DWORD* w), (h, b, n, w))
  KORU_PASSED(void, GetLocalTime, (platform::SystemTime* t), (t))
  KORU_PASSED(bool, FileTimeToSystemTime, (std::uint64_t f, platform::SystemTime* t), (f, t))
  KORU_PASSED(std::int64_t, Time64, (), ())
  KORU_PASSED(DWORD, GetCurrentThreadId, (), ())
  KORU_PASSED(bool, GetVersionExW, (platform::OsVersionInfo* i), (i))
  KORU_PASSED(bool, GetProductInfo, (DWORD a, DWORD b, DWORD c, DWORD d, DWORD* t), (a, b, c, d, t))
  KORU_PASSED(UINT, GetSystemDirectoryW, (wchar_t* b, UINT n), (b, n))
  KORU_PASSED(UINT, GetSystemWow64DirectoryW, (wchar_t* b, UINT n), (b, n))
  KORU_PASSED(LONG, RegOpenKeyExW, (HKEY r, const wchar_t* k, DWORD o, DWORD s, HKEY* out), (r, k, o, s, out))
  KORU_PASSED(LONG, RegCloseKey, (HKEY k), (k))
  KORU_FAULT_RESULT(LONG, RegUnLoadKeyW, (HKEY r, const wchar_t* k), (r, k))
  KORU_FAULTABLE(bool, OpenProcessToken, false, (DWORD a, HANDLE* t), (a, t))
  KORU_PASSED(bool, LookupPrivilegeValueW, (const wchar_t* n, platform::Luid* l), (n, l))
#undef KORU_FAULTABLE
#undef KORU_FAULT_RESULT
#undef KORU_PASSED
  std::wostream& StdOut() override { return stdout_; }  // captured instead
  std::wostream& StdErr() override { return stderr_; }

 protected:
  // For the fakes built on top: a Win32 failure with its last error, and names compared without case.
  bool Fail(DWORD error) { return SetLastError(error), false; }
  platform::HANDLE FailHandle(DWORD error) { return SetLastError(error), platform::InvalidHandle(); }
  static std::wstring Lower(std::wstring text) {
    for (auto& c : text) c = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
    return text;
  }

 private:
  enum class Kind { kFail, kShortRead, kSeekOff };
  struct Fault {
    Kind kind;
    DWORD value;          // kFail: the last error; kShortRead: the bytes delivered
    std::int64_t delta;   // kSeekOff: added to the position reported
  };
  struct Rule {
    Call call;
    Fault fault;
    int at;  // absolute call number, or 0 for every call
  };
  void Inject(Call call, Fault fault, int nth) { rules_.push_back({call, fault, nth == 0 ? 0 : counts_[call] + nth}); }
  // Counts the call and returns the fault due now, if any.
  const Fault* Next(Call call);
  // Counts the call; true (with the last error set) when it is to fail.
  bool Failed(Call call) { return Failed(Next(call)); }
  bool Failed(const Fault* f);

  platform::Env& inner_;
  std::map<Call, int> counts_;
  std::vector<Rule> rules_;
  IoctlAnswer ioctl_answer_;
  VolumeNameAnswer volume_name_answer_;
  std::wostringstream stdout_;
  std::wostringstream stderr_;
};

}  // namespace koru::test
