#include "support/registry.h"

#include <gtest/gtest.h>

#include "support/fake_system_env.h"

namespace {

using koru::test::Call;
using koru::test::FakeSystemEnv;
using koru::test::FaultEnv;
using varnel::Registry_Software;
using varnel::Registry_System;

constexpr const wchar_t* kCurrentVersion = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr const wchar_t* kBelowSoftware = L"Microsoft\\Windows NT\\CurrentVersion";

TEST(RegistryRead, OnlyAWholeStringValueReadsAndEveryKeyIsClosed) {
  FakeSystemEnv fake;
  fake.SetString(kCurrentVersion, L"CSDVersion", std::wstring(L"Service Pack 1\0junk", 19));
  fake.SetString(kCurrentVersion, L"CurrentBuild", L"22631");
  fake.SetValue(kCurrentVersion, L"InstallDate", 4 /* REG_DWORD */, {1, 2, 3, 4});
  std::vector<unsigned char> odd(2 * sizeof(wchar_t) + 1, 0);  // no whole number of characters
  odd[0] = 'A';
  fake.SetValue(kCurrentVersion, L"Odd", platform::kRegSz, odd);
  FaultEnv env(static_cast<platform::Env&>(fake));
  Registry_Software software(env);
  const struct {
    const wchar_t* key;
    const wchar_t* name;
    bool more_data_twice;  // the value grows between the size query and the read
    bool ok;
    const wchar_t* value;
  } cases[] = {
      {kBelowSoftware, L"CSDVersion", false, true, L"Service Pack 1"},  // up to the first zero
      {L"Microsoft\\Nowhere", L"CurrentBuild", false, false, L"untouched"},
      {kBelowSoftware, L"Missing", false, false, L""},
      {kBelowSoftware, L"InstallDate", false, false, L""},
      {kBelowSoftware, L"Odd", false, false, nullptr},
      {kBelowSoftware, L"CurrentBuild", true, false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name);
    varnel::string value(L"untouched");
    if (c.more_data_twice) env.FailCall(Call::RegQueryValueExW, platform::kErrorMoreData, 2);
    EXPECT_EQ(software.ReadStringValue(c.key, c.name, value), c.ok);
    if (c.value) {
      EXPECT_STREQ(value.c_str(), c.value);
    }
    EXPECT_TRUE(fake.open_keys.empty());
  }
  EXPECT_EQ(fake.opens[0], std::make_pair(std::wstring(kCurrentVersion), platform::DWORD{0x20019}));
}

// The only unload the library asks for: the offline hive keys end in a backslash,
// so it is refused before any privilege is touched.
TEST(RegistryDestructors, AnOfflineHiveStaysLoaded) {
  FakeSystemEnv env;
  env.FailCall(Call::OpenProcessToken, platform::kErrorAccessDenied, 0);  // never the test process's own token
  env.AddKey(Registry_System::kOfflineHiveKey);
  env.AddKey(Registry_Software::kOfflineHiveKey);
  { Registry_System system(env); }
  { Registry_Software software(env); }
  EXPECT_EQ(env.opens.size(), 2u);
  EXPECT_TRUE(env.open_keys.empty());
  EXPECT_EQ(env.Count(Call::OpenProcessToken) + env.Count(Call::RegUnLoadKeyW), 0);
}

}  // namespace
