#include "hardlinks/link_names.h"

#include <gtest/gtest.h>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using platform::DWORD;
using test::Call;
using Names = std::vector<varnel::string>;

// The file system of `files_`, with faults on top.
class LinkNames : public ::testing::Test {
 protected:
  LinkNames() : faults_(static_cast<platform::Env&>(files_)), scope_(faults_) {}
  ~LinkNames() override { EXPECT_EQ(files_.open_handles(), 0u); }
  bool Has(const std::wstring& line) const { return trace_.Has(line); }

  const platform::HANDLE hint_ = reinterpret_cast<platform::HANDLE>(std::uintptr_t{0x40});
  test::FakeFilesEnv files_;
  test::FaultEnv faults_;
  platform::ScopedEnv scope_;
  test::TraceCapture trace_;
};

TEST_F(LinkNames, NameFromIdIsThePathOfTheFileWithThatReference) {
  // Longer than the first buffer's 260 units, and beyond the 16-bit range.
  const std::wstring path = L"\\Windows\\" + std::wstring(300, L'n') + L"\U0001F600\u03A9.dll";
  const std::uint64_t id = 3ull << 48 | 0x1A2B;
  files_.files = {{id, {path, L"\\other.dll"}, 0}};
  varnel::string name(L"kept:");
  ASSERT_TRUE(GetFileNameFromId(hint_, id, name));
  EXPECT_EQ(std::wstring(name.c_str()), L"kept:" + path);
  // A reference whose sequence number no longer matches is no file.
  EXPECT_FALSE(GetFileNameFromId(hint_, 4ull << 48 | 0x1A2B, name));
  EXPECT_TRUE(Has(L"[V]: GetFileNameFromId : FileRef.SequenceNum = 4"));
  EXPECT_TRUE(Has(L"[E]: GetFileNameFromId : ... ending(OpenFileById() failed - Invalid Parameter)"));
}

TEST_F(LinkNames, NameFromIdFailuresNameTheirCause) {
  files_.files = {{7, {L"\\a.dll"}, 0}};
  const std::wstring fn = L"[E]: GetFileNameFromId : ";
  const struct {
    Call call;
    DWORD error;
    std::vector<std::wstring> lines;
  } cases[] = {
      {Call::OpenFileById, 5, {fn + L"dwLastError = 5", fn + L"... ending(OpenFileById() failed - Access Denied)"}},
      {Call::OpenFileById, 1920, {fn + L"... ending(OpenFileById() failed - Can't Access File)"}},
      {Call::OpenFileById, 120, {fn + L"... ending(OpenFileById() failed) : dwLastError = 120"}},
      {Call::GetFileInformationByHandleEx, 6,
       {fn + L"dwLastError = 6", fn + L"... ending(GetFileInformationByHandleEx() failed - invalid handle)"}},
      {Call::GetFileInformationByHandleEx, 87,
       {fn + L"... ending(GetFileInformationByHandleEx() failed - invalid parameter)"}},
      {Call::GetFileInformationByHandleEx, 1,
       {fn + L"... ending(GetFileInformationByHandleEx() failed) : dwLastError = 1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lines.back());
    faults_.FailCall(c.call, c.error);
    varnel::string name;
    EXPECT_FALSE(GetFileNameFromId(hint_, 7, name));
    for (const auto& line : c.lines) EXPECT_TRUE(Has(line)) << testing::Message() << line;
  }
}

TEST_F(LinkNames, AllNamesSortedWithoutCaseTheFirstKeptTheOthersThroughTheSkipList) {
  // As the system lists them: the first lies in a skipped place, one more does, one is gone.
  files_.files = {{9,
                   {L"\\Windows\\Temp\\first.dll", L"\\b\\Zeta.dll", L"\\A\\alpha.dll", L"\\$Recycle.Bin\\x.dll",
                    L"\\B\\beta.dll", L"\\a\\Beta.dll"},
                   824}};
  files_.gone = {L"\\B\\beta.dll"};
  Names names;
  std::uint64_t size = 0;
  ASSERT_TRUE(GetHardlinkNames(L"V:\\b\\Zeta.dll", L'C', L'V', names, size));
  EXPECT_EQ(names, (Names{L"C:\\A\\alpha.dll", L"C:\\a\\Beta.dll", L"C:\\b\\Zeta.dll", L"C:\\Windows\\Temp\\first.dll"}));
  EXPECT_EQ(size, 824u);
  // A path in a skipped place gives nothing, and no failure.
  names.clear();
  EXPECT_TRUE(GetHardlinkNames(L"V:\\Windows\\Temp\\first.dll", L'C', L'V', names, size));
  EXPECT_TRUE(names.empty());
  EXPECT_TRUE(Has(L"[V]: GetHardlinkNames : ... ending(skipping)"));
}

TEST_F(LinkNames, ListingFailuresNameTheirCause) {
  const std::wstring fn = L"[E]: GetHardlinkNames : ... ending(";
  const auto fail = [this](Call call, DWORD error) { return [=, this] { faults_.FailCall(call, error); }; };
  const struct {
    std::function<void()> inject;
    std::wstring line;
  } cases[] = {
      {fail(Call::FindFirstFileNameW, 2), fn + L"FindFirstFileName() failed - File Not Found) : dwLastError = 2"},
      {fail(Call::FindFirstFileNameW, 3), fn + L"FindFirstFileName() failed - Path Not Found) : dwLastError = 3"},
      {fail(Call::FindFirstFileNameW, 5), fn + L"FindFirstFileName() failed - Access Denied) : dwLastError = 5"},
      {fail(Call::FindFirstFileNameW, 1), fn + L"FindFirstFileName() failed) : dwLastError = 1"},
      {fail(Call::CreateFileW, 32), fn + L"CreateFile() failed) : dwLastError = 32"},
      {fail(Call::GetFileSizeEx, 6), fn + L"GetFileSizeEx() failed) : dwLastError = 6"},
      {fail(Call::FindNextFileNameW, 5), fn + L"FindNextFileName() failed) : dwLastError = 5"},
      // A name of 4096 units does not fit with its terminator; no larger buffer is tried.
      {[this] { files_.files[0].names.push_back(L"\\" + std::wstring(4095, L'x')); },
       fn + L"FindNextFileName() failed ERROR_MORE_DATA) : dwLastError = 234"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    files_.files = {{9, {L"\\a.dll", L"\\b.dll"}, 1}};
    c.inject();
    Names names;
    std::uint64_t size = 0;
    EXPECT_FALSE(GetHardlinkNames(L"C:\\a.dll", L'C', L'C', names, size));
    EXPECT_TRUE(Has(c.line));
  }
}

}  // namespace
}  // namespace koru
