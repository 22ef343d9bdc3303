#include "support/fault_env.h"

namespace koru::test {

using platform::HANDLE;

void FaultEnv::Inject(Call call, Fault fault, int nth) {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back({call, fault, nth == 0 ? 0 : counts_[call] + nth});
}

int FaultEnv::Count(Call call) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = counts_.find(call);
  return it == counts_.end() ? 0 : it->second;
}

void FaultEnv::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_.clear();
  counts_.clear();
  ioctl_answer_ = nullptr;
  volume_name_answer_ = nullptr;
}

void FaultEnv::AnswerIoctl(IoctlAnswer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  ioctl_answer_ = std::move(answer);
}

void FaultEnv::AnswerVolumeName(VolumeNameAnswer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  volume_name_answer_ = std::move(answer);
}

std::optional<Fault> FaultEnv::Next(Call call) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int n = ++counts_[call];
  for (const auto& rule : rules_)
    if (rule.call == call && (rule.at == 0 || rule.at == n)) return rule.fault;
  return std::nullopt;
}

bool FaultEnv::Failed(const std::optional<Fault>& f) {
  if (f && f->kind == Fault::Kind::kFail) {
    inner_.SetLastError(f->error);
    return true;
  }
  return false;
}

#define KORU_FAULT_CALL(call, failed_value, forward) \
  if (Failed(Next(Call::call))) return failed_value; \
  return forward

platform::HMODULE FaultEnv::GetModuleHandleW(const wchar_t* name) {
  KORU_FAULT_CALL(GetModuleHandleW, nullptr, inner_.GetModuleHandleW(name));
}
DWORD FaultEnv::GetModuleFileNameW(platform::HMODULE m, wchar_t* b, DWORD n) {
  KORU_FAULT_CALL(GetModuleFileNameW, 0, inner_.GetModuleFileNameW(m, b, n));
}
DWORD FaultEnv::GetFileVersionInfoSizeW(const wchar_t* f) {
  KORU_FAULT_CALL(GetFileVersionInfoSizeW, 0, inner_.GetFileVersionInfoSizeW(f));
}
bool FaultEnv::GetFileVersionInfoW(const wchar_t* f, DWORD s, void* d) {
  KORU_FAULT_CALL(GetFileVersionInfoW, false, inner_.GetFileVersionInfoW(f, s, d));
}
bool FaultEnv::VerQueryValueW(const void* b, const wchar_t* s, const void** v, platform::UINT* l) {
  KORU_FAULT_CALL(VerQueryValueW, false, inner_.VerQueryValueW(b, s, v, l));
}
DWORD FaultEnv::GetPrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* d, wchar_t* b, DWORD n,
                                         const wchar_t* f) {
  KORU_FAULT_CALL(GetPrivateProfileStringW, 0, inner_.GetPrivateProfileStringW(s, k, d, b, n, f));
}
platform::UINT FaultEnv::GetPrivateProfileIntW(const wchar_t* s, const wchar_t* k, int d, const wchar_t* f) {
  KORU_FAULT_CALL(GetPrivateProfileIntW, static_cast<platform::UINT>(d), inner_.GetPrivateProfileIntW(s, k, d, f));
}
bool FaultEnv::WritePrivateProfileStringW(const wchar_t* s, const wchar_t* k, const wchar_t* v, const wchar_t* f) {
  KORU_FAULT_CALL(WritePrivateProfileStringW, false, inner_.WritePrivateProfileStringW(s, k, v, f));
}
bool FaultEnv::PathFileExistsW(const wchar_t* p) { KORU_FAULT_CALL(PathFileExistsW, false, inner_.PathFileExistsW(p)); }
bool FaultEnv::PathIsDirectoryW(const wchar_t* p) {
  KORU_FAULT_CALL(PathIsDirectoryW, false, inner_.PathIsDirectoryW(p));
}
bool FaultEnv::CreateDirectoryW(const wchar_t* p) {
  KORU_FAULT_CALL(CreateDirectoryW, false, inner_.CreateDirectoryW(p));
}
bool FaultEnv::CopyFileW(const wchar_t* a, const wchar_t* b, bool f) {
  KORU_FAULT_CALL(CopyFileW, false, inner_.CopyFileW(a, b, f));
}
bool FaultEnv::DeleteFileW(const wchar_t* p) { KORU_FAULT_CALL(DeleteFileW, false, inner_.DeleteFileW(p)); }
HANDLE FaultEnv::CreateFileW(const wchar_t* p, DWORD a, DWORD s, DWORD d, DWORD f) {
  KORU_FAULT_CALL(CreateFileW, platform::InvalidHandle(), inner_.CreateFileW(p, a, s, d, f));
}
bool FaultEnv::ReadFile(HANDLE h, void* b, DWORD n, DWORD* r) {
  const auto f = Next(Call::ReadFile);
  if (Failed(f)) return false;
  if (f && f->kind == Fault::Kind::kShortRead) return inner_.ReadFile(h, b, std::min(n, f->short_bytes), r);
  return inner_.ReadFile(h, b, n, r);
}
bool FaultEnv::WriteFile(HANDLE h, const void* b, DWORD n, DWORD* w) {
  KORU_FAULT_CALL(WriteFile, false, inner_.WriteFile(h, b, n, w));
}
bool FaultEnv::SetFilePointerEx(HANDLE h, std::int64_t d, std::int64_t* p, DWORD m) {
  const auto f = Next(Call::SetFilePointerEx);
  if (Failed(f)) return false;
  const bool ok = inner_.SetFilePointerEx(h, d, p, m);
  if (ok && f && f->kind == Fault::Kind::kSeekOff && p != nullptr) *p += f->seek_delta;
  return ok;
}
bool FaultEnv::CloseHandle(HANDLE h) { KORU_FAULT_CALL(CloseHandle, false, inner_.CloseHandle(h)); }
bool FaultEnv::DeviceIoControl(HANDLE h, DWORD c, const void* i, DWORD is, void* o, DWORD os, DWORD* r) {
  if (Failed(Next(Call::DeviceIoControl))) return false;
  IoctlAnswer answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    answer = ioctl_answer_;
  }
  if (!answer) return inner_.DeviceIoControl(h, c, i, is, o, os, r);
  DWORD error = 0;
  if (answer(c, o, os, r, &error)) return true;
  inner_.SetLastError(error);
  return false;
}
bool FaultEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* m, wchar_t* b, DWORD n) {
  if (Failed(Next(Call::GetVolumeNameForVolumeMountPointW))) return false;
  VolumeNameAnswer answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    answer = volume_name_answer_;
  }
  if (!answer) return inner_.GetVolumeNameForVolumeMountPointW(m, b, n);
  DWORD error = 0;
  if (answer(m, b, n, &error)) return true;
  inner_.SetLastError(error);
  return false;
}
bool FaultEnv::GetVersionExW(platform::OsVersionInfo* i) {
  KORU_FAULT_CALL(GetVersionExW, false, inner_.GetVersionExW(i));
}
bool FaultEnv::GetProductInfo(DWORD a, DWORD b, DWORD c, DWORD d, DWORD* t) {
  KORU_FAULT_CALL(GetProductInfo, false, inner_.GetProductInfo(a, b, c, d, t));
}
platform::UINT FaultEnv::GetSystemDirectoryW(wchar_t* b, platform::UINT n) {
  KORU_FAULT_CALL(GetSystemDirectoryW, 0, inner_.GetSystemDirectoryW(b, n));
}
platform::UINT FaultEnv::GetSystemWow64DirectoryW(wchar_t* b, platform::UINT n) {
  KORU_FAULT_CALL(GetSystemWow64DirectoryW, 0, inner_.GetSystemWow64DirectoryW(b, n));
}
platform::LONG FaultEnv::RegOpenKeyExW(platform::HKEY r, const wchar_t* k, DWORD o, DWORD s, platform::HKEY* out) {
  const auto f = Next(Call::RegOpenKeyExW);
  if (f && f->kind == Fault::Kind::kFail) return static_cast<platform::LONG>(f->error);
  return inner_.RegOpenKeyExW(r, k, o, s, out);
}
platform::LONG FaultEnv::RegQueryValueExW(platform::HKEY k, const wchar_t* n, DWORD* t, void* d, DWORD* s) {
  const auto f = Next(Call::RegQueryValueExW);
  if (f && f->kind == Fault::Kind::kFail) return static_cast<platform::LONG>(f->error);
  return inner_.RegQueryValueExW(k, n, t, d, s);
}
bool FaultEnv::OpenProcessToken(DWORD a, HANDLE* t) {
  KORU_FAULT_CALL(OpenProcessToken, false, inner_.OpenProcessToken(a, t));
}
bool FaultEnv::LookupPrivilegeValueW(const wchar_t* n, platform::Luid* l) {
  KORU_FAULT_CALL(LookupPrivilegeValueW, false, inner_.LookupPrivilegeValueW(n, l));
}
bool FaultEnv::AdjustTokenPrivileges(HANDLE t, const platform::TokenPrivileges* n, DWORD s,
                                     platform::TokenPrivileges* p, DWORD* r) {
  KORU_FAULT_CALL(AdjustTokenPrivileges, false, inner_.AdjustTokenPrivileges(t, n, s, p, r));
}

#undef KORU_FAULT_CALL

}  // namespace koru::test
