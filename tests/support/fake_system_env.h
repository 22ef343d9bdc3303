// FakeSystemEnv: a Windows system as the classification, registry and
// module-identity code sees it, made of tables a test fills. Everything else goes to
// the wrapped Env (the real one by default), so INI files and logs are real files.
// Not thread-safe: the tables are touched only from the test's own thread.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/fault_env.h"

namespace koru::test {

class FakeSystemEnv : public FaultEnv {
 public:
  explicit FakeSystemEnv(platform::Env& inner = platform::Env::Default()) : FaultEnv(inner) {}

  // --- system information; none or empty: the call fails
  std::optional<platform::OsVersionInfo> version;
  std::wstring system_dir;
  void SetVersion(DWORD major, DWORD minor, std::uint8_t product_type) {
    version = platform::OsVersionInfo{
        .dwMajorVersion = major, .dwMinorVersion = minor, .dwPlatformId = 2, .wProductType = product_type};
  }

  // --- registry below HKEY_LOCAL_MACHINE; key paths compare without regard to case
  void AddKey(const std::wstring& key) { keys_[Fold(key)]; }
  void SetValue(const std::wstring& key, const std::wstring& name, DWORD type, std::vector<unsigned char> data) {
    keys_[Fold(key)][Fold(name)] = {type, std::move(data)};
  }
  void SetString(const std::wstring& key, const std::wstring& name, const std::wstring& text) {
    std::vector<unsigned char> data((text.size() + 1) * sizeof(wchar_t), 0);
    std::memcpy(data.data(), text.c_str(), text.size() * sizeof(wchar_t));
    SetValue(key, name, platform::kRegSz, std::move(data));
  }
  std::vector<std::pair<std::wstring, DWORD>> opens;  // key, access
  std::map<HKEY, std::wstring> open_keys;  // handle -> folded key

  // --- module identity: KORU_MFT.DLL is loaded (fail GetModuleHandleW for a static build)
  std::wstring exe_path;
  std::wstring library_path = L"Z:\\opt\\koru\\KORU_MFT.DLL";
  std::map<std::wstring, std::wstring> version_strings;  // sub-block -> text
  std::vector<std::wstring> version_queries;

  // --- time and thread: fixed, so that a trace entry is known to the digit
  platform::SystemTime local_time{2026, 3, 0, 1, 14, 5, 9, 42};
  DWORD thread_id = 0x1a2c;

  void GetLocalTime(platform::SystemTime* t) override { *t = local_time; }
  DWORD GetCurrentThreadId() override { return thread_id; }

  platform::HMODULE GetModuleHandleW(const wchar_t* name) override {
    if (name == nullptr) return Module(1);
    if (Fold(name) == L"koru_mft.dll") return Module(2);
    return Fail(126), nullptr;  // ERROR_MOD_NOT_FOUND
  }
  DWORD GetModuleFileNameW(platform::HMODULE module, wchar_t* buffer, DWORD size) override {
    if (module == nullptr) module = Module(1);
    if (module != Module(1) && module != Module(2)) return Fail(126);
    return Copy(module == Module(1) ? exe_path : library_path, buffer, size);
  }
  DWORD GetFileVersionInfoSizeW(const wchar_t* file) override {
    if (Fold(file) != Fold(library_path) && Fold(file) != Fold(exe_path)) return Fail(platform::kErrorResourceTypeNotFound);
    return sizeof kBlockMark;
  }
  bool GetFileVersionInfoW(const wchar_t* file, DWORD, void* data) override {
    if (GetFileVersionInfoSizeW(file) == 0) return false;
    return std::memcpy(data, kBlockMark, sizeof kBlockMark), true;
  }
  bool VerQueryValueW(const void* block, const wchar_t* sub, const void** value, UINT* length) override {
    // The block must be the one GetFileVersionInfoW filled.
    if (std::memcmp(block, kBlockMark, sizeof kBlockMark) != 0) return Fail(platform::kErrorResourceTypeNotFound);
    version_queries.push_back(sub);
    if (Fold(sub) == Fold(L"\\VarFileInfo\\Translation")) {
      static const std::uint16_t kUsEnglishUnicode[2] = {0x0409, 0x04B0};
      *value = kUsEnglishUnicode;
      *length = sizeof kUsEnglishUnicode;
      return true;
    }
    for (const auto& [key, text] : version_strings) {
      if (Fold(key) != Fold(sub)) continue;
      *value = text.c_str();
      *length = static_cast<UINT>(text.size() + 1);
      return true;
    }
    return Fail(platform::kErrorResourceTypeNotFound);
  }

  bool GetVersionExW(platform::OsVersionInfo* info) override {
    if (!version) return Fail(platform::kErrorInvalidParameter);
    return *info = *version, true;
  }
  UINT GetSystemDirectoryW(wchar_t* buffer, UINT size) override {
    return system_dir.empty() ? Fail(platform::kErrorCallNotImplemented) : Copy(system_dir, buffer, size);
  }
  LONG RegOpenKeyExW(HKEY root, const wchar_t* key, DWORD, DWORD sam, HKEY* out) override {
    opens.emplace_back(key, sam);
    *out = 0;
    if (root != platform::kHKeyLocalMachine) return platform::kErrorInvalidParameter;
    if (keys_.find(Fold(key)) == keys_.end()) return platform::kErrorFileNotFound;
    *out = (next_key_ += 4);
    open_keys[*out] = Fold(key);
    return 0;
  }
  LONG RegQueryValueExW(HKEY key, const wchar_t* name, DWORD* type, void* data, DWORD* size) override {
    auto handle = open_keys.find(key);
    if (handle == open_keys.end()) return platform::kErrorInvalidHandle;
    const auto& values = keys_[handle->second];
    auto it = values.find(Fold(name));
    if (it == values.end()) return platform::kErrorFileNotFound;
    const auto needed = static_cast<DWORD>(it->second.second.size());
    if (type) *type = it->second.first;
    const bool fits = data == nullptr || *size >= needed;
    if (data != nullptr && fits) std::memcpy(data, it->second.second.data(), needed);
    *size = needed;
    return fits ? 0 : platform::kErrorMoreData;
  }
  LONG RegCloseKey(HKEY key) override { return open_keys.erase(key) == 1 ? 0 : platform::kErrorInvalidHandle; }

 private:
  static constexpr char kBlockMark[8] = {'F', 'A', 'K', 'E', 'V', 'E', 'R', 0};
  static platform::HMODULE Module(std::uintptr_t id) { return reinterpret_cast<platform::HMODULE>(id); }
  // Case folded, without a trailing backslash.
  static std::wstring Fold(std::wstring text) {
    text = Lower(std::move(text));
    while (!text.empty() && text.back() == L'\\') text.pop_back();
    return text;
  }
  // Win32 copy-out: truncated and terminated, with the full size and error 122 when short.
  UINT Copy(const std::wstring& text, wchar_t* buffer, UINT size) {
    const bool short_buffer = text.size() >= size;
    const std::size_t n = short_buffer ? size - 1 : text.size();
    std::copy_n(text.data(), n, buffer);
    buffer[n] = 0;
    if (short_buffer) Fail(platform::kErrorInsufficientBuffer);
    return short_buffer ? size : static_cast<UINT>(n);
  }

  std::map<std::wstring, std::map<std::wstring, std::pair<DWORD, std::vector<unsigned char>>>> keys_;  // type, data
  HKEY next_key_ = 0x1000;
};

}  // namespace koru::test
