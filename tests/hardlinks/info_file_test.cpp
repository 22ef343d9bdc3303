// The info file's bytes, from a table of files: the same test runs on Linux and,
// under Wine, on Windows, so both write the same bytes for the same map.
#include "hardlinks/info_file.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/fake_files_env.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;

class InfoFile : public ::testing::Test {
 protected:
  InfoFile() : faults_(static_cast<platform::Env&>(files_)), scope_(faults_) {
    files_.host = "BUILD01";
    std::tm t{};
    t.tm_year = 2026 - 1900, t.tm_mon = 10, t.tm_mday = 5, t.tm_hour = 9, t.tm_min = 7, t.tm_sec = 3;
    files_.local_time = t;
  }
  // Writes the file for `map` (names asked for through V:, written under C:) and reads it back.
  std::string Write(const HardLinkMap& map, bool expected = true) {
    std::filesystem::remove(dir_ / "hl.ini");
    EXPECT_EQ(WriteHardLinkInfo(dir_.win("hl.ini").c_str(), L'C', L'V', map), expected);
    EXPECT_EQ(files_.open_handles(), 0u);
    return dir_.Exists("hl.ini") ? dir_.Read("hl.ini") : "(none)";
  }

  test::FakeFilesEnv files_;
  test::FaultEnv faults_;
  platform::ScopedEnv scope_;
  test::TempDir dir_;
  test::TraceCapture trace_;
};

const std::string kHead = "; Varnel generated file for (BUILD01) - do not edit\r\n; Generated on 05 Nov 2026 at 09:07:03\r\n\r\n";

TEST_F(InfoFile, KeysKeepTheirSequenceNumberAndFilesOfOneNameOrNoneAreLeftOut) {
  // Sections, their order, names and totals are checked against fls and istat by the
  // hlinfo integration tests: what is left is a key with its sequence number, a file of
  // one name and one that is gone.
  files_.files = {{3, {L"\\caf\u00e9\\r\u00e9sum\u00e9.txt", L"\\b.txt"}, 5},
                  {4, {L"\\one.txt", L"\\Windows\\Temp\\two.txt"}, 9}};  // its other name is skipped
  EXPECT_EQ(Write({{0xFFFF000000000001, L"\\b.txt"}, {5, L"\\one.txt"}, {6, L"\\gone.txt"}}),
            kHead + "[ffff000000000001]\r\nFile0=C:\\b.txt\r\nFile1=C:\\caf\xe9\\r\xe9sum\xe9.txt\r\nCount=2\r\n"
                    "Size=5\r\n[Totals]\r\nSections=1\r\nBytes=5\r\n");
}

TEST_F(InfoFile, WhatTheSystemCannotSayOrTheFileCannotHoldIsLeftOut) {
  const std::string totals = "[Totals]\r\nSections=0\r\nBytes=0\r\n";
  const struct {
    const char* what;
    std::function<void(test::FaultEnv&)> setup;
    std::string file;
  } cases[] = {
      {"nothing to list", nullptr, kHead + totals},
      {"no host name, no local time",
       [](test::FaultEnv& faults) { faults.FailCall(Call::GetNetworkParams, 50), faults.FailCall(Call::LocalTime64, 22); },
       "; Varnel generated file - do not edit\r\n" + totals},
      {"a file that cannot be opened",
       [](test::FaultEnv& faults) { faults.FailCall(Call::CreateFileW, platform::kErrorAccessDenied); },
       "(none)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.setup) c.setup(faults_);
    EXPECT_EQ(Write({}, c.file != "(none)"), c.file);
  }
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::WriteHLInfo : localtime_s() failed : dwLastError = 22"));
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::WriteHLInfo : ... ending(Failed to open HLInfo file)"));
}

}  // namespace
}  // namespace koru
