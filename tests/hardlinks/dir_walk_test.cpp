#include "hardlinks/dir_walk.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/fake_files_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;

// A Windows volume as the walk sees it through D:; every search and file is closed at the end.
class DirWalk : public ::testing::Test {
 public:
  DirWalk() : faults_(static_cast<platform::Env&>(files_)), scope_(faults_) { Fill(); }
  // The volume below, no faults, nothing printed or traced yet.
  void Fill() {
    files_.variables = {{L"ProgramData", L"C:\\ProgramData"},
                        {L"ProgramFiles", L"C:\\Program Files"},
                        {L"ProgramFiles(x86)", L"C:\\Program Files (x86)"}};
    files_.files = {
        {2ull << 48 | 40, {L"\\ProgramData\\p.dat", L"\\ProgramData\\q.dat"}, 1},
        {1ull << 48 | 41, {L"\\Program Files (x86)\\x.exe", L"\\Windows\\x.exe"}, 1},
        {1ull << 48 | 44, {L"\\Users\\Bob\\AppData\\Local\\l.db", L"\\Users\\Bob\\Documents\\l.db"}, 1},
        {1ull << 48 | 46, {L"\\inetpub\\wwwroot\\i.htm", L"\\inetpub\\j.htm"}, 1},
        {1ull << 48 | 50, {L"\\Windows.old\\o.dll", L"\\other\\o.dll"}, 1},
        {1ull << 48 | 52, {L"\\Program Files\\Common\\c.dll"}, 1},
    };
    files_.fail_search.clear();
    files_.fail_open.clear();
    faults_.Clear();
    faults_.captured_stdout().str(L"");
    faults_.captured_stderr().str(L"");
    trace_.Reset();
  }
  ~DirWalk() override { EXPECT_EQ(files_.open_handles(), leaked_); }

  bool Create(HardLinkMap& map) { return HardLinkInfo::Create(10, L'D', map); }

  test::FakeFilesEnv files_;
  test::FaultEnv faults_;
  platform::ScopedEnv scope_;
  test::TraceCapture trace_;
  std::size_t leaked_ = 0;  // searches whose FindClose was made to fail
};

// The roots, the keys with their sequence number, links outside the roots and files of
// one link are checked on a real volume by hlinfo_bitlocker_test.sh, where Program
// Files (x86) is always set; without it the walk goes on and meets the file under Windows.
TEST_F(DirWalk, WithoutProgramFilesX86TheWalkGoesOn) {
  files_.variables.erase(L"ProgramFiles(x86)");
  HardLinkMap map;
  ASSERT_TRUE(Create(map));
  EXPECT_EQ(map.size(), 5u);
  EXPECT_EQ(map.at(1ull << 48 | 41), L"\\Windows\\x.exe");
  EXPECT_EQ(faults_.captured_stdout().str(), L"");
}

TEST_F(DirWalk, ProfilesRootWithoutTheSystemsAnswerFollowsTheEnvironmentKind) {
  faults_.FailCall(Call::SHGetFolderPathW, 0, 0);
  varnel::string root;
  // 0xFFFFFFFF is compared signed.
  for (const auto& [kind, expected] : {std::pair{6u, L"C:\\Users"}, {5u, L"C:\\Documents And Settings"},
                                       {0xFFFFFFFFu, L"C:\\Documents And Settings"}}) {
    GetDocumentsAndSettings(kind, root);
    EXPECT_EQ(root, expected);
  }
  EXPECT_TRUE(trace_.Has(L"[E]: GetDocumentsAndSettings : SHGetFolderPath failed"));
}

// Unopenable files are left out; the walk goes on.
TEST_F(DirWalk, FilesThatCannotBeOpenedAreLeftOut) {
  const std::wstring a = L"\\Users\\Bob\\AppData\\Local\\l.db";
  const struct {
    platform::DWORD error;
    bool encrypted;
    const wchar_t* trace;
  } cases[] = {
      {platform::kErrorSharingViolation, true, L"[W]: HardLinkInfo::GetFileId : ... ending(CreateFile failed - BUSY)"},
      {platform::kErrorAccessDenied, true,
       L"[W]: HardLinkInfo::GetFileId : Found encrypted file : sFile = \"D:\\Users\\Bob\\AppData\\Local\\l.db\""},
      {platform::kErrorAccessDenied, false,
       L"[E]: HardLinkInfo::GetFileId : ... ending(Access denied and file is not encrypted)"},
      {platform::kErrorInvalidName, true,
       L"[E]: HardLinkInfo::GetFileId : ... ending(CreateFile failed) : dwLastError = 123"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    trace_.Reset();
    files_.fail_open = {{a, c.error}};
    files_.encrypted = c.encrypted ? std::set<std::wstring>{a} : std::set<std::wstring>{};
    HardLinkMap map;
    ASSERT_TRUE(Create(map));
    EXPECT_EQ(map.size(), 4u);  // all but l.db
    EXPECT_TRUE(trace_.Has(c.trace));
  }
}

// All or nothing: each failure ends its call with its own trace line, and a root
// that fails ends the walk with its line on stdout.
TEST_F(DirWalk, EveryFailureEndsTheWalk) {
  using Fault = std::function<void(DirWalk&)>;
  using Run = std::function<bool()>;
  const auto unsearchable = [](const wchar_t* dir) -> Fault {
    return [dir](DirWalk& t) { t.files_.fail_search = {{dir, platform::kErrorAccessDenied}}; };
  };
  const auto fail = [](Call call, platform::DWORD error, int nth = 1) -> Fault {
    return [=](DirWalk& t) { t.faults_.FailCall(call, error, nth); };
  };
  const auto users = [](const wchar_t* root) -> Run {
    return [root] { std::vector<varnel::string> names; return HardLinkInfo::GetUserList(root, names); };
  };
  const auto file_id = [](const wchar_t* path) -> Run {
    return [path] { std::uint64_t id = 0; return HardLinkInfo::GetFileId(path, id) && id != 0; };
  };
  const auto recurse = [](const wchar_t* dir) -> Run {
    return [dir] { HardLinkMap map; return HardLinkInfo::RecurseHardLinks(dir, map); };
  };
  std::wstring deep = L"\\ProgramData";
  for (int i = 0; i < 1100; ++i) deep += L"\\d";
  const std::wstring create = L"[E]: HardLinkInfo::Create : ... ending( ";
  const std::wstring below = L"Failed to search for hard-links under D:\\";
  const struct {
    Fault fault;
    std::wstring stdout_text;
    std::vector<std::wstring> trace;
    Run run = nullptr;  // the whole walk
    const wchar_t* stderr_text = L"";
  } cases[] = {
      {[](DirWalk& t) { t.files_.variables.erase(L"ProgramData"); }, L"",
       {create + L"GetEnvironmentVariable(ProgramData) failed ) : dwLastError = 203"}},
      {[](DirWalk& t) { t.files_.variables.erase(L"ProgramFiles"); }, L"",
       {create + L"GetEnvironmentVariable(ProgramFiles) failed ) : dwLastError = 203"}},
      {fail(Call::GetEnvironmentVariableW, platform::kErrorNotEnoughMemory, 3), L"",
       {create + L"GetEnvironmentVariable(ProgramFiles(x86)) failed ) : dwLastError = 8"}},
      {fail(Call::GetWindowsDirectoryW, platform::kErrorInvalidFunction), L"",
       {create + L"GetWindowsDirectory failed ) : dwLastError = 1"}},
      // Access denied on a folder below a root.
      {unsearchable(L"\\Program Files\\Common"), below + L"Program Files\n",
       {L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(FindFirstFile failed) : dwLastError = 5",
        L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(RecurseHardLinks failed)",
        create + L"RecurseHardLinks(Program Files) failed )"}},
      {unsearchable(L"\\Program Files (x86)"), below + L"Program Files (x86)\n",
       {create + L"RecurseHardLinks(Program Files (x86)) failed )"}},
      {unsearchable(L"\\Windows"), below + L"Windows\n", {create + L"RecurseHardLinks(Windows) failed )"}},
      {unsearchable(L"\\Windows.old"), below + L"Windows.old\n", {create + L"RecurseHardLinks(Windows.old) failed )"}},
      {unsearchable(L"\\inetpub"), below + L"inetpub\n", {create + L"RecurseHardLinks(Inetpub) failed )"}},
      {unsearchable(L"\\Users\\Bob\\AppData\\Local"), below + L"Users\\Bob\\AppData\n",
       {create + L"RecurseHardLinks(Documents And Settings) failed )"}},
      {fail(Call::FindNextFileW, platform::kErrorFileCorrupt, 2), below + L"ProgramData\n",
       {L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(FindNextFile failed - Corrupt File/Folder)",
        create + L"RecurseHardLinks(ProgramData) failed )"},
       nullptr, L"Error: Failed scanning hard-links because of a corrupt file or folder\n"},
      {fail(Call::FindNextFileW, platform::kErrorNotReady), L"",
       {L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(FindNextFile failed) : dwLastError = 21"},
       recurse(L"D:\\ProgramData")},
      {[](DirWalk& t) { t.faults_.FailCall(Call::FindClose, platform::kErrorInvalidHandle), ++t.leaked_; },
       below + L"ProgramData\n", {L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(FindClose failed) : dwLastError = 6"}},
      {unsearchable(L"\\Users"), L"",
       {L"[E]: HardLinkInfo::GetUserList : ... ending(FindFirstFile failed) : dwLastError = 5",
        create + L"GetUserList failed )"}},
      {fail(Call::FindNextFileW, platform::kErrorNotReady), L"",
       {L"[E]: HardLinkInfo::GetUserList : ... ending(FindNextFile failed) : dwLastError = 21"}, users(L"D:\\Users")},
      {[](DirWalk& t) { t.faults_.FailCall(Call::FindClose, platform::kErrorInvalidHandle), ++t.leaked_; }, L"",
       {L"[E]: HardLinkInfo::GetUserList : ... ending(FindClose failed) : dwLastError = 6"}, users(L"D:\\Users")},
      // Access denied, and the attributes cannot be read to tell an encrypted file.
      {[](DirWalk& t) {
         t.files_.fail_open = {{L"\\ProgramData\\p.dat", platform::kErrorAccessDenied}};
         t.faults_.FailCall(Call::GetFileAttributesW, platform::kErrorNotReady);
       },
       L"", {L"[E]: HardLinkInfo::GetFileId : ... ending(GetFileAttributes failed) : dwLastError = 21"},
       file_id(L"D:\\ProgramData\\p.dat")},
      {fail(Call::GetFileInformationByHandle, platform::kErrorInvalidHandle), L"",
       {L"[E]: HardLinkInfo::GetFileId : ... ending(GetFileInformationByHandle failed) : dwLastError = 6"},
       file_id(L"D:\\ProgramData\\p.dat")},
      {nullptr, L"", {L"[V]: HardLinkInfo::GetFileId : ... ending(Invalid file parameter)"}, file_id(L"")},
      {nullptr, L"", {L"[V]: HardLinkInfo::RecurseHardLinks : ... ending(Invalid directory)"}, recurse(L"")},
      {nullptr, L"", {L"[V]: HardLinkInfo::GetUserList : ... ending(Invalid Root)"}, users(L"")},
      // A folder as deep as a volume that lists a folder inside itself makes it.
      {[&deep](DirWalk& t) { t.files_.files = {{45, {deep + L"\\f"}, 1}}; }, below + L"ProgramData\n",
       {L"[E]: HardLinkInfo::RecurseHardLinks : ... ending(folders nested too deep)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.trace.back()));
    Fill();
    if (c.fault) c.fault(*this);
    HardLinkMap map;
    EXPECT_FALSE(c.run ? c.run() : Create(map));
    EXPECT_EQ(faults_.captured_stdout().str(), c.stdout_text);
    EXPECT_EQ(faults_.captured_stderr().str(), c.stderr_text);
    for (const auto& line : c.trace) EXPECT_TRUE(trace_.Has(line)) << line;
  }
}

}  // namespace
}  // namespace koru
