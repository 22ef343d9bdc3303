#include "support/registry.h"

#include <cstring>
#include <cwchar>
#include <vector>

namespace varnel {

using platform::DWORD;
using platform::Env;
using platform::TokenPrivileges;

namespace {
constexpr DWORD kTokenAdjustAndQuery = platform::kTokenAdjustPrivileges | platform::kTokenQuery;  // 0x28
constexpr platform::LONG kSuccess = 0;

bool AdjustOne(Env& env, DWORD token_access, const wchar_t* privilege, const TokenPrivileges* state,
               DWORD attributes, TokenPrivileges* saved) {
  platform::HANDLE token = nullptr;
  if (!env.OpenProcessToken(token_access, &token)) return false;
  platform::Luid luid;
  if (privilege == nullptr || !env.LookupPrivilegeValueW(privilege, &luid)) {
    env.CloseHandle(token);
    return false;
  }
  TokenPrivileges wanted;
  wanted.PrivilegeCount = 1;
  wanted.PrivilegeLuid = luid;
  wanted.Attributes = attributes;
  DWORD returned = 0;
  const bool ok = env.AdjustTokenPrivileges(token, state != nullptr ? state : &wanted,
                                            saved != nullptr ? sizeof(TokenPrivileges) : 0, saved,
                                            saved != nullptr ? &returned : nullptr);
  env.CloseHandle(token);
  return ok;
}
}  // namespace

Registry::Registry(const wchar_t* prefix, Env& env) : m_sPrefix(prefix), m_env(env) {
  const char* narrow = m_sPrefix.narrow();
  const std::size_t n = std::strlen(narrow);
  m_pszPrefix = new char[n + 1];
  std::memcpy(m_pszPrefix, narrow, n + 1);
}

Registry::~Registry() { delete[] m_pszPrefix; }

void Registry::ReleaseOfflineHive(const wchar_t* hive_key) {
  platform::HKEY key = 0;
  if (m_env.RegOpenKeyExW(platform::kHKeyLocalMachine, hive_key, 0, kKeyReadAccess, &key) == kSuccess) {
    m_env.RegCloseKey(key);
    UnloadHive(hive_key, m_env);
  }
}

bool Registry::EnablePrivilege(const wchar_t* privilege, TokenPrivileges* saved, Env& env) {
  return AdjustOne(env, kTokenAdjustAndQuery, privilege, nullptr, platform::kSePrivilegeEnabled, saved);
}

bool Registry::RestorePrivilege(const wchar_t* privilege, const TokenPrivileges* saved, Env& env) {
  return AdjustOne(env, platform::kTokenAdjustPrivileges, privilege, saved, 0, nullptr);
}

bool Registry::UnloadHive(const wchar_t* key_name, Env& env) {
  if (key_name == nullptr || std::wcschr(key_name, L'\\') != nullptr) return false;
  TokenPrivileges restore_state, backup_state;
  if (!EnablePrivilege(L"SeRestorePrivilege", &restore_state, env)) return false;
  if (!EnablePrivilege(L"SeBackupPrivilege", &backup_state, env)) {
    RestorePrivilege(L"SeRestorePrivilege", &restore_state, env);
    return false;
  }
  const platform::LONG unloaded = env.RegUnLoadKeyW(platform::kHKeyLocalMachine, key_name);
  const bool backup_back = RestorePrivilege(L"SeBackupPrivilege", &backup_state, env);
  const bool restore_back = RestorePrivilege(L"SeRestorePrivilege", &restore_state, env);
  return backup_back && restore_back && unloaded == kSuccess;
}

bool Registry::ReadStringValue(const wchar_t* key_path, const wchar_t* value_name, string& value) {
  string path = m_sPrefix;
  path += key_path;
  platform::HKEY key = 0;
  if (m_env.RegOpenKeyExW(m_hRoot, path.c_str(), 0, m_dwFlag != 0 ? kKeyRead64Access : kKeyReadAccess, &key) !=
      kSuccess)
    return false;
  DWORD type = 0;  // REG_NONE unless the value is there
  DWORD size = 0;
  m_env.RegQueryValueExW(key, value_name, &type, nullptr, &size);
  bool ok = false;
  if (type == platform::kRegSz) {
    // Sizes are in bytes of the platform's wide characters.
    const std::size_t chars = size / sizeof(wchar_t);
    std::vector<wchar_t> buffer(chars + 1, L'\0');
    DWORD read_size = static_cast<DWORD>(chars * sizeof(wchar_t));
    const bool read = m_env.RegQueryValueExW(key, value_name, nullptr, buffer.data(), &read_size) == kSuccess;
    std::size_t length = 0;
    while (length < chars && buffer[length] != 0) ++length;
    value = string(buffer.data(), length);
    ok = read && read_size == size;
  } else {
    value = L"";
  }
  m_env.RegCloseKey(key);
  return ok;
}

Registry_System::Registry_System(Env& env) : Registry(L"SYSTEM\\", env) {}
Registry_System::~Registry_System() { ReleaseOfflineHive(kOfflineHiveKey); }

Registry_Software::Registry_Software(Env& env) : Registry(L"SOFTWARE\\", env) {}
Registry_Software::~Registry_Software() { ReleaseOfflineHive(kOfflineHiveKey); }

}  // namespace varnel
