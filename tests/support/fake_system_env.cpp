#include "support/fake_system_env.h"

#include <algorithm>
#include <cstring>
#include <cwctype>

namespace koru::test {

using platform::HKEY;
using platform::LONG;
using platform::UINT;

namespace {
constexpr char kBlockMark[8] = {'F', 'A', 'K', 'E', 'V', 'E', 'R', 0};
platform::HMODULE ProcessModule() { return reinterpret_cast<platform::HMODULE>(std::uintptr_t{1}); }
platform::HMODULE LibraryModule() { return reinterpret_cast<platform::HMODULE>(std::uintptr_t{2}); }

// Win32 copy-out: truncated and terminated, with the full size and error 122 when short.
UINT CopyPath(platform::Env& env, const std::wstring& text, wchar_t* buffer, UINT size) {
  if (buffer == nullptr || size == 0) {
    env.SetLastError(platform::kErrorInsufficientBuffer);
    return 0;
  }
  if (text.size() >= size) {
    std::copy_n(text.data(), size - 1, buffer);
    buffer[size - 1] = 0;
    env.SetLastError(platform::kErrorInsufficientBuffer);
    return size;
  }
  std::copy_n(text.data(), text.size(), buffer);
  buffer[text.size()] = 0;
  return static_cast<UINT>(text.size());
}
}  // namespace

std::wstring FakeSystemEnv::Fold(const std::wstring& text) {
  std::wstring out = text;
  for (auto& c : out) c = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
  while (!out.empty() && out.back() == L'\\') out.pop_back();
  return out;
}

void FakeSystemEnv::AddKey(const std::wstring& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  keys_[Fold(key)];
}

void FakeSystemEnv::SetString(const std::wstring& key, const std::wstring& name, const std::wstring& text) {
  std::vector<unsigned char> data((text.size() + 1) * sizeof(wchar_t), 0);
  std::memcpy(data.data(), text.c_str(), text.size() * sizeof(wchar_t));
  SetValue(key, name, platform::kRegSz, std::move(data));
}

void FakeSystemEnv::SetValue(const std::wstring& key, const std::wstring& name, DWORD type,
                             std::vector<unsigned char> data) {
  std::lock_guard<std::mutex> lock(mutex_);
  keys_[Fold(key)][Fold(name)] = Value{type, std::move(data)};
}

std::vector<FakeSystemEnv::Open> FakeSystemEnv::opens() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return opens_;
}
std::vector<std::wstring> FakeSystemEnv::unloads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return unloads_;
}
int FakeSystemEnv::open_keys() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(handles_.size());
}
bool FakeSystemEnv::enabled(const std::wstring& privilege) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = enabled_.find(privilege);
  return it != enabled_.end() && it->second;
}
void FakeSystemEnv::set_enabled(const std::wstring& privilege, bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  enabled_[privilege] = on;
}
std::vector<DWORD> FakeSystemEnv::token_accesses() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return token_accesses_;
}
int FakeSystemEnv::open_tokens() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(tokens_.size());
}
std::vector<std::wstring> FakeSystemEnv::version_queries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return version_queries_;
}

platform::HMODULE FakeSystemEnv::GetModuleHandleW(const wchar_t* name) {
  if (name == nullptr) return ProcessModule();
  if (library_loaded && Fold(name) == L"koru_mft.dll") return LibraryModule();
  SetLastError(126);  // ERROR_MOD_NOT_FOUND
  return nullptr;
}

DWORD FakeSystemEnv::GetModuleFileNameW(platform::HMODULE module, wchar_t* buffer, DWORD size) {
  if (module == nullptr || module == ProcessModule()) {
    if (exe_path.empty()) return FaultEnv::GetModuleFileNameW(nullptr, buffer, size);
    return CopyPath(*this, exe_path, buffer, size);
  }
  if (module == LibraryModule()) return CopyPath(*this, library_path, buffer, size);
  SetLastError(126);
  return 0;
}

DWORD FakeSystemEnv::GetFileVersionInfoSizeW(const wchar_t* file) {
  const std::wstring name = Fold(file ? file : L"");
  if (name != Fold(library_path) && name != Fold(exe_path)) {
    SetLastError(platform::kErrorResourceTypeNotFound);
    return 0;
  }
  return sizeof kBlockMark;
}

bool FakeSystemEnv::GetFileVersionInfoW(const wchar_t* file, DWORD size, void* data) {
  if (GetFileVersionInfoSizeW(file) == 0) return false;
  if (data == nullptr || size < sizeof kBlockMark) return Fail(platform::kErrorInsufficientBuffer);
  std::memcpy(data, kBlockMark, sizeof kBlockMark);
  return true;
}

bool FakeSystemEnv::VerQueryValueW(const void* block, const wchar_t* sub, const void** value, UINT* length) {
  if (block == nullptr || sub == nullptr || value == nullptr) return Fail(platform::kErrorInvalidParameter);
  if (std::memcmp(block, kBlockMark, sizeof kBlockMark) != 0) return Fail(platform::kErrorResourceTypeNotFound);
  std::lock_guard<std::mutex> lock(mutex_);
  version_queries_.push_back(sub);
  if (Fold(sub) == Fold(L"\\VarFileInfo\\Translation")) {
    if (!translation) return Fail(platform::kErrorResourceTypeNotFound);
    translation_words_[0] = translation->first;
    translation_words_[1] = translation->second;
    *value = translation_words_;
    if (length) *length = sizeof translation_words_;
    return true;
  }
  for (const auto& [key, text] : version_strings) {
    if (Fold(key) == Fold(sub)) {
      *value = text.c_str();
      if (length) *length = static_cast<UINT>(text.size() + 1);
      return true;
    }
  }
  return Fail(platform::kErrorResourceTypeNotFound);
}

void FakeSystemEnv::GetLocalTime(platform::SystemTime* t) {
  if (local_time) {
    *t = *local_time;
  } else {
    FaultEnv::GetLocalTime(t);
  }
}

DWORD FakeSystemEnv::GetCurrentThreadId() { return thread_id ? *thread_id : FaultEnv::GetCurrentThreadId(); }

bool FakeSystemEnv::GetVersionExW(platform::OsVersionInfo* info) {
  if (!version || info == nullptr) return Fail(platform::kErrorInvalidParameter);
  *info = *version;
  return true;
}

bool FakeSystemEnv::GetProductInfo(DWORD, DWORD, DWORD, DWORD, DWORD* type) {
  if (!product_info) return Fail(platform::kErrorProcNotFound);
  if (type) *type = *product_info;
  return true;
}

UINT FakeSystemEnv::GetSystemDirectoryW(wchar_t* buffer, UINT size) {
  if (system_dir.empty()) {
    SetLastError(platform::kErrorCallNotImplemented);
    return 0;
  }
  if (buffer == nullptr || size <= system_dir.size()) return static_cast<UINT>(system_dir.size() + 1);
  return CopyPath(*this, system_dir, buffer, size);
}

UINT FakeSystemEnv::GetSystemWow64DirectoryW(wchar_t* buffer, UINT size) {
  if (!wow64) {
    SetLastError(platform::kErrorCallNotImplemented);
    return 0;
  }
  return CopyPath(*this, L"C:\\Windows\\SysWOW64", buffer, size);
}

LONG FakeSystemEnv::RegOpenKeyExW(HKEY root, const wchar_t* key, DWORD, DWORD sam, HKEY* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  opens_.push_back({key ? key : L"", sam});
  if (out) *out = 0;
  if (root != platform::kHKeyLocalMachine || key == nullptr || out == nullptr)
    return static_cast<LONG>(platform::kErrorInvalidParameter);
  const std::wstring folded = Fold(key);
  if (keys_.find(folded) == keys_.end()) return static_cast<LONG>(platform::kErrorFileNotFound);
  const HKEY handle = (next_key_ += 4);
  handles_[handle] = folded;
  *out = handle;
  return 0;
}

LONG FakeSystemEnv::RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* type, void* data, DWORD* size) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto handle = handles_.find(key);
  if (handle == handles_.end()) return static_cast<LONG>(platform::kErrorInvalidHandle);
  const auto& values = keys_[handle->second];
  auto it = values.find(Fold(name ? name : L""));
  if (it == values.end()) return static_cast<LONG>(platform::kErrorFileNotFound);
  const Value& v = it->second;
  const auto needed = static_cast<DWORD>(v.data.size());
  if (type) *type = v.type;
  if (data == nullptr) {
    if (size) *size = needed;
    return 0;
  }
  if (size == nullptr) return static_cast<LONG>(platform::kErrorInvalidParameter);
  if (*size < needed) {
    *size = needed;
    return static_cast<LONG>(platform::kErrorMoreData);
  }
  std::memcpy(data, v.data.data(), needed);
  *size = needed;
  return 0;
}

LONG FakeSystemEnv::RegCloseKey(HKEY key) {
  std::lock_guard<std::mutex> lock(mutex_);
  return handles_.erase(key) == 1 ? 0 : static_cast<LONG>(platform::kErrorInvalidHandle);
}

LONG FakeSystemEnv::RegUnLoadKeyW(HKEY, const wchar_t* key) {
  std::lock_guard<std::mutex> lock(mutex_);
  unloads_.push_back(key ? key : L"");
  return unload_result;
}

bool FakeSystemEnv::OpenProcessToken(DWORD access, platform::HANDLE* token) {
  std::lock_guard<std::mutex> lock(mutex_);
  token_accesses_.push_back(access);
  if (!token_opens || token == nullptr) return Fail(platform::kErrorAccessDenied);
  next_token_ += 4;
  tokens_.insert(next_token_);
  *token = reinterpret_cast<platform::HANDLE>(next_token_);
  return true;
}

bool FakeSystemEnv::LookupPrivilegeValueW(const wchar_t* name, platform::Luid* luid) {
  if (name == nullptr || luid == nullptr) return Fail(platform::kErrorInvalidParameter);
  DWORD index = 1;
  for (const auto& known : known_privileges) {
    if (known == name) {
      luid->LowPart = index;
      luid->HighPart = 0;
      return true;
    }
    ++index;
  }
  return Fail(platform::kErrorNoSuchPrivilege);
}

bool FakeSystemEnv::AdjustTokenPrivileges(platform::HANDLE token, const platform::TokenPrivileges* state,
                                          DWORD size, platform::TokenPrivileges* previous, DWORD* returned) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (tokens_.count(reinterpret_cast<std::uintptr_t>(token)) == 0) return Fail(platform::kErrorInvalidHandle);
  if (!adjust_succeeds || state == nullptr) return Fail(platform::kErrorAccessDenied);
  if (previous != nullptr && size < sizeof(platform::TokenPrivileges)) return Fail(platform::kErrorInsufficientBuffer);
  if (state->PrivilegeCount == 0) {
    if (previous) *previous = platform::TokenPrivileges{};
    return true;
  }
  std::wstring name;
  DWORD index = 1;
  for (const auto& known : known_privileges)
    if (index++ == state->PrivilegeLuid.LowPart) name = known;
  if (name.empty()) return Fail(platform::kErrorNoSuchPrivilege);
  bool& on = enabled_[name];
  if (previous) {
    previous->PrivilegeCount = 1;
    previous->PrivilegeLuid = state->PrivilegeLuid;
    previous->Attributes = on ? platform::kSePrivilegeEnabled : 0;
  }
  if (returned) *returned = sizeof(platform::TokenPrivileges);
  on = (state->Attributes & platform::kSePrivilegeEnabled) != 0;
  return true;
}

bool FakeSystemEnv::CloseHandle(platform::HANDLE handle) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (tokens_.erase(reinterpret_cast<std::uintptr_t>(handle)) == 1) return true;
  }
  return FaultEnv::CloseHandle(handle);
}

}  // namespace koru::test
