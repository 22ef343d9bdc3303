#include "support/fault_env.h"

#include <algorithm>

namespace koru::test {

const FaultEnv::Fault* FaultEnv::Next(Call call) {
  const int n = ++counts_[call];
  for (const auto& rule : rules_)
    if (rule.call == call && (rule.at == 0 || rule.at == n)) return &rule.fault;
  return nullptr;
}

bool FaultEnv::Failed(const Fault* f) {
  if (f == nullptr || f->kind != Kind::kFail) return false;
  inner_.SetLastError(f->value);
  return true;
}

bool FaultEnv::ReadFile(HANDLE h, void* b, DWORD n, DWORD* r) {
  const Fault* f = Next(Call::ReadFile);
  if (Failed(f)) return false;
  return inner_.ReadFile(h, b, f && f->kind == Kind::kShortRead ? std::min(n, f->value) : n, r);
}

bool FaultEnv::SetFilePointerEx(HANDLE h, std::int64_t d, std::int64_t* p, DWORD m) {
  const Fault* f = Next(Call::SetFilePointerEx);
  if (Failed(f)) return false;
  const bool ok = inner_.SetFilePointerEx(h, d, p, m);
  if (ok && f && f->kind == Kind::kSeekOff && p != nullptr) *p += f->delta;
  return ok;
}

bool FaultEnv::DeviceIoControl(HANDLE h, DWORD c, const void* i, DWORD is, void* o, DWORD os, DWORD* r) {
  if (Failed(Call::DeviceIoControl)) return false;
  if (!ioctl_answer_) return inner_.DeviceIoControl(h, c, i, is, o, os, r);
  DWORD error = 0;
  return ioctl_answer_(c, o, os, r, &error) || Fail(error);
}

bool FaultEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* m, wchar_t* b, DWORD n) {
  if (!volume_name_answer_) return inner_.GetVolumeNameForVolumeMountPointW(m, b, n);
  DWORD error = 0;
  return volume_name_answer_(m, b, n, &error) || Fail(error);
}

}  // namespace koru::test
