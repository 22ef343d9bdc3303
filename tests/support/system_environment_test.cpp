// The library reads one thing of the system record: whether the kind is 20 (WinPE
// 5.2), which sends the trace to Z:\KORU. So the tests follow what leads there.
#include "support/system_environment.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>

#include "support/fake_system_env.h"
#include "support/temp_dir.h"

namespace {

using koru::test::FakeSystemEnv;
using koru::test::TempDir;
using platform::DWORD;

constexpr const wchar_t* kCurrentVersion = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

// A system of the given version whose prodspec.ini names `product`, if any.
class SystemEnvironment : public ::testing::Test {
 protected:
  SystemEnvironment() { env_.system_dir = dir_.win(); }
  std::unique_ptr<varnel::SystemEnvironment> Kind(const char* product) {
    if (product) dir_.Write("prodspec.ini", std::string("[Product Specification]\r\nProduct=") + product + "\r\n");
    auto record = std::make_unique<varnel::SystemEnvironment>();
    record->Compute(env_);  // that it closes every key: registry_test
    return record;
  }
  TempDir dir_;
  FakeSystemEnv env_;
};

TEST_F(SystemEnvironment, OnlyWinPEOnVersionFivePointTwoIsKindTwenty) {
  const std::tuple<DWORD, DWORD, std::uint8_t, const char*, DWORD> rows[] = {
      {5, 2, 3, nullptr, 5},      {5, 2, 1, "WindowsPE", 20}, {5, 2, 3, "windowspe", 20},  // WinPE is a workstation
      {5, 2, 1, "Windows XP", 4}, {6, 0, 1, "WindowsPE", 21},
  };
  for (const auto& [major, minor, product_type, product, kind] : rows) {
    env_.SetVersion(major, minor, product_type);
    const auto record = Kind(product);
    EXPECT_EQ(record->m_dwEnvironment, kind) << major << "." << minor << " " << (product ? product : "none");
    EXPECT_EQ(record->m_bWorkstation, kind == 20 || kind == 21 || product_type == 1);
  }
}

TEST_F(SystemEnvironment, WithoutTheVersionQueryTheRegistryVersionIsUsed) {
  EXPECT_EQ(Kind(nullptr)->m_dwEnvironment, 1u);  // neither: unknown
  env_.SetString(kCurrentVersion, L"CurrentVersion", L"5.2");
  EXPECT_EQ(Kind("WindowsPE")->m_dwEnvironment, 20u);  // WinPE on 5.2 only
}

}  // namespace
