#include "hardlinks/skip_list.h"

#include <gtest/gtest.h>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

TEST(ShouldSkip, ListedPlacesMatchWithoutCaseAndMissingNamesAreSkippedToo) {
  test::FakeFilesEnv files;
  files.files = {{1, {L"\\WindowsTemp\\x", L"\\Windows\\System32\\kept.dll", L"\\gone.dll"}, 0}};
  files.gone = {L"\\gone.dll"};
  platform::ScopedEnv scope(files);
  const std::wstring listed = L"ShouldSkip : Path in skip list ... skipping", missing = L"ShouldSkip : Path not found ... skipping";
  const struct {
    const wchar_t* path;
    std::wstring why;  // empty: kept
  } cases[] = {
      {L"C:\\WindowsTemp\\x", L""},
      {L"C:\\Windows\\System32\\kept.dll", L""},
      {L"C:\\WINDOWS\\Temp\\x.tmp", listed},
      {L"C:\\$Recycle.Bin\\S-1-5-21\\x", listed},
      {L"C:\\Users\\u\\AppData\\Local\\Temp\\a.tmp", listed},
      {L"C:\\System Volume Information\\tracking.log", listed},
      // Two entries end without a backslash and take longer names too.
      {L"C:\\ProgramData\\Microsoft\\Windows Defender\\Scans\\History.log", listed},
      {L"C:\\Program Files\\Koru\\Logfiles\\VMFT_trace.log.old", listed},
      {L"C:\\gone.dll", missing},
      {L"C:\\never.dll", missing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    test::TraceCapture trace;
    EXPECT_EQ(ShouldSkip(c.path), !c.why.empty());
    EXPECT_TRUE(c.why.empty() || trace.Has(L"[V]: " + c.why + L" : sPath = \"" + c.path + L"\""));
  }
}

TEST(InWalkSkipList, MatchesWithCase) {
  EXPECT_TRUE(InWalkSkipList(L"C:\\Users\\u\\AppData\\Local\\Temporary Internet Files\\Content"));
  EXPECT_TRUE(InWalkSkipList(L"C:\\ProgramData\\Microsoft\\Crypto\\RSA\\MachineKeys\\"));
  EXPECT_FALSE(InWalkSkipList(L"C:\\Users\\u\\temporary internet files\\Content"));
}

}  // namespace
}  // namespace koru
