#include "support/system_environment.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <tuple>

#include "support/fake_system_env.h"
#include "support/temp_dir.h"

namespace {

using koru::test::FakeSystemEnv;
using koru::test::TempDir;
using platform::DWORD;

constexpr const wchar_t* kCurrentVersion = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr const wchar_t* kPe10 = L"Windows (TM) 10 Preinstallation Environment";

std::unique_ptr<varnel::SystemEnvironment> Compute(platform::Env& env) {
  auto record = std::make_unique<varnel::SystemEnvironment>();
  record->Compute(env);
  return record;
}

struct Row {
  const char* what;
  DWORD major, minor;
  std::uint8_t product_type;  // 1 workstation, 2 domain controller, 3 server
  const wchar_t* build;       // "CurrentBuild", or none
  bool winpe;
  const wchar_t* product_name;
  DWORD kind;
};
std::ostream& operator<<(std::ostream& os, const Row& row) { return os << row.what; }

// The build boundaries of the 6.3 correction and of the kinds, and the WinPE names;
// the plain version-to-kind rows are left to the code.
const Row kRows[] = {
    {"workstation 6.3 below 10000 stays", 6, 3, 1, L"9999", false, nullptr, 12},
    {"workstation 10000 is 10.0", 6, 3, 1, L"10000", false, nullptr, 14},
    {"workstation 22000 is 11.0", 6, 3, 1, L"22000", false, nullptr, 18},
    {"server 6.3 below 9800 stays", 6, 3, 3, L"9799", false, nullptr, 13},
    {"server 9800 is 10.0", 6, 3, 3, L"9800", false, nullptr, 15},
    {"server 10.0 from 17623", 10, 0, 3, L"17623", false, nullptr, 16},
    {"server 19503 is still 10.0", 6, 3, 3, L"19503", false, nullptr, 16},
    {"server 19504 is 11.0", 6, 3, 3, L"19504", false, nullptr, 17},
    {"server 11 below 26100", 11, 0, 3, L"26099", false, nullptr, 17},
    {"Server 2025", 6, 3, 3, L"26100", false, nullptr, 19},
    {"domain controller counts as a server", 6, 1, 2, nullptr, false, nullptr, 8},
    {"WinPE 6.3", 6, 3, 1, L"9600", true, L"Windows (TM) 8.1 Preinstallation Environment", 24},
    {"WinPE 10 reporting 6.3", 6, 3, 1, L"19041", true, kPe10, 25},
    {"WinPE 11 reporting 6.3", 6, 3, 1, L"22621", true, kPe10, 26},
};

class EnvironmentKind : public ::testing::TestWithParam<Row> {};

TEST_P(EnvironmentKind, Classifies) {
  const Row& row = GetParam();
  TempDir dir;
  FakeSystemEnv env;
  env.SetVersion(row.major, row.minor, row.product_type);
  env.AddKey(kCurrentVersion);
  if (row.build) env.SetString(kCurrentVersion, L"CurrentBuild", row.build);
  if (row.product_name) env.SetString(kCurrentVersion, L"ProductName", row.product_name);
  if (row.winpe) dir.Write("prodspec.ini", "[Product Specification]\r\nProduct=WindowsPE\r\n");
  env.system_dir = dir.win();
  const auto record = Compute(env);
  EXPECT_EQ(record->m_dwEnvironment, row.kind);
  EXPECT_EQ(record->m_bWinPE, row.winpe);
  EXPECT_EQ(record->m_bWorkstation, row.winpe || row.product_type == 1);
  EXPECT_EQ(record->m_bDomainController, row.product_type == 2);
  EXPECT_TRUE(env.open_keys.empty());
}

INSTANTIATE_TEST_SUITE_P(Boundaries, EnvironmentKind, ::testing::ValuesIn(kRows));

TEST(SystemEnvironment, TheCorrectionRewritesTheVersionAndKeepsTheRest) {
  FakeSystemEnv env;
  env.SetVersion(6, 3, 3);
  env.SetString(kCurrentVersion, L"CurrentBuild", L"20348");
  env.SetString(kCurrentVersion, L"CSDVersion", L"none");
  env.SetString(kCurrentVersion, L"CurrentVersion", L"6.3");
  const auto record = Compute(env);
  EXPECT_EQ(std::make_tuple(record->m_dwMajor, record->m_dwMinor, record->m_dwBuild), std::make_tuple(11u, 0u, 20348u));
  EXPECT_STREQ(record->m_sCSDVersion.c_str(), L"none");
  EXPECT_STREQ(record->m_sCurrentVersion.c_str(), L"6.3");
}

TEST(SystemEnvironment, ServerCoreDomainControllerAndSixtyFourBit) {
  for (const auto& [product, core] : {std::pair{12u, true}, {101u, true}, {7u, false}, {102u, false}}) {
    FakeSystemEnv env;
    env.SetVersion(6, 3, 3);
    env.product_info = product;
    EXPECT_EQ(Compute(env)->m_bServerCore, core) << product;
  }
  FakeSystemEnv env;
  env.SetVersion(6, 1, 3);
  env.SetString(kCurrentVersion, L"InstallationType", L"Server Core");
  env.SetString(L"SYSTEM\\CurrentControlSet\\Services\\NTDS\\Parameters", L"Root Domain", L"DC=corp,DC=example");
  auto record = Compute(env);
  EXPECT_TRUE(record->m_bServerCore);
  EXPECT_FALSE(record->m_bHaveProductInfo);  // not exported: skipped
  EXPECT_TRUE(record->m_bDomainController);
  EXPECT_EQ(record->m_dwEnvironment, 8u);
  EXPECT_FALSE(record->m_b64Bit);
  env.wow64 = true;
  EXPECT_TRUE(Compute(env)->m_b64Bit);
}

TEST(SystemEnvironment, ProdspecDecidesWinPE) {
  TempDir dir;
  FakeSystemEnv env;
  env.SetVersion(6, 1, 3);
  env.system_dir = dir.win();
  EXPECT_FALSE(Compute(env)->m_bWinPE);  // no prodspec.ini at all
  dir.Write("prodspec.ini", "[product specification]\r\nproduct = windowspe\r\n");
  auto record = Compute(env);
  EXPECT_TRUE(record->m_bWinPE);
  EXPECT_TRUE(record->m_bWorkstation);  // forced
  EXPECT_EQ(record->m_dwEnvironment, 22u);
  dir.Write("prodspec.ini", "[Product Specification]\r\nProduct=Windows Server\r\n");
  record = Compute(env);
  EXPECT_FALSE(record->m_bWinPE);
  EXPECT_STREQ(record->m_sProduct.c_str(), L"Windows Server");
}

// Registry numbers are their leading digits, capped at 32 bits.
TEST(SystemEnvironment, RegistryTextsStandInForTheVersionQueryAndABuildMayBeNoNumber) {
  FakeSystemEnv env;  // GetVersionExW fails
  EXPECT_EQ(Compute(env)->m_dwEnvironment, 1u);
  env.SetString(kCurrentVersion, L"CurrentVersion", L"6.1");
  auto record = Compute(env);
  EXPECT_EQ(std::make_tuple(record->m_dwMajor, record->m_dwMinor, record->m_dwEnvironment),
            std::make_tuple(6u, 1u, 8u));  // no product type: not a workstation
  env.SetVersion(6, 3, 1);
  env.SetString(kCurrentVersion, L"CurrentBuild", L"abc");
  record = Compute(env);
  EXPECT_EQ(record->m_dwBuild, 0u);
  EXPECT_EQ(record->m_dwEnvironment, 12u);
  env.SetString(kCurrentVersion, L"CurrentBuild", L"99999999999999");
  EXPECT_EQ(Compute(env)->m_dwEnvironment, 18u);
}

}  // namespace
