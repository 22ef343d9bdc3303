#include "hardlinks/skip_list.h"

#include <gtest/gtest.h>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

// Case, $Recycle.Bin and the walk's own list (with its case) are checked on real
// volumes by hlinfo_mkntfs_test.sh and hlinfo_bitlocker_test.sh.
TEST(SkipLists, LinkNamesInTheListOrGoneAreSkipped) {
  test::FakeFilesEnv files;
  files.files = {{1, {L"\\WindowsTemp\\x"}, 0}};
  platform::ScopedEnv scope(files);
  const std::wstring listed = L"Path in skip list", missing = L"Path not found";
  const struct {
    const wchar_t* path;
    std::wstring why;  // empty: kept
  } cases[] = {
      {L"C:\\WindowsTemp\\x", L""},
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
}

}  // namespace
}  // namespace koru
