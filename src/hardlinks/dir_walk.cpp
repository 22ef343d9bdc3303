#include "hardlinks/dir_walk.h"

#include <cwchar>
#include <cwctype>
#include <memory>
#include <ostream>

#include "hardlinks/skip_list.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using platform::Env;
using platform::ScopedFind;
using varnel::FnTrace;

namespace {

// A corrupt volume can list a folder inside itself; deeper than this no Windows
// installation goes, and each level keeps a search open.
constexpr int kMaxDepth = 1024;

bool IsDots(const wchar_t* name) {
  return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

varnel::string Prefixed(const varnel::string& path) {
  varnel::string sLong(L"\\\\?\\");
  sLong += path;
  return sLong;
}

// Roots that name a drive are read through the snapshot's letter.
void OnDrive(varnel::string& path, wchar_t wcVssDrive) {
  if (path.length() >= 2 && path[1] == L':' && std::iswalpha(static_cast<std::wint_t>(path[0])))
    path.set_at(0, wcVssDrive);
}

// A variable of at most 259 characters; a longer one does not fit Win32's buffer.
bool Variable(Env& env, const wchar_t* name, varnel::string& value) {
  wchar_t buffer[platform::kPathChars] = {};
  const DWORD n = env.GetEnvironmentVariableW(name, buffer, platform::kPathChars);
  if (n == 0 || n >= platform::kPathChars) return false;
  value = varnel::string(buffer, n);
  return true;
}

bool Recurse(const varnel::string& sDir, HardLinkMap& map, int depth);

}  // namespace

bool HardLinkInfo::GetFileId(const varnel::string& sFile, std::uint64_t& uiId) {
  FnTrace fn(L"HardLinkInfo::GetFileId");
  uiId = 0;
  if (sFile.empty()) {
    fn.End(L"Invalid file parameter");
    return false;
  }
  Env& env = Env::Default();
  const varnel::string sThisFile = Prefixed(sFile);
  fn.Value(L"sThisFile", sThisFile, varnel::kTraceVerbose);
  platform::ScopedHandle file(env, env.CreateFileW(sThisFile.c_str(), platform::kGenericRead, platform::kFileShareRead,
                                                   platform::kOpenExisting, platform::kFileFlagBackupSemantics));
  if (!file.valid()) {
    const DWORD dwLastError = env.GetLastError();
    if (dwLastError == platform::kErrorSharingViolation) {
      fn.Value(L"dwLastError", static_cast<std::int64_t>(dwLastError), varnel::kTraceWarning);
      fn.End(L"CreateFile failed - BUSY", varnel::kTraceWarning);
    } else if (dwLastError == platform::kErrorAccessDenied) {
      const DWORD dwAttributes = env.GetFileAttributesW(sThisFile.c_str());
      if (dwAttributes == platform::kInvalidFileAttributes) {
        fn.FailedAs(L"HardLinkInfo::GetFileId : ... ending(GetFileAttributes failed)", env.GetLastError());
      } else if ((dwAttributes & platform::kFileAttributeEncrypted) != 0) {
        FnTrace::ValueOf(fn.trace(), varnel::kTraceWarning, L"HardLinkInfo::GetFileId : Found encrypted file",
                         L"sFile", sFile);
      } else {
        fn.Value(L"dwLastError", static_cast<std::int64_t>(dwLastError), varnel::kTraceError);
        fn.End(L"Access denied and file is not encrypted", varnel::kTraceError);
      }
    } else {
      fn.FailedAs(L"HardLinkInfo::GetFileId : ... ending(CreateFile failed)", dwLastError);
    }
    return false;
  }
  platform::ByHandleFileInformation info;
  if (!env.GetFileInformationByHandle(file.get(), &info)) {
    fn.FailedAs(L"HardLinkInfo::GetFileId : ... ending(GetFileInformationByHandle failed)", env.GetLastError());
    return false;
  }
  if (info.nNumberOfLinks != 1) uiId = static_cast<std::uint64_t>(info.nFileIndexHigh) << 32 | info.nFileIndexLow;
  return true;
}

bool HardLinkInfo::GetUserList(const varnel::string& sRoot, std::vector<varnel::string>& users) {
  FnTrace fn(L"HardLinkInfo::GetUserList");
  if (sRoot.empty()) {
    fn.End(L"Invalid Root");
    return false;
  }
  Env& env = Env::Default();
  varnel::string sSearchPattern = Prefixed(sRoot);
  sSearchPattern += L"\\*";
  fn.Value(L"sSearchPattern", sSearchPattern);
  auto data = std::make_unique<platform::FindData>();
  ScopedFind find(env, env.FindFirstFileW(sSearchPattern.c_str(), data.get()));
  if (!platform::IsValid(find.get())) {
    fn.FailedAs(L"HardLinkInfo::GetUserList : ... ending(FindFirstFile failed)", env.GetLastError());
    return false;
  }
  do {
    data->cFileName[platform::kPathChars - 1] = L'\0';
    const DWORD attributes = data->dwFileAttributes;
    if ((attributes & platform::kFileAttributeDirectory) != 0 &&
        (attributes & platform::kFileAttributeReparsePoint) == 0 && !IsDots(data->cFileName))
      users.emplace_back(data->cFileName);
  } while (env.FindNextFileW(find.get(), data.get()));
  const DWORD dwLastError = env.GetLastError();
  if (dwLastError != platform::kErrorNoMoreFiles) {
    fn.FailedAs(L"HardLinkInfo::GetUserList : ... ending(FindNextFile failed)", dwLastError);
    return false;
  }
  if (!find.Close()) {
    fn.FailedAs(L"HardLinkInfo::GetUserList : ... ending(FindClose failed)", env.GetLastError());
    return false;
  }
  return true;
}

bool HardLinkInfo::RecurseHardLinks(const varnel::string& sDir, HardLinkMap& map) { return Recurse(sDir, map, 0); }

namespace {

bool Recurse(const varnel::string& sDir, HardLinkMap& map, int depth) {
  FnTrace fn(L"HardLinkInfo::RecurseHardLinks");
  if (sDir.empty()) {
    fn.End(L"Invalid directory");
    return false;
  }
  if (depth >= kMaxDepth) {
    fn.Value(L"sDir", sDir, varnel::kTraceError);
    fn.End(L"folders nested too deep", varnel::kTraceError);
    return false;
  }
  Env& env = Env::Default();
  varnel::string sSearchPattern = Prefixed(sDir);
  sSearchPattern += L"\\*";
  fn.Value(L"sSearchPattern", sSearchPattern, varnel::kTraceVerbose);
  // On the heap: one of these lives on every level of a deep tree.
  auto data = std::make_unique<platform::FindData>();
  ScopedFind find(env, env.FindFirstFileW(sSearchPattern.c_str(), data.get()));
  if (!platform::IsValid(find.get())) {
    fn.FailedAs(L"HardLinkInfo::RecurseHardLinks : ... ending(FindFirstFile failed)", env.GetLastError());
    return false;
  }
  do {
    data->cFileName[platform::kPathChars - 1] = L'\0';
    const DWORD attributes = data->dwFileAttributes;
    // Junctions and symbolic links are neither followed nor recorded.
    if ((attributes & platform::kFileAttributeReparsePoint) != 0) continue;
    varnel::string sThisFile = sDir;
    sThisFile += L'\\';
    sThisFile += data->cFileName;
    if ((attributes & platform::kFileAttributeDirectory) == 0) {
      std::uint64_t uiId = 0;
      if (HardLinkInfo::GetFileId(sThisFile, uiId) && uiId != 0) {
        // The drive letter and colon go: the map holds volume paths.
        const wchar_t* slash = std::wcschr(sThisFile.c_str(), L'\\');
        map.emplace(uiId, slash == nullptr ? sThisFile : varnel::string(slash));
      }
    } else if (!IsDots(data->cFileName)) {
      if (InWalkSkipList(sThisFile)) {
        FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"HardLinkInfo::RecurseHardLinks : Skipping ...",
                         L"sThisFile", sThisFile);
        continue;
      }
      if (!Recurse(sThisFile, map, depth + 1)) {
        fn.End(L"RecurseHardLinks failed", varnel::kTraceError);
        return false;
      }
    }
  } while (env.FindNextFileW(find.get(), data.get()));
  const DWORD dwLastError = env.GetLastError();
  if (dwLastError == platform::kErrorNoMoreFiles) {
    if (!find.Close()) {
      fn.FailedAs(L"HardLinkInfo::RecurseHardLinks : ... ending(FindClose failed)", env.GetLastError());
      return false;
    }
    return true;
  }
  if (dwLastError == platform::kErrorFileCorrupt) {
    fn.Value(L"dwLastError", static_cast<std::int64_t>(dwLastError), varnel::kTraceError);
    fn.End(L"FindNextFile failed - Corrupt File/Folder", varnel::kTraceError);
    env.StdErr() << L"Error: Failed scanning hard-links because of a corrupt file or folder" << std::endl;
  } else {
    fn.FailedAs(L"HardLinkInfo::RecurseHardLinks : ... ending(FindNextFile failed)", dwLastError);
  }
  return false;
}

}  // namespace

void GetDocumentsAndSettings(DWORD dwEnvironment, varnel::string& sDocumentsAndSettings) {
  FnTrace fn(L"GetDocumentsAndSettings");
  wchar_t wszPath[platform::kPathChars] = {};
  if (Env::Default().SHGetFolderPathW(platform::kCsidlCommonDocuments, platform::kShgfpTypeDefault, wszPath) ==
      platform::kSOk) {
    wszPath[platform::kPathChars - 1] = L'\0';
    sDocumentsAndSettings = wszPath;
    // C:\Users\Public\Documents -> C:\Users
    if (std::wcslen(wszPath) > 3)
      if (const wchar_t* cut = std::wcschr(wszPath + 3, L'\\'))
        sDocumentsAndSettings.erase(static_cast<std::size_t>(cut - wszPath));
  } else {
    fn.Message(L"SHGetFolderPath failed", varnel::kTraceError);
    sDocumentsAndSettings =
        static_cast<std::int32_t>(dwEnvironment) >= 6 ? L"C:\\Users" : L"C:\\Documents And Settings";
  }
  fn.Value(L"sDocumentsAndSettings", sDocumentsAndSettings);
}

bool HardLinkInfo::Create(DWORD dwEnvironment, wchar_t wcVssDrive, HardLinkMap& map) {
  FnTrace fn(L"HardLinkInfo::Create");
  fn.Value(L"wcVssDrive", wcVssDrive);
  Env& env = Env::Default();

  // A root that cannot be walked ends the whole walk, after a line for the operator.
  auto walk = [&](varnel::string root, const wchar_t* failure) {
    OnDrive(root, wcVssDrive);
    if (Recurse(root, map, 0)) return true;
    env.StdOut() << L"Failed to search for hard-links under " << root.c_str() << std::endl;
    fn.EndText(failure, varnel::kTraceError);
    return false;
  };
  auto exists = [&](varnel::string& path) {
    OnDrive(path, wcVssDrive);
    return env.PathFileExistsW(path.c_str());
  };

  varnel::string sRoot;
  if (!Variable(env, L"ProgramData", sRoot)) {
    fn.FailedAs(L"HardLinkInfo::Create : ... ending( GetEnvironmentVariable(ProgramData) failed )", env.GetLastError());
    return false;
  }
  if (!walk(sRoot, L"... ending( RecurseHardLinks(ProgramData) failed )")) return false;

  if (!Variable(env, L"ProgramFiles", sRoot)) {
    fn.FailedAs(L"HardLinkInfo::Create : ... ending( GetEnvironmentVariable(ProgramFiles) failed )",
                env.GetLastError());
    return false;
  }
  if (!walk(sRoot, L"... ending( RecurseHardLinks(Program Files) failed )")) return false;

  if (Variable(env, L"ProgramFiles(x86)", sRoot)) {
    if (!walk(sRoot, L"... ending( RecurseHardLinks(Program Files (x86)) failed )")) return false;
  } else if (const DWORD dwLastError = env.GetLastError(); dwLastError != platform::kErrorEnvVarNotFound) {
    fn.FailedAs(L"HardLinkInfo::Create : ... ending( GetEnvironmentVariable(ProgramFiles(x86)) failed )",
                dwLastError);
    return false;
  }

  wchar_t wszWindows[platform::kPathChars] = {};
  const platform::UINT n = env.GetWindowsDirectoryW(wszWindows, platform::kPathChars);
  if (n == 0 || n >= platform::kPathChars) {
    fn.FailedAs(L"HardLinkInfo::Create : ... ending( GetWindowsDirectory failed )", env.GetLastError());
    return false;
  }
  const varnel::string sWindows(wszWindows, n);
  if (!walk(sWindows, L"... ending( RecurseHardLinks(Windows) failed )")) return false;
  varnel::string sWindowsOld = sWindows;
  sWindowsOld += L".old";
  if (exists(sWindowsOld) && !walk(sWindowsOld, L"... ending( RecurseHardLinks(Windows.old) failed )")) return false;

  varnel::string sDocumentsAndSettings;
  GetDocumentsAndSettings(dwEnvironment, sDocumentsAndSettings);
  OnDrive(sDocumentsAndSettings, wcVssDrive);
  std::vector<varnel::string> users;
  if (!HardLinkInfo::GetUserList(sDocumentsAndSettings, users)) {
    fn.EndText(L"... ending( GetUserList failed )", varnel::kTraceError);
    return false;
  }
  for (const auto& user : users) {
    varnel::string wsDocsAndSettings = sDocumentsAndSettings;
    wsDocsAndSettings += L'\\';
    wsDocsAndSettings += user;
    wsDocsAndSettings += L"\\AppData";
    fn.Value(L"wsDocsAndSettings", wsDocsAndSettings);
    if (exists(wsDocsAndSettings) &&
        !walk(wsDocsAndSettings, L"... ending( RecurseHardLinks(Documents And Settings) failed )"))
      return false;
  }

  varnel::string sInetpub(L"C:\\inetpub");
  if (exists(sInetpub) && !walk(sInetpub, L"... ending( RecurseHardLinks(Inetpub) failed )")) return false;
  return true;
}

}  // namespace koru
