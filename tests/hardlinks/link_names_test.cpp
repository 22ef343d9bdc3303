#include "hardlinks/link_names.h"

#include <gtest/gtest.h>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using Names = std::vector<varnel::string>;

// The file system of `files_`, with faults on top; every handle is closed at the end.
class LinkNames : public ::testing::Test {
 protected:
  LinkNames() : faults_(static_cast<platform::Env&>(files_)), scope_(faults_) {}
  ~LinkNames() override { EXPECT_EQ(files_.open_handles(), 0u); }
  bool NameOf(std::uint64_t id, varnel::string& name) {
    return GetFileNameFromId(reinterpret_cast<platform::HANDLE>(std::uintptr_t{0x40}), id, name);
  }

  test::FakeFilesEnv files_;
  test::FaultEnv faults_;
  platform::ScopedEnv scope_;
  test::TraceCapture trace_;
};

TEST_F(LinkNames, NameFromIdIsThePathOfTheFileWithThatReference) {
  // Longer than the first buffer's 260 units, and beyond 16 bits.
  const std::wstring path = L"\\Windows\\" + std::wstring(300, L'n') + L"\U0001F600\u03A9.dll";
  files_.files = {{3ull << 48 | 0x1A2B, {path, L"\\other.dll"}, 0}};
  varnel::string name(L"kept:");
  ASSERT_TRUE(NameOf(3ull << 48 | 0x1A2B, name));
  EXPECT_EQ(std::wstring(name.c_str()), L"kept:" + path);
}

// The names of a file, sorted without case, the first kept and the others through the
// skip list, are checked against fls and istat by hlinfo_mkntfs_test.sh and
// hlinfo_bitlocker_test.sh.
TEST_F(LinkNames, EveryFailureNamesItsCause) {
  const std::wstring id = L"[E]: GetFileNameFromId : ", links = L"[E]: GetHardlinkNames : ... ending(";
  const struct {
    Call call;
    platform::DWORD error;
    std::wstring line;
  } cases[] = {
      {Call::OpenFileById, 5, id + L"... ending(OpenFileById() failed - Access Denied)"},
      {Call::OpenFileById, 1920, id + L"... ending(OpenFileById() failed - Can't Access File)"},
      {Call::OpenFileById, 87, id + L"... ending(OpenFileById() failed - Invalid Parameter)"},
      {Call::OpenFileById, 120, id + L"... ending(OpenFileById() failed) : dwLastError = 120"},
      {Call::GetFileInformationByHandleEx, 6, id + L"... ending(GetFileInformationByHandleEx() failed - invalid handle)"},
      {Call::GetFileInformationByHandleEx, 87,
       id + L"... ending(GetFileInformationByHandleEx() failed - invalid parameter)"},
      {Call::GetFileInformationByHandleEx, 1, id + L"... ending(GetFileInformationByHandleEx() failed) : dwLastError = 1"},
      {Call::FindFirstFileNameW, 2, links + L"FindFirstFileName() failed - File Not Found) : dwLastError = 2"},
      {Call::FindFirstFileNameW, 3, links + L"FindFirstFileName() failed - Path Not Found) : dwLastError = 3"},
      {Call::FindFirstFileNameW, 5, links + L"FindFirstFileName() failed - Access Denied) : dwLastError = 5"},
      {Call::FindFirstFileNameW, 1, links + L"FindFirstFileName() failed) : dwLastError = 1"},
      {Call::CreateFileW, 32, links + L"CreateFile() failed) : dwLastError = 32"},
      {Call::GetFileSizeEx, 6, links + L"GetFileSizeEx() failed) : dwLastError = 6"},
      {Call::FindNextFileNameW, 5, links + L"FindNextFileName() failed) : dwLastError = 5"},
      // No fault (error 0): the third name, 4096 units, does not fit with its
      // terminator, and no larger buffer is tried.
      {Call::FindNextFileNameW, 0, links + L"FindNextFileName() failed ERROR_MORE_DATA) : dwLastError = 234"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    files_.files = {{7, {L"\\a.dll", L"\\b.dll", L"\\" + std::wstring(4095, L'x')}, 1}};
    if (c.error) faults_.FailCall(c.call, c.error);
    varnel::string name;
    Names names;
    std::uint64_t size = 0;
    EXPECT_FALSE(c.line.find(id) == 0 ? NameOf(7, name) : GetHardlinkNames(L"C:\\a.dll", L'C', L'C', names, size));
    EXPECT_TRUE(trace_.Has(c.line));
  }
  EXPECT_TRUE(trace_.Has(id + L"dwLastError = 5"));  // on a line of its own where the text has no function name
}

}  // namespace
}  // namespace koru
