#include "hardlinks/skip_list.h"

#include <gtest/gtest.h>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

TEST(SkipLists, LinkNamesMatchWithoutCaseTheWalkWithCase) {
  test::FakeFilesEnv files;
  files.files = {{1, {L"\\WindowsTemp\\x", L"\\Windows\\Temp\\x.tmp"}, 0}};
  platform::ScopedEnv scope(files);
  const std::wstring listed = L"Path in skip list", missing = L"Path not found";
  const struct {
    const wchar_t* path;
    std::wstring why;  // empty: kept
  } cases[] = {
      {L"C:\\WindowsTemp\\x", L""},
      {L"C:\\WINDOWS\\Temp\\x.tmp", listed},
      {L"C:\\$Recycle.Bin\\S-1-5-21\\x", listed},
      // An entry without a closing backslash takes longer names too.
      {L"C:\\ProgramData\\Microsoft\\Windows Defender\\Scans\\History.log", listed},
      {L"C:\\gone.dll", missing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    test::TraceCapture trace;
    EXPECT_EQ(ShouldSkip(c.path), !c.why.empty());
    EXPECT_TRUE(c.why.empty() ||
                trace.Has(L"[V]: ShouldSkip : " + c.why + L" ... skipping : sPath = \"" + c.path + L"\""));
  }
  EXPECT_TRUE(InWalkSkipList(L"C:\\Users\\u\\Temporary Internet Files\\Content"));
  EXPECT_FALSE(InWalkSkipList(L"C:\\Users\\u\\temporary internet files\\Content"));
}

}  // namespace
}  // namespace koru
