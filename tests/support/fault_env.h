// FaultEnv: wraps another Env and makes chosen calls fail, come up short or land
// elsewhere, so every failure branch of the core runs for real in tests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <vector>

#include "platform/env.h"

namespace koru::test {

using platform::DWORD;

enum class Call {
  GetModuleHandleW, GetModuleFileNameW, GetFileVersionInfoSizeW, GetFileVersionInfoW, VerQueryValueW,
  GetPrivateProfileStringW, GetPrivateProfileIntW, WritePrivateProfileStringW,
  PathFileExistsW, PathIsDirectoryW, CreateDirectoryW, CopyFileW, DeleteFileW,
  CreateFileW, ReadFile, WriteFile, SetFilePointerEx, CloseHandle, DeviceIoControl,
  GetVolumeNameForVolumeMountPointW, GetVersionExW, GetProductInfo, GetSystemDirectoryW,
  GetSystemWow64DirectoryW, RegOpenKeyExW, RegQueryValueExW, OpenProcessToken, LookupPrivilegeValueW,
  AdjustTokenPrivileges,
};

struct Fault {
  enum class Kind { kFail, kShortRead, kSeekOff } kind = Kind::kFail;
  DWORD error = 0;            // kFail: the last error reported
  DWORD short_bytes = 0;      // kShortRead: bytes actually delivered
  std::int64_t seek_delta = 0;  // kSeekOff: added to the position reported
};

class FaultEnv : public platform::Env {
 public:
  explicit FaultEnv(platform::Env& inner) : inner_(inner) {}

  // The nth call (1-based, counted from now) of `call` gets `fault`; nth 0 means every call.
  void Inject(Call call, Fault fault, int nth = 1);
  void FailCall(Call call, DWORD error, int nth = 1) { Inject(call, Fault{Fault::Kind::kFail, error, 0, 0}, nth); }
  void ShortRead(DWORD bytes, int nth = 1) { Inject(Call::ReadFile, Fault{Fault::Kind::kShortRead, 0, bytes, 0}, nth); }
  void SeekOff(std::int64_t delta, int nth = 1) {
    Inject(Call::SetFilePointerEx, Fault{Fault::Kind::kSeekOff, 0, 0, delta}, nth);
  }
  int Count(Call call) const;
  void Clear();

  // Answers in place of the wrapped Env, for what no attached disk can show (a volume
  // on several disks, a platform that keeps asking for more room, an odd volume name).
  // A handler returns false with the Win32 error in *error. Injected faults come first.
  using IoctlAnswer = std::function<bool(DWORD code, void* out, DWORD out_size, DWORD* returned, DWORD* error)>;
  using VolumeNameAnswer = std::function<bool(const wchar_t* mount_point, wchar_t* buffer, DWORD size, DWORD* error)>;
  void AnswerIoctl(IoctlAnswer answer);
  void AnswerVolumeName(VolumeNameAnswer answer);
  std::wostringstream& captured_stdout() { return stdout_; }

  DWORD GetLastError() override { return inner_.GetLastError(); }
  void SetLastError(DWORD error) override { inner_.SetLastError(error); }
  platform::HMODULE GetModuleHandleW(const wchar_t* name) override;
  DWORD GetModuleFileNameW(platform::HMODULE module, wchar_t* buffer, DWORD size) override;
  DWORD GetFileVersionInfoSizeW(const wchar_t* file) override;
  bool GetFileVersionInfoW(const wchar_t* file, DWORD size, void* data) override;
  bool VerQueryValueW(const void* block, const wchar_t* sub, const void** value, platform::UINT* length) override;
  DWORD GetPrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* d, wchar_t* b, DWORD n,
                                 const wchar_t* f) override;
  platform::UINT GetPrivateProfileIntW(const wchar_t* s, const wchar_t* k, int d, const wchar_t* f) override;
  bool WritePrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* v, const wchar_t* f) override;
  bool PathFileExistsW(const wchar_t* p) override;
  bool PathIsDirectoryW(const wchar_t* p) override;
  bool CreateDirectoryW(const wchar_t* p) override;
  bool CopyFileW(const wchar_t* a, const wchar_t* b, bool f) override;
  bool DeleteFileW(const wchar_t* p) override;
  platform::HANDLE CreateFileW(const wchar_t* p, DWORD a, DWORD s, DWORD d, DWORD f) override;
  bool ReadFile(platform::HANDLE h, void* b, DWORD n, DWORD* r) override;
  bool WriteFile(platform::HANDLE h, const void* b, DWORD n, DWORD* w) override;
  bool SetFilePointerEx(platform::HANDLE h, std::int64_t d, std::int64_t* p, DWORD m) override;
  bool CloseHandle(platform::HANDLE h) override;
  bool DeviceIoControl(platform::HANDLE h, DWORD c, const void* i, DWORD is, void* o, DWORD os,
                       DWORD* r) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* m, wchar_t* b, DWORD n) override;
  void GetLocalTime(platform::SystemTime* t) override { inner_.GetLocalTime(t); }
  DWORD GetCurrentThreadId() override { return inner_.GetCurrentThreadId(); }
  std::wostream& StdOut() override { return stdout_; }
  bool GetVersionExW(platform::OsVersionInfo* i) override;
  bool GetProductInfo(DWORD a, DWORD b, DWORD c, DWORD d, DWORD* t) override;
  platform::UINT GetSystemDirectoryW(wchar_t* b, platform::UINT n) override;
  platform::UINT GetSystemWow64DirectoryW(wchar_t* b, platform::UINT n) override;
  platform::LONG RegOpenKeyExW(platform::HKEY r, const wchar_t* k, DWORD o, DWORD s, platform::HKEY* out) override;
  platform::LONG RegQueryValueExW(platform::HKEY k, const wchar_t* n, DWORD* t, void* d, DWORD* s) override;
  platform::LONG RegCloseKey(platform::HKEY k) override { return inner_.RegCloseKey(k); }
  platform::LONG RegUnLoadKeyW(platform::HKEY r, const wchar_t* k) override { return inner_.RegUnLoadKeyW(r, k); }
  bool OpenProcessToken(DWORD a, platform::HANDLE* t) override;
  bool LookupPrivilegeValueW(const wchar_t* n, platform::Luid* l) override;
  bool AdjustTokenPrivileges(platform::HANDLE t, const platform::TokenPrivileges* n, DWORD s,
                             platform::TokenPrivileges* p, DWORD* r) override;

 private:
  // Counts the call and returns the fault due now, if any.
  std::optional<Fault> Next(Call call);
  bool Failed(const std::optional<Fault>& f);

  platform::Env& inner_;
  mutable std::mutex mutex_;
  std::map<Call, int> counts_;
  struct Rule {
    Call call;
    Fault fault;
    int at;  // absolute call number, or 0 for every call
  };
  std::vector<Rule> rules_;
  IoctlAnswer ioctl_answer_;
  VolumeNameAnswer volume_name_answer_;
  std::wostringstream stdout_;
};

}  // namespace koru::test
