#include "support/registry.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "support/fake_system_env.h"

namespace {

using koru::test::Call;
using koru::test::FakeSystemEnv;
using koru::test::FaultEnv;
using varnel::Registry;
using varnel::Registry_Software;
using varnel::Registry_System;

constexpr const wchar_t* kCurrentVersion = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

static_assert(!std::is_copy_constructible_v<Registry_System>);
static_assert(!std::is_copy_assignable_v<Registry_Software>);
static_assert(std::has_virtual_destructor_v<varnel::nonassignable_::nonassignable>);

TEST(Registry, PrefixesAndTheirNarrowCopies) {
  FakeSystemEnv env;
  Registry_System system(env);
  Registry_Software software(env);
  EXPECT_STREQ(system.Prefix().c_str(), L"SYSTEM\\");
  EXPECT_STREQ(system.NarrowPrefix(), "SYSTEM\\");
  EXPECT_STREQ(software.Prefix().c_str(), L"SOFTWARE\\");
  EXPECT_STREQ(software.NarrowPrefix(), "SOFTWARE\\");
  EXPECT_EQ(system.Flag(), 0u);
}

TEST(RegistryRead, ReadsAStringBelowThePrefixWithReadAccess) {
  FakeSystemEnv env;
  env.SetString(kCurrentVersion, L"CurrentBuild", L"19045");
  Registry_Software software(env);
  varnel::string value;
  EXPECT_TRUE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"CurrentBuild", value));
  EXPECT_STREQ(value.c_str(), L"19045");
  ASSERT_FALSE(env.opens().empty());
  EXPECT_EQ(env.opens()[0].key, std::wstring(kCurrentVersion));
  EXPECT_EQ(env.opens()[0].sam, 0x20019u);
  EXPECT_EQ(env.open_keys(), 0);  // closed again
}

TEST(RegistryRead, TheFlagSelectsTheSixtyFourBitView) {
  FakeSystemEnv env;
  env.SetString(kCurrentVersion, L"ProductName", L"Windows 10 Pro");
  Registry_Software software(env);
  software.SetFlag(1);
  varnel::string value;
  EXPECT_TRUE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"ProductName", value));
  EXPECT_EQ(env.opens()[0].sam, 0x20119u);
}

TEST(RegistryRead, TextStopsAtTheFirstZeroCharacter) {
  FakeSystemEnv env;
  env.SetString(kCurrentVersion, L"CSDVersion", std::wstring(L"Service Pack 1\0junk", 19));
  Registry_Software software(env);
  varnel::string value;
  EXPECT_TRUE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"CSDVersion", value));
  EXPECT_STREQ(value.c_str(), L"Service Pack 1");
  EXPECT_EQ(value.length(), 14u);
}

TEST(RegistryRead, MissingKeyMissingValueAndOtherTypes) {
  FakeSystemEnv env;
  env.SetValue(kCurrentVersion, L"InstallDate", 4 /* REG_DWORD */, {1, 2, 3, 4});
  Registry_Software software(env);
  varnel::string value(L"untouched");
  EXPECT_FALSE(software.ReadStringValue(L"Microsoft\\Nowhere", L"CurrentBuild", value));
  EXPECT_STREQ(value.c_str(), L"untouched");  // the open failed before anything else
  EXPECT_FALSE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"Missing", value));
  EXPECT_TRUE(value.empty());
  value = L"untouched";
  EXPECT_FALSE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"InstallDate", value));
  EXPECT_TRUE(value.empty());
  EXPECT_EQ(env.open_keys(), 0);
}

TEST(RegistryRead, ASecondReadThatFailsOrSizesDifferentlyIsNotAFullRead) {
  FakeSystemEnv fake;
  fake.SetString(kCurrentVersion, L"CurrentBuild", L"22631");
  FaultEnv env(static_cast<platform::Env&>(fake));
  Registry_Software software(env);
  varnel::string value;
  env.FailCall(Call::RegQueryValueExW, platform::kErrorMoreData, 2);
  EXPECT_FALSE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"CurrentBuild", value));
  EXPECT_EQ(fake.open_keys(), 0);

  // An odd byte count cannot be read into whole characters.
  FakeSystemEnv odd;
  std::vector<unsigned char> data(2 * sizeof(wchar_t) + 1, 0);
  data[0] = 'A';
  odd.SetValue(kCurrentVersion, L"Odd", platform::kRegSz, data);
  Registry_Software odd_software(odd);
  EXPECT_FALSE(odd_software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"Odd", value));
}

TEST(RegistryRead, LinuxHasNoHiveAttached) {
#ifndef _WIN32
  Registry_Software software;
  varnel::string value;
  EXPECT_FALSE(software.ReadStringValue(L"Microsoft\\Windows NT\\CurrentVersion", L"CurrentBuild", value));
#endif
}

TEST(RegistryPrivileges, EnableSavesThePreviousStateAndRestorePutsItBack) {
  FakeSystemEnv env;
  platform::TokenPrivileges saved;
  ASSERT_TRUE(Registry::EnablePrivilege(L"SeBackupPrivilege", &saved, env));
  EXPECT_TRUE(env.enabled(L"SeBackupPrivilege"));
  EXPECT_EQ(saved.PrivilegeCount, 1u);
  EXPECT_EQ(saved.Attributes, 0u);
  ASSERT_TRUE(Registry::RestorePrivilege(L"SeBackupPrivilege", &saved, env));
  EXPECT_FALSE(env.enabled(L"SeBackupPrivilege"));
  EXPECT_EQ(env.token_accesses(), (std::vector<platform::DWORD>{0x28, 0x20}));
  EXPECT_EQ(env.open_tokens(), 0);
}

TEST(RegistryPrivileges, RestoreWithoutSavedStateDisables) {
  FakeSystemEnv env;
  env.set_enabled(L"SeRestorePrivilege", true);
  EXPECT_TRUE(Registry::RestorePrivilege(L"SeRestorePrivilege", nullptr, env));
  EXPECT_FALSE(env.enabled(L"SeRestorePrivilege"));
}

TEST(RegistryPrivileges, FailuresOfTokenLookupAndAdjustment) {
  FakeSystemEnv env;
  platform::TokenPrivileges saved;
  EXPECT_FALSE(Registry::EnablePrivilege(L"SeMadeUpPrivilege", &saved, env));
  EXPECT_EQ(env.open_tokens(), 0);  // the token is closed on the way out
  env.adjust_succeeds = false;
  EXPECT_FALSE(Registry::EnablePrivilege(L"SeBackupPrivilege", &saved, env));
  EXPECT_FALSE(Registry::RestorePrivilege(L"SeBackupPrivilege", nullptr, env));
  env.adjust_succeeds = true;
  env.token_opens = false;
  EXPECT_FALSE(Registry::EnablePrivilege(L"SeBackupPrivilege", &saved, env));
  EXPECT_FALSE(Registry::RestorePrivilege(L"SeBackupPrivilege", &saved, env));
}

TEST(RegistryUnload, UnloadsAPlainNameAndLeavesThePrivilegesAsTheyWere) {
  FakeSystemEnv env;
  env.set_enabled(L"SeBackupPrivilege", true);
  EXPECT_TRUE(Registry::UnloadHive(L"OfflineSoftware", env));
  EXPECT_EQ(env.unloads(), (std::vector<std::wstring>{L"OfflineSoftware"}));
  EXPECT_TRUE(env.enabled(L"SeBackupPrivilege"));
  EXPECT_FALSE(env.enabled(L"SeRestorePrivilege"));
  EXPECT_EQ(env.open_tokens(), 0);
}

TEST(RegistryUnload, ANameWithABackslashIsRefusedAtOnce) {
  FakeSystemEnv env;
  EXPECT_FALSE(Registry::UnloadHive(L"Hive\\", env));
  EXPECT_FALSE(Registry::UnloadHive(L"\\Hive", env));
  EXPECT_TRUE(env.unloads().empty());
  EXPECT_TRUE(env.token_accesses().empty());
}

TEST(RegistryUnload, FailuresAlongTheWay) {
  FakeSystemEnv env;
  env.unload_result = static_cast<platform::LONG>(platform::kErrorAccessDenied);
  EXPECT_FALSE(Registry::UnloadHive(L"Hive", env));
  EXPECT_FALSE(env.enabled(L"SeRestorePrivilege"));  // restored even so
  EXPECT_FALSE(env.enabled(L"SeBackupPrivilege"));

  FakeSystemEnv no_backup;
  no_backup.known_privileges = {L"SeRestorePrivilege"};
  EXPECT_FALSE(Registry::UnloadHive(L"Hive", no_backup));
  EXPECT_TRUE(no_backup.unloads().empty());
  EXPECT_FALSE(no_backup.enabled(L"SeRestorePrivilege"));  // put back before giving up

  FakeSystemEnv no_restore;
  no_restore.known_privileges = {L"SeBackupPrivilege"};
  EXPECT_FALSE(Registry::UnloadHive(L"Hive", no_restore));
  EXPECT_TRUE(no_restore.unloads().empty());

  // The unload succeeds but a restoration does not: still false.
  FakeSystemEnv fake;
  FaultEnv faults(static_cast<platform::Env&>(fake));
  faults.FailCall(Call::AdjustTokenPrivileges, platform::kErrorAccessDenied, 4);
  EXPECT_FALSE(Registry::UnloadHive(L"Hive", faults));
  EXPECT_EQ(fake.unloads().size(), 1u);
}

TEST(RegistryDestructors, AnOfflineHiveStaysLoaded) {
  FakeSystemEnv env;
  env.AddKey(Registry_System::kOfflineHiveKey);
  env.AddKey(Registry_Software::kOfflineHiveKey);
  { Registry_System system(env); }
  { Registry_Software software(env); }
  const auto opens = env.opens();
  ASSERT_EQ(opens.size(), 2u);
  EXPECT_EQ(opens[0].key, L"{D0B3D3F4-05F2-4671-80D5-B569ABD77343}\\");
  EXPECT_EQ(opens[1].key, L"{72000DEF-16EA-418f-99F7-40C42BBC5C22}\\");
  EXPECT_EQ(opens[0].sam, 0x20019u);
  EXPECT_EQ(env.open_keys(), 0);
  EXPECT_TRUE(env.unloads().empty());
  EXPECT_TRUE(env.token_accesses().empty());
}

}  // namespace
