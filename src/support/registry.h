// Registry access below a fixed root and path prefix, so that settings can be read
// from the running system's hives or from an offline installation's hives loaded
// under a well-known key. Everything goes through platform::Env.
//
// Nothing here traces: the system environment reads the registry while the trace
// object itself is being built.
#pragma once

#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace varnel {

namespace nonassignable_ {
// Makes derived classes neither copyable nor assignable.
class nonassignable {
 public:
  virtual ~nonassignable() = default;
  nonassignable(const nonassignable&) = delete;
  nonassignable& operator=(const nonassignable&) = delete;

 protected:
  nonassignable() = default;
};
}  // namespace nonassignable_

inline constexpr platform::DWORD kKeyReadAccess = platform::kKeyRead;                               // 0x20019
inline constexpr platform::DWORD kKeyRead64Access = platform::kKeyRead | platform::kKeyWow64_64Key;  // 0x20119

class Registry : public nonassignable_::nonassignable {
 public:
  ~Registry() override;

  // Enables the privilege in the process token; the state it replaced goes to *saved
  // (may be null). True when the adjustment call succeeded.
  static bool EnablePrivilege(const wchar_t* privilege, platform::TokenPrivileges* saved,
                              platform::Env& env = platform::Env::Default());
  // Puts back a saved state, or disables the privilege when there is none.
  static bool RestorePrivilege(const wchar_t* privilege, const platform::TokenPrivileges* saved,
                               platform::Env& env = platform::Env::Default());
  // Unloads the hive loaded as HKEY_LOCAL_MACHINE\key_name. A name holding a backslash
  // is refused: the destructors pass their keys with a trailing one and so never
  // unload, which is what the offline tools rely on.
  static bool UnloadHive(const wchar_t* key_name, platform::Env& env = platform::Env::Default());

  // One REG_SZ value of prefix + key_path. True only when it was read in full.
  bool ReadStringValue(const wchar_t* key_path, const wchar_t* value_name, string& value);

  // Non-zero: reads use the 64-bit registry view.
  void SetFlag(platform::DWORD flag) { m_dwFlag = flag; }
  platform::DWORD Flag() const { return m_dwFlag; }
  const string& Prefix() const { return m_sPrefix; }
  const char* NarrowPrefix() const { return m_pszPrefix; }

 protected:
  Registry(const wchar_t* prefix, platform::Env& env);
  // What both destructors do: leave a loaded offline hive where it is (see UnloadHive).
  void ReleaseOfflineHive(const wchar_t* hive_key);

  platform::DWORD m_dwFlag = 0;
  platform::HKEY m_hRoot = platform::kHKeyLocalMachine;
  string m_sPrefix;
  char* m_pszPrefix = nullptr;
  platform::Env& m_env;
};

class Registry_System : public Registry {
 public:
  static constexpr const wchar_t* kOfflineHiveKey = L"{D0B3D3F4-05F2-4671-80D5-B569ABD77343}\\";
  explicit Registry_System(platform::Env& env = platform::Env::Default());
  ~Registry_System() override;
};

class Registry_Software : public Registry {
 public:
  static constexpr const wchar_t* kOfflineHiveKey = L"{72000DEF-16EA-418f-99F7-40C42BBC5C22}\\";
  explicit Registry_Software(platform::Env& env = platform::Env::Default());
  ~Registry_Software() override;
};

}  // namespace varnel
