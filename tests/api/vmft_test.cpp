#include "koru_mft/vmft.h"

#include <gtest/gtest.h>

#include "support/fake_system_env.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace {

using koru::test::Call;
using koru::test::FakeSystemEnv;
using koru::test::FaultEnv;
using koru::test::TempDir;
using koru::test::TraceCapture;

constexpr const wchar_t* kUsQuery = L"\\StringFileInfo\\040904B0\\FileVersion";
constexpr const wchar_t* kUkQuery = L"\\StringFileInfo\\080904B0\\FileVersion";

// The description's form is checked on `vmft version` by the foundation integration test.
TEST(VmftModuleProperty, UnknownCategoriesReturnOneAndLeaveTheText) {
  for (int category : {0, 3}) {
    varnel::string text(L"as it was");
    EXPECT_EQ(VMFT::GetModuleProperty(static_cast<VMFT::GMP_CAT>(category), text), 1u);
    EXPECT_STREQ(text.c_str(), L"as it was");
  }
}

// A program in a temporary directory whose kor.ini sends "Log Files" to Logs/.
class VmftVersion : public ::testing::Test {
 protected:
  VmftVersion() : faults_(static_cast<platform::Env&>(fake_)), scoped_(faults_) {
    fake_.exe_path = dir_.win("vmft");
    fake_.version_strings[kUsQuery] = L"1.2.3.4";
    fake_.version_strings[kUkQuery] = L"1.2.3.4-uk";
    const std::wstring logs = dir_.win("Logs");
    dir_.Write("kor.ini", "[File Locations]\r\nLog Files=" + std::string(logs.begin(), logs.end()) + "\r\n");
    std::filesystem::create_directories(dir_ / "Logs");
  }
  std::wstring Version() {
    varnel::string text(L"untouched");
    EXPECT_EQ(VMFT::GetModuleProperty(VMFT::GMP_CAT_VERSION, text), 0u);
    return text.c_str();
  }

  TempDir dir_;
  FakeSystemEnv fake_;
  FaultEnv faults_;
  platform::ScopedEnv scoped_;
  TraceCapture trace_;
};

TEST_F(VmftVersion, ReadsTheFileVersionOfTheLibraryOrElseTheProgramAndRecordsItBesideOtherModules) {
  dir_.Write("Logs/Version.log", "[OTHER.DLL]\r\nVersion=7\r\n[KORU_MFT.DLL]\r\nVersion=0.9\r\n");
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_EQ(fake_.version_queries, (std::vector<std::wstring>{L"\\VarFileInfo\\Translation", kUsQuery}));
  EXPECT_EQ(dir_.Read("Logs/Version.log"), "[OTHER.DLL]\r\nVersion=7\r\n[KORU_MFT.DLL]\r\nVersion=1.2.3.4\r\n");
  faults_.FailCall(Call::GetModuleHandleW, 126);  // KORU_MFT.DLL's: a static build
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_TRUE(trace_.Has(L"[I]: VMFT::GetResourceVersionStr : No module handle, running as static lib?"));
}

TEST_F(VmftVersion, WithoutATranslationTable0809And04B0AreUsed) {
  faults_.FailCall(Call::VerQueryValueW, platform::kErrorResourceTypeNotFound);
  EXPECT_EQ(Version(), L"1.2.3.4-uk");
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::GetResourceVersionStr : VerQueryValue failed : dwLastError = 1813"));
  EXPECT_EQ(fake_.version_queries, (std::vector<std::wstring>{kUkQuery}));
}

TEST_F(VmftVersion, EveryFailureLeavesErrorAndSaysWhy) {
  const struct {
    Call call;
    int nth;
    const wchar_t* line;
  } cases[] = {
      {Call::GetModuleHandleW, 0, L"[V]: VMFT::GetResourceVersionStr : ... ending( null module )"},
      {Call::GetModuleFileNameW, 1, L"[E]: VMFT::GetResourceVersionStr : ... ending( GetModuleFileNameW failed ) : dwLastError = 5"},
      {Call::GetFileVersionInfoSizeW, 1,
       L"[E]: VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfoSize failed ) : dwLastError = 5"},
      {Call::GetFileVersionInfoW, 1,
       L"[E]: VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfo failed ) : dwLastError = 5"},
      {Call::VerQueryValueW, 2, L"[E]: VMFT::GetResourceVersionStr : VerQueryValue failed : dwLastError = 5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.line);
    trace_.Reset();
    faults_.Clear();
    faults_.FailCall(c.call, platform::kErrorAccessDenied, c.nth);
    EXPECT_EQ(Version(), L"Error");
    EXPECT_TRUE(trace_.Has(c.line));
    // An early ending is the only ending; a failed value query ends normally.
    EXPECT_EQ(trace_.Has(L"[V]: VMFT::GetResourceVersionStr : ... ending"), c.call == Call::VerQueryValueW);
  }
  EXPECT_FALSE(dir_.Exists("Logs/Version.log"));
}

TEST_F(VmftVersion, NoLogDirectoryMeansNoVersionLog) {
  faults_.FailCall(Call::GetModuleFileNameW, platform::kErrorAccessDenied, 2);  // GetOwnDir's
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_FALSE(dir_.Exists("Logs/Version.log"));
}

}  // namespace
