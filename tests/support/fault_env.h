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
  GetModuleHandleW, GetModuleFileNameW, GetFileVersionInfoSizeW, GetFileVersionInfoW, VerQueryValueW,
  CreateFileW, ReadFile, SetFilePointerEx, CloseHandle, DeviceIoControl, RegQueryValueExW, AdjustTokenPrivileges,
  OpenFileById, GetFileInformationByHandleEx, GetFileInformationByHandle, GetFileSizeEx, FindFirstFileNameW,
  FindNextFileNameW, FindFirstFileW, FindNextFileW, FindClose, GetFileAttributesW, PathFileExistsW,
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

  // The calls that can be faulted.
  platform::HMODULE GetModuleHandleW(const wchar_t* n) override {
    return Failed(Call::GetModuleHandleW) ? nullptr : inner_.GetModuleHandleW(n);
  }
  DWORD GetModuleFileNameW(platform::HMODULE m, wchar_t* b, DWORD n) override {
    return Failed(Call::GetModuleFileNameW) ? 0 : inner_.GetModuleFileNameW(m, b, n);
  }
  DWORD GetFileVersionInfoSizeW(const wchar_t* f) override {
    return Failed(Call::GetFileVersionInfoSizeW) ? 0 : inner_.GetFileVersionInfoSizeW(f);
  }
  bool GetFileVersionInfoW(const wchar_t* f, DWORD s, void* d) override {
    return !Failed(Call::GetFileVersionInfoW) && inner_.GetFileVersionInfoW(f, s, d);
  }
  bool VerQueryValueW(const void* b, const wchar_t* s, const void** v, platform::UINT* l) override {
    return !Failed(Call::VerQueryValueW) && inner_.VerQueryValueW(b, s, v, l);
  }
  platform::HANDLE CreateFileW(const wchar_t* p, DWORD a, DWORD s, DWORD d, DWORD f) override {
    return Failed(Call::CreateFileW) ? platform::InvalidHandle() : inner_.CreateFileW(p, a, s, d, f);
  }
  bool CloseHandle(platform::HANDLE h) override { return !Failed(Call::CloseHandle) && inner_.CloseHandle(h); }
  bool AdjustTokenPrivileges(platform::HANDLE t, const platform::TokenPrivileges* n, DWORD s,
                             platform::TokenPrivileges* p, DWORD* r) override {
    return !Failed(Call::AdjustTokenPrivileges) && inner_.AdjustTokenPrivileges(t, n, s, p, r);
  }
  bool ReadFile(platform::HANDLE h, void* b, DWORD n, DWORD* r) override;
  bool SetFilePointerEx(platform::HANDLE h, std::int64_t d, std::int64_t* p, DWORD m) override;
  bool DeviceIoControl(platform::HANDLE h, DWORD c, const void* i, DWORD is, void* o, DWORD os,
                       DWORD* r) override;
  bool GetVolumeNameForVolumeMountPointW(const wchar_t* m, wchar_t* b, DWORD n) override;
  platform::LONG RegQueryValueExW(platform::HKEY k, const wchar_t* n, DWORD* t, void* d, DWORD* s) override;
  platform::HANDLE OpenFileById(platform::HANDLE v, const platform::FileIdDescriptor* id, DWORD a, DWORD s,
                                DWORD f) override {
    return Failed(Call::OpenFileById) ? platform::InvalidHandle() : inner_.OpenFileById(v, id, a, s, f);
  }
  bool GetFileInformationByHandleEx(platform::HANDLE h, DWORD c, void* b, DWORD n) override {
    return !Failed(Call::GetFileInformationByHandleEx) && inner_.GetFileInformationByHandleEx(h, c, b, n);
  }
  bool GetFileInformationByHandle(platform::HANDLE h, platform::ByHandleFileInformation* i) override {
    return !Failed(Call::GetFileInformationByHandle) && inner_.GetFileInformationByHandle(h, i);
  }
  bool GetFileSizeEx(platform::HANDLE h, std::int64_t* s) override {
    return !Failed(Call::GetFileSizeEx) && inner_.GetFileSizeEx(h, s);
  }
  platform::HANDLE FindFirstFileNameW(const wchar_t* p, DWORD f, DWORD* l, wchar_t* b) override {
    return Failed(Call::FindFirstFileNameW) ? platform::InvalidHandle() : inner_.FindFirstFileNameW(p, f, l, b);
  }
  bool FindNextFileNameW(platform::HANDLE h, DWORD* l, wchar_t* b) override {
    return !Failed(Call::FindNextFileNameW) && inner_.FindNextFileNameW(h, l, b);
  }
  platform::HANDLE FindFirstFileW(const wchar_t* p, platform::FindData* d) override {
    return Failed(Call::FindFirstFileW) ? platform::InvalidHandle() : inner_.FindFirstFileW(p, d);
  }
  bool FindNextFileW(platform::HANDLE h, platform::FindData* d) override {
    return !Failed(Call::FindNextFileW) && inner_.FindNextFileW(h, d);
  }
  bool FindClose(platform::HANDLE h) override { return !Failed(Call::FindClose) && inner_.FindClose(h); }
  DWORD GetFileAttributesW(const wchar_t* p) override {
    return Failed(Call::GetFileAttributesW) ? platform::kInvalidFileAttributes : inner_.GetFileAttributesW(p);
  }
  bool PathFileExistsW(const wchar_t* p) override { return !Failed(Call::PathFileExistsW) && inner_.PathFileExistsW(p); }
  DWORD GetEnvironmentVariableW(const wchar_t* n, wchar_t* b, DWORD s) override {
    return Failed(Call::GetEnvironmentVariableW) ? 0 : inner_.GetEnvironmentVariableW(n, b, s);
  }
  platform::UINT GetWindowsDirectoryW(wchar_t* b, platform::UINT s) override {
    return Failed(Call::GetWindowsDirectoryW) ? 0 : inner_.GetWindowsDirectoryW(b, s);
  }
  platform::LONG SHGetFolderPathW(int c, DWORD f, wchar_t* p) override {
    return Failed(Call::SHGetFolderPathW) ? platform::kEFail : inner_.SHGetFolderPathW(c, f, p);
  }
  // Fails with the error as its result, as the call reports it.
  DWORD GetNetworkParams(void* i, DWORD* s) override {
    const Fault* f = Next(Call::GetNetworkParams);
    return f && f->kind == Kind::kFail ? f->value : inner_.GetNetworkParams(i, s);
  }
  int LocalTime64(std::int64_t t, std::tm* o) override {
    const Fault* f = Next(Call::LocalTime64);
    return f && f->kind == Kind::kFail ? static_cast<int>(f->value) : inner_.LocalTime64(t, o);
  }

  // Passed through.
  DWORD GetLastError() override { return inner_.GetLastError(); }
  void SetLastError(DWORD error) override { inner_.SetLastError(error); }
  DWORD GetPrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* d, wchar_t* b, DWORD n,
                                 const wchar_t* f) override {
    return inner_.GetPrivateProfileStringW(s, k, d, b, n, f);
  }
  platform::UINT GetPrivateProfileIntW(const wchar_t* s, const wchar_t* k, int d, const wchar_t* f) override {
    return inner_.GetPrivateProfileIntW(s, k, d, f);
  }
  bool WritePrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* v, const wchar_t* f) override {
    return inner_.WritePrivateProfileStringW(s, k, v, f);
  }
  bool PathIsDirectoryW(const wchar_t* p) override { return inner_.PathIsDirectoryW(p); }
  bool CreateDirectoryW(const wchar_t* p) override { return inner_.CreateDirectoryW(p); }
  bool CopyFileW(const wchar_t* a, const wchar_t* b, bool f) override { return inner_.CopyFileW(a, b, f); }
  bool DeleteFileW(const wchar_t* p) override { return inner_.DeleteFileW(p); }
  bool WriteFile(platform::HANDLE h, const void* b, DWORD n, DWORD* w) override { return inner_.WriteFile(h, b, n, w); }
  void GetLocalTime(platform::SystemTime* t) override { inner_.GetLocalTime(t); }
  bool FileTimeToSystemTime(std::uint64_t f, platform::SystemTime* t) override {
    return inner_.FileTimeToSystemTime(f, t);
  }
  std::int64_t Time64() override { return inner_.Time64(); }
  DWORD GetCurrentThreadId() override { return inner_.GetCurrentThreadId(); }
  bool GetVersionExW(platform::OsVersionInfo* i) override { return inner_.GetVersionExW(i); }
  bool GetProductInfo(DWORD a, DWORD b, DWORD c, DWORD d, DWORD* t) override {
    return inner_.GetProductInfo(a, b, c, d, t);
  }
  platform::UINT GetSystemDirectoryW(wchar_t* b, platform::UINT n) override { return inner_.GetSystemDirectoryW(b, n); }
  platform::UINT GetSystemWow64DirectoryW(wchar_t* b, platform::UINT n) override {
    return inner_.GetSystemWow64DirectoryW(b, n);
  }
  platform::LONG RegOpenKeyExW(platform::HKEY r, const wchar_t* k, DWORD o, DWORD s, platform::HKEY* out) override {
    return inner_.RegOpenKeyExW(r, k, o, s, out);
  }
  platform::LONG RegCloseKey(platform::HKEY k) override { return inner_.RegCloseKey(k); }
  platform::LONG RegUnLoadKeyW(platform::HKEY r, const wchar_t* k) override { return inner_.RegUnLoadKeyW(r, k); }
  bool OpenProcessToken(DWORD a, platform::HANDLE* t) override { return inner_.OpenProcessToken(a, t); }
  bool LookupPrivilegeValueW(const wchar_t* n, platform::Luid* l) override { return inner_.LookupPrivilegeValueW(n, l); }
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
