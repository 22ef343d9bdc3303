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
  // The host name as the system gives it is checked on Linux by the hlinfo integration
  // tests' banner; here there is none, so the file's bytes are the same on every host.
  InfoFile() : faults_(static_cast<platform::Env&>(files_)), scope_(faults_) {
    faults_.FailCall(Call::GetNetworkParams, 50, 0);
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

const std::string kHead = "; Varnel generated file - do not edit\r\n; Generated on 05 Nov 2026 at 09:07:03\r\n\r\n";

// Sections, their order, names, keys and totals are checked against fls and istat by
// the hlinfo integration tests (Latin-1 names, keys with their sequence number, a file
// whose other names are skipped); what is left is what they cannot make.
TEST_F(InfoFile, WhatTheSystemCannotSayOrTheFileCannotHoldIsLeftOut) {
  const std::string totals = "[Totals]\r\nSections=0\r\nBytes=0\r\n";
  const struct {
    const char* what;
    std::function<void(test::FaultEnv&)> setup;
    std::string file;
    HardLinkMap map = {};
  } cases[] = {
      {"nothing to list", nullptr, kHead + totals},
      {"a file that is gone", nullptr, kHead + totals, {{6, L"\\gone.txt"}}},
      {"no local time", [](test::FaultEnv& faults) { faults.FailCall(Call::LocalTime64, 22); },
       "; Varnel generated file - do not edit\r\n" + totals},
      {"a file that cannot be opened",
       [](test::FaultEnv& faults) { faults.FailCall(Call::CreateFileW, platform::kErrorAccessDenied); },
       "(none)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.setup) c.setup(faults_);
    EXPECT_EQ(Write(c.map, c.file != "(none)"), c.file);
  }
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::WriteHLInfo : localtime_s() failed : dwLastError = 22"));
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::WriteHLInfo : ... ending(Failed to open HLInfo file)"));
}

}  // namespace
}  // namespace koru
