// FakeSystemEnv: a Windows system as the classification, registry, privilege and
// module-identity code sees it, made of tables a test fills. Files, INI profiles and
// everything else go to the wrapped Env (the real one by default), so a prodspec.ini,
// a kor.ini or a log written to a temporary directory are real files. Wrap it in a
// FaultEnv to make chosen calls fail on top of it.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/fault_env.h"

namespace koru::test {

class FakeSystemEnv : public FaultEnv {
 public:
  explicit FakeSystemEnv(platform::Env& inner = platform::Env::Default()) : FaultEnv(inner) {}

  // --- system information
  std::optional<platform::OsVersionInfo> version;  // none: GetVersionExW fails
  std::optional<DWORD> product_info;               // none: GetProductInfo is not exported
  std::wstring system_dir;                         // empty: GetSystemDirectoryW fails
  bool wow64 = false;                              // GetSystemWow64DirectoryW answers
  void SetVersion(DWORD major, DWORD minor, std::uint8_t product_type, DWORD build = 0) {
    platform::OsVersionInfo info;
    info.dwMajorVersion = major;
    info.dwMinorVersion = minor;
    info.dwBuildNumber = build;
    info.dwPlatformId = 2;
    info.wProductType = product_type;
    version = info;
  }

  // --- registry below HKEY_LOCAL_MACHINE; key paths compare without regard to case
  void AddKey(const std::wstring& key);
  void SetString(const std::wstring& key, const std::wstring& name, const std::wstring& text);
  void SetValue(const std::wstring& key, const std::wstring& name, DWORD type, std::vector<unsigned char> data);
  struct Open {
    std::wstring key;
    DWORD sam;
  };
  std::vector<Open> opens() const;
  std::vector<std::wstring> unloads() const;
  int open_keys() const;
  platform::LONG unload_result = 0;

  // --- privileges of the process token
  std::set<std::wstring> known_privileges{L"SeRestorePrivilege", L"SeBackupPrivilege"};
  bool token_opens = true;
  bool adjust_succeeds = true;
  bool enabled(const std::wstring& privilege) const;
  void set_enabled(const std::wstring& privilege, bool on);
  std::vector<DWORD> token_accesses() const;
  int open_tokens() const;

  // --- module identity
  std::wstring exe_path;                 // GetModuleFileNameW(NULL); empty: the real one
  bool library_loaded = true;            // GetModuleHandleW("KORU_MFT.DLL") finds it
  std::wstring library_path = L"Z:\\opt\\koru\\KORU_MFT.DLL";
  std::optional<std::pair<std::uint16_t, std::uint16_t>> translation{{0x0409, 0x04B0}};
  std::map<std::wstring, std::wstring> version_strings;  // sub-block -> text
  std::vector<std::wstring> version_queries() const;

  // --- network text
  bool inet_ntoa_fails = false;
  bool InetNtoa(DWORD network_order, char* buffer, std::size_t size) override {
    return !inet_ntoa_fails && FaultEnv::InetNtoa(network_order, buffer, size);
  }

  // --- time and thread
  std::optional<platform::SystemTime> local_time;
  std::optional<DWORD> thread_id;

  platform::HMODULE GetModuleHandleW(const wchar_t* name) override;
  DWORD GetModuleFileNameW(platform::HMODULE module, wchar_t* buffer, DWORD size) override;
  DWORD GetFileVersionInfoSizeW(const wchar_t* file) override;
  bool GetFileVersionInfoW(const wchar_t* file, DWORD size, void* data) override;
  bool VerQueryValueW(const void* block, const wchar_t* sub, const void** value, platform::UINT* length) override;
  void GetLocalTime(platform::SystemTime* t) override;
  DWORD GetCurrentThreadId() override;
  bool GetVersionExW(platform::OsVersionInfo* info) override;
  bool GetProductInfo(DWORD major, DWORD minor, DWORD sp_major, DWORD sp_minor, DWORD* type) override;
  platform::UINT GetSystemDirectoryW(wchar_t* buffer, platform::UINT size) override;
  platform::UINT GetSystemWow64DirectoryW(wchar_t* buffer, platform::UINT size) override;
  platform::LONG RegOpenKeyExW(platform::HKEY root, const wchar_t* key, DWORD options, DWORD sam,
                               platform::HKEY* out) override;
  platform::LONG RegQueryValueExW(platform::HKEY key, const wchar_t* name, DWORD* type, void* data,
                                  DWORD* size) override;
  platform::LONG RegCloseKey(platform::HKEY key) override;
  platform::LONG RegUnLoadKeyW(platform::HKEY root, const wchar_t* key) override;
  bool OpenProcessToken(DWORD access, platform::HANDLE* token) override;
  bool LookupPrivilegeValueW(const wchar_t* name, platform::Luid* luid) override;
  bool AdjustTokenPrivileges(platform::HANDLE token, const platform::TokenPrivileges* state, DWORD size,
                             platform::TokenPrivileges* previous, DWORD* returned) override;
  bool CloseHandle(platform::HANDLE handle) override;

 private:
  struct Value {
    DWORD type;
    std::vector<unsigned char> data;
  };
  static std::wstring Fold(const std::wstring& text);
  bool Fail(DWORD error) {
    SetLastError(error);
    return false;
  }

  mutable std::mutex mutex_;
  std::map<std::wstring, std::map<std::wstring, Value>> keys_;  // folded key -> folded name -> value
  std::map<platform::HKEY, std::wstring> handles_;
  platform::HKEY next_key_ = 0x1000;
  std::vector<Open> opens_;
  std::vector<std::wstring> unloads_;
  std::map<std::wstring, bool> enabled_;
  std::vector<DWORD> token_accesses_;
  std::set<std::uintptr_t> tokens_;
  std::uintptr_t next_token_ = 0x7000;
  std::vector<std::wstring> version_queries_;
  std::uint16_t translation_words_[2] = {};
};

}  // namespace koru::test
