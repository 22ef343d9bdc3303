// The directory walk's failure branches that dir_walk_test.cpp leaves out: each
// fails its call with its own trace text (and line for the operator).
#include <gtest/gtest.h>

#include <functional>

#include "hardlinks/dir_walk.h"
#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;

struct Walk {
  Walk() : faults(static_cast<platform::Env&>(files)), scope(faults) {
    files.variables = {{L"ProgramData", L"C:\\ProgramData"},
                       {L"ProgramFiles", L"C:\\Program Files"},
                       {L"ProgramFiles(x86)", L"C:\\Program Files (x86)"}};
    files.files = {{1ull << 48 | 40, {L"\\ProgramData\\a.dll", L"\\Windows\\a.dll"}, 1},
                   {41, {L"\\Program Files (x86)\\x.dll"}, 1},
                   {42, {L"\\Windows.old\\o.dll"}, 1},
                   {43, {L"\\inetpub\\i.htm"}, 1},
                   {44, {L"\\Users\\Bob\\AppData\\b.db"}, 1}};
    files.folders = {L"\\Program Files"};
  }
  bool Create() {
    HardLinkMap map;
    return HardLinkInfo::Create(10, L'D', map);
  }
  bool Users() {
    std::vector<varnel::string> users;
    return HardLinkInfo::GetUserList(L"D:\\Users", users);
  }
  bool Recurse(const wchar_t* dir) {
    HardLinkMap map;
    return HardLinkInfo::RecurseHardLinks(dir, map);
  }
  bool FileId(const wchar_t* path) {
    std::uint64_t id = 0;
    return HardLinkInfo::GetFileId(path, id) && id != 0;
  }
  test::FakeFilesEnv files;
  test::FaultEnv faults;
  platform::ScopedEnv scope;
  test::TraceCapture trace;
};

TEST(DirWalkFaults, EachFailureTracesItsCause) {
  const std::wstring create = L"[E]: HardLinkInfo::Create : ... ending( ", id = L"[E]: HardLinkInfo::GetFileId : ... ending(",
                     recurse = L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(";
  const auto unsearchable = [](const wchar_t* root) {
    return [root](Walk& w) { return w.files.fail_search = {{root, platform::kErrorAccessDenied}}, w.Create(); };
  };
  const std::wstring deep = L"\\ProgramData" + [] {
    std::wstring levels;
    for (int i = 0; i < 1100; ++i) levels += L"\\d";
    return levels;
  }() + L"\\f";
  const struct {
    std::function<bool(Walk&)> run;
    std::wstring trace, stdout_text = L"";
  } cases[] = {
      {[](Walk& w) { return w.files.variables.erase(L"ProgramFiles"), w.Create(); },
       create + L"GetEnvironmentVariable(ProgramFiles) failed ) : dwLastError = 203"},
      {unsearchable(L"\\Program Files (x86)"), create + L"RecurseHardLinks(Program Files (x86)) failed )",
       L"Failed to search for hard-links under D:\\Program Files (x86)\n"},
      {unsearchable(L"\\Windows"), create + L"RecurseHardLinks(Windows) failed )",
       L"Failed to search for hard-links under D:\\Windows\n"},
      {unsearchable(L"\\Windows.old"), create + L"RecurseHardLinks(Windows.old) failed )",
       L"Failed to search for hard-links under D:\\Windows.old\n"},
      {unsearchable(L"\\inetpub"), create + L"RecurseHardLinks(Inetpub) failed )",
       L"Failed to search for hard-links under D:\\inetpub\n"},
      {[](Walk& w) { return w.faults.FailCall(Call::FindNextFileW, platform::kErrorNotReady), w.Users(); },
       L"[E]: HardLinkInfo::GetUserList : ... ending(FindNextFile failed) : dwLastError = 21"},
      {[](Walk& w) { return w.faults.FailCall(Call::FindClose, platform::kErrorInvalidHandle), w.Users(); },
       L"[E]: HardLinkInfo::GetUserList : ... ending(FindClose failed) : dwLastError = 6"},
      {[](Walk& w) { return w.faults.FailCall(Call::FindNextFileW, platform::kErrorNotReady), w.Recurse(L"D:\\ProgramData"); },
       recurse + L"FindNextFile failed) : dwLastError = 21"},
      // Access denied, and the attributes cannot be read to tell an encrypted file.
      {[](Walk& w) {
         w.files.fail_open = {{L"\\ProgramData\\a.dll", platform::kErrorAccessDenied}};
         w.faults.FailCall(Call::GetFileAttributesW, platform::kErrorNotReady);
         return w.FileId(L"D:\\ProgramData\\a.dll");
       },
       id + L"GetFileAttributes failed) : dwLastError = 21"},
      {[](Walk& w) { return w.faults.FailCall(Call::GetFileInformationByHandle, 6), w.FileId(L"D:\\ProgramData\\a.dll"); },
       id + L"GetFileInformationByHandle failed) : dwLastError = 6"},
      {[](Walk& w) { return w.FileId(L""); }, L"[V]: HardLinkInfo::GetFileId : ... ending(Invalid file parameter)"},
      {[](Walk& w) { return w.Recurse(L""); },
       L"[V]: HardLinkInfo::RecurseHardLinks : ... ending(Invalid directory)"},
      {[](Walk&) {
         std::vector<varnel::string> users;
         return HardLinkInfo::GetUserList(L"", users);
       },
       L"[V]: HardLinkInfo::GetUserList : ... ending(Invalid Root)"},
      // A folder as deep as a volume that lists a folder inside itself makes it.
      {[&deep](Walk& w) { return w.files.files = {{45, {deep}, 1}}, w.Create(); },
       recurse + L"folders nested too deep)", L"Failed to search for hard-links under D:\\ProgramData\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    Walk w;
    EXPECT_FALSE(c.run(w));
    EXPECT_TRUE(w.trace.Has(c.trace));
    EXPECT_EQ(w.faults.captured_stdout().str(), c.stdout_text);
    EXPECT_EQ(w.faults.captured_stderr().str(), L"");
  }
}

}  // namespace
}  // namespace koru
