// The file-level calls on a lettered volume, through PosixEnv, on volumes made by
// mkntfs and ntfs-3g (tests/platform/volume_files_images.sh), checked against what
// The Sleuth Kit's own tools (fls, istat, ifind) say about the same volume.
#include "platform/posix_volume_files.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>
#include <variant>

#include "koru_mft/tool.h"
#include "platform/posix_env.h"
#include "platform/posix_volume_paths.h"

namespace platform {
namespace {

using Links = std::multimap<std::uint64_t, std::string>;  // record -> "dir/name", as fls prints paths
constexpr std::uint64_t kRecordMask = 0xFFFFFFFFFFFFull;
constexpr DWORD kOpenByIdAccess = kSynchronize | kFileReadAttributes;
constexpr DWORD kOpenByIdFlags = kFileFlagBackupSemantics | kFileFlagOpenReparsePoint;

std::string Shell(const std::string& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    ::pclose(pipe);
  }
  return out;
}

std::string Image(const std::string& name) { return std::string(KORU_TEST_TMP) + "/volume-files/" + name; }

// The names The Sleuth Kit lists, less what Windows does not list either: NTFS's own
// files, named streams and the $OrphanFiles folder it makes up.
Links Fls(const std::string& image) {
  Links links;
  std::istringstream in(Shell("fls -r -p -u '" + image + "'"));
  for (std::string line; std::getline(in, line);) {
    const auto tab = line.find(":\t");
    const std::uint64_t record = std::stoull(line.substr(4));
    const std::string path = line.substr(tab + 2);
    if (record >= 16 && path.find(':') == std::string::npos && path.rfind("$OrphanFiles", 0) != 0)
      links.emplace(record, path);
  }
  return links;
}

std::uint64_t Ifind(const std::string& image, const std::string& path) {
  return std::stoull(Shell("ifind -n '" + path + "' '" + image + "'"));
}

// What only one side holds, one "record path" per line.
std::string Difference(const Links& ours, const Links& theirs) {
  std::ostringstream out;
  const auto only = [&out](const Links& a, const Links& b, const char* mark) {
    for (const auto& link : a)
      if (std::find(b.begin(), b.end(), link) == b.end()) out << mark << link.first << " " << link.second << "\n";
  };
  only(ours, theirs, "ours only: ");
  only(theirs, ours, "theirs only: ");
  return out.str();
}

template <typename T>
DWORD ErrorOf(const std::variant<T, DWORD>& answer) {
  return std::holds_alternative<DWORD>(answer) ? std::get<DWORD>(answer) : 0;
}

std::string Slashed(std::wstring path) {  // \a\b -> a/b
  for (auto& c : path) c = c == L'\\' ? L'/' : c;
  return ToUtf8(path.substr(1));
}

class VolumeFiles : public ::testing::Test {
 protected:
  void Attach(const std::string& name) {
    image_ = Image(name);
    if (!std::filesystem::exists(image_)) GTEST_SKIP() << image_ << " was not made (volume_files_images needs root)";
    posix::ResetDisks();
    std::string error;
    ASSERT_TRUE(koru::tool::AttachDisk(image_, &error)) << error;
  }
  void TearDown() override { posix::ResetDisks(); }

  HANDLE Open(const std::wstring& path, DWORD access = kFileReadAttributes, DWORD flags = kFileFlagBackupSemantics) {
    return env_.CreateFileW((L"\\\\?\\C:" + path).c_str(), access, kFileShareRead, kOpenExisting, flags);
  }
  ByHandleFileInformation Info(const std::wstring& path) {
    ByHandleFileInformation info;
    const HANDLE h = Open(path);
    EXPECT_TRUE(IsValid(h) && env_.GetFileInformationByHandle(h, &info)) << ToUtf8(path) << " " << env_.GetLastError();
    env_.CloseHandle(h);
    return info;
  }
  HANDLE OpenById(std::uint64_t reference) {
    const HANDLE volume = env_.CreateFileW(L"\\\\.\\C:", kGenericRead, 3, kOpenExisting, 0);
    FileIdDescriptor id;
    id.FileId = static_cast<std::int64_t>(reference);
    const HANDLE h = env_.OpenFileById(volume, &id, kOpenByIdAccess, 3, kOpenByIdFlags);
    const DWORD error = env_.GetLastError();
    env_.CloseHandle(volume);
    env_.SetLastError(error);
    return h;
  }
  // GetFileInformationByHandleEx(FileNameInfo) into a buffer of `size` bytes, grown
  // while it is short when `grow`; the error when it fails.
  std::variant<std::wstring, DWORD> NameById(std::uint64_t reference, DWORD size = 524, bool grow = true) {
    const HANDLE h = OpenById(reference);
    if (!IsValid(h)) return env_.GetLastError();
    std::vector<unsigned char> buffer(size);
    bool ok;
    while (!(ok = env_.GetFileInformationByHandleEx(h, kFileNameInfo, buffer.data(), size)) && grow &&
           env_.GetLastError() == kErrorMoreData)
      buffer.resize(size += 520);
    const DWORD error = env_.GetLastError();
    env_.CloseHandle(h);
    if (!ok) return error;
    std::uint32_t bytes = 0;
    std::memcpy(&bytes, buffer.data(), sizeof bytes);
    std::u16string name(bytes / 2, u'\0');
    std::memcpy(name.data(), buffer.data() + kFileNameInfoHeader, name.size() * 2);
    return posix::WideFromUtf16(name);
  }
  // Every name FindFirstFileNameW / FindNextFileNameW give, or the error that ended them early.
  std::variant<std::vector<std::wstring>, DWORD> LinkNames(const std::wstring& path) {
    std::vector<std::wstring> names;
    wchar_t buffer[4096];
    DWORD length = 4096;
    const HANDLE find = env_.FindFirstFileNameW((L"\\\\?\\C:" + path).c_str(), 0, &length, buffer);
    if (!IsValid(find)) return env_.GetLastError();
    do names.emplace_back(buffer, length - 1);
    while ((length = 4096, env_.FindNextFileNameW(find, &length, buffer)));
    const DWORD error = env_.GetLastError();
    EXPECT_TRUE(env_.FindClose(find));
    if (error != kErrorHandleEof) return error;
    return names;
  }
  // Walks the volume with FindFirstFileW as the hard-link walk does, into every folder
  // that is not a reparse point; the error of the first folder that fails.
  DWORD Walk(const std::wstring& dir, Links* links) {
    FindData data;
    const HANDLE find = env_.FindFirstFileW((L"\\\\?\\C:" + dir + L"\\*").c_str(), &data);
    if (!IsValid(find)) return env_.GetLastError();
    DWORD error = 0;
    do {
      const std::wstring name = data.cFileName, path = dir + L"\\" + name;
      if (name == L"." || name == L"..") continue;
      links->emplace(Info(path).nFileIndexLow, Slashed(path));
      const DWORD a = data.dwFileAttributes;
      if ((a & kFileAttributeDirectory) && !(a & kFileAttributeReparsePoint) && (error = Walk(path, links))) break;
    } while (env_.FindNextFileW(find, &data));
    if (error == 0 && env_.GetLastError() != kErrorNoMoreFiles) error = env_.GetLastError();
    EXPECT_TRUE(env_.FindClose(find));
    return error;
  }

  PosixEnv env_;
  std::string image_;
};

TEST_F(VolumeFiles, NamesLinksAndPathsAgreeWithTheSleuthKit) {
  for (const char* name : {"files.img", "attrlist.img"}) {
    Attach(name);
    if (IsSkipped()) return;
    const Links fls = Fls(image_);
    Links walked;
    ASSERT_EQ(Walk(L"", &walked), 0u) << name;
    EXPECT_EQ(Difference(walked, fls), "") << name;
    for (auto at = fls.begin(); at != fls.end(); at = fls.upper_bound(at->first)) {
      const auto [first, end] = fls.equal_range(at->first);
      std::multiset<std::string> expected, listed;
      for (auto it = first; it != end; ++it) expected.insert(it->second);
      const std::wstring path = L"\\" + FromUtf8(at->second);
      const auto names = LinkNames(path);
      ASSERT_TRUE(std::holds_alternative<std::vector<std::wstring>>(names)) << at->second << " " << std::get<DWORD>(names);
      for (const auto& n : std::get<0>(names)) listed.insert(Slashed(n));
      EXPECT_EQ(listed, expected) << at->second;
      const ByHandleFileInformation info = Info(path);
      EXPECT_EQ(info.nNumberOfLinks, expected.size()) << at->second;
      const auto by_id = NameById(std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow);
      ASSERT_TRUE(std::holds_alternative<std::wstring>(by_id)) << at->second << " " << std::get<DWORD>(by_id);
      EXPECT_EQ(expected.count(Slashed(std::get<std::wstring>(by_id))), 1u) << at->second;
    }
  }
}

TEST_F(VolumeFiles, AnswersAsWindowsDoes) {
  Attach("files.img");
  if (IsSkipped()) return;
  EXPECT_EQ(koru::tool::FileLevelProblem(L'C'), "");
  // A DOS alias is a name istat counts but Win32 does not, and it opens the file.
  EXPECT_NE(Shell("istat '" + image_ + "' " + std::to_string(Ifind(image_, "ProgramData/LongFileName.txt"))).find("Links: 3"),
            std::string::npos);
  EXPECT_EQ(Info(L"\\ProgramData\\LongFileName.txt").nNumberOfLinks, 2u);
  EXPECT_EQ(Info(L"\\programdata\\LONGFI~1.TXT").nFileIndexLow, Info(L"\\ProgramData\\LongFileName.txt").nFileIndexLow);

  const std::tuple<const wchar_t*, DWORD> attributes[] = {
      {L"\\", kFileAttributeDirectory | 0x26},  // hidden, system, archive
      {L"\\ProgramData\\junction", kFileAttributeDirectory | kFileAttributeReparsePoint | 0x20},
      {L"\\Windows\\link.dll", kFileAttributeReparsePoint | 0x20},
      {L"\\Users\\alice\\AppData\\Local\\secret.txt", kFileAttributeEncrypted | 0x20},
      {L"\\Windows\\sample.dll", 0x20},
  };
  for (const auto& [path, expected] : attributes)
    EXPECT_EQ(env_.GetFileAttributesW((std::wstring(L"C:") + path).c_str()), expected) << ToUtf8(path);

  struct Failure {
    const wchar_t* path;
    DWORD access, flags, error;
  };
  const Failure failures[] = {
      {L"\\Windows\\absent.dll", kGenericRead, 0, kErrorFileNotFound},
      {L"\\Absent\\sample.dll", kGenericRead, 0, kErrorPathNotFound},
      {L"\\Windows\\sample.dll\\x", kGenericRead, 0, kErrorPathNotFound},
      {L"\\ProgramData\\deleted.txt", kGenericRead, 0, kErrorFileNotFound},
      {L"\\Windows", kGenericRead, 0, kErrorAccessDenied},  // a folder needs backup semantics
      {L"\\Windows\\sample.dll", kGenericWrite, 0, 19},       // ERROR_WRITE_PROTECT
      {L"\\Users\\alice\\AppData\\Local\\secret.txt", kGenericRead, kFileFlagBackupSemantics, kErrorAccessDenied},
  };
  for (const Failure& f : failures) {
    EXPECT_FALSE(IsValid(Open(f.path, f.access, f.flags))) << ToUtf8(f.path);
    EXPECT_EQ(env_.GetLastError(), f.error) << ToUtf8(f.path);
  }
  EXPECT_FALSE(env_.PathFileExistsW(L"\\\\?\\C:\\Windows\\old.dll"));
  EXPECT_TRUE(env_.PathFileExistsW(L"\\\\?\\C:\\WINDOWS\\SAMPLE.DLL"));
  EXPECT_FALSE(env_.PathFileExistsW(L"\\\\?\\Y:\\Windows"));
  EXPECT_EQ(env_.GetLastError(), kErrorPathNotFound);

  const HANDLE file = Open(L"\\Windows\\sample.dll", kGenericRead, 0x80);
  std::int64_t size = 0;
  EXPECT_TRUE(env_.GetFileSizeEx(file, &size));
  EXPECT_EQ(size, 15);
  EXPECT_FALSE(env_.FindClose(file));  // each kind of handle closes its own way
  EXPECT_TRUE(env_.CloseHandle(file));
  EXPECT_FALSE(env_.CloseHandle(file));

  FindData data;
  const HANDLE find = env_.FindFirstFileW(L"\\\\?\\C:\\Windows\\*", &data);
  EXPECT_EQ(std::wstring(data.cFileName), L".");
  EXPECT_FALSE(env_.CloseHandle(find));
  EXPECT_TRUE(env_.FindClose(find));
  const std::tuple<const wchar_t*, DWORD> searches[] = {
      {L"\\\\?\\C:\\Absent\\*", kErrorPathNotFound},
      {L"\\\\?\\C:\\Windows\\*.none", kErrorFileNotFound},
  };
  for (const auto& [pattern, error] : searches) {
    EXPECT_FALSE(IsValid(env_.FindFirstFileW(pattern, &data)));
    EXPECT_EQ(env_.GetLastError(), error) << ToUtf8(pattern);
  }
  EXPECT_TRUE(IsValid(env_.FindFirstFileW(L"C:\\Windows\\SAMPLE.*", &data)));
  EXPECT_EQ(std::wstring(data.cFileName), L"sample.dll");
}

TEST_F(VolumeFiles, OpenByIdRefusesWhatIsNotAFile) {
  Attach("files.img");
  if (IsSkipped()) return;
  const std::uint64_t many = Ifind(image_, "Windows/many.dat");
  const ByHandleFileInformation info = Info(L"\\Windows\\many.dat");
  const std::uint64_t reference = std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
  ASSERT_EQ(reference & kRecordMask, many);
  // An extension record of the file with 41 names, found by its base reference.
  std::ifstream in(image_, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
  std::uint64_t extension = 0;
  for (std::size_t at = 0; at + 1024 <= bytes.size() && extension == 0; at += 1024) {
    std::uint64_t base = 0;
    std::memcpy(&base, &bytes[at + 0x20], 8);
    if (std::memcmp(&bytes[at], "FILE", 4) == 0 && (base & kRecordMask) == many)
      std::memcpy(&extension, &bytes[at + 0x2C], 4);
  }
  ASSERT_NE(extension, 0u);
  for (const std::uint64_t refused : {std::uint64_t{reference + (1ull << 48)}, std::uint64_t{extension | (reference >> 48 << 48)},
                                      std::uint64_t{30}, std::uint64_t{1} << 40}) {
    EXPECT_FALSE(IsValid(OpenById(refused))) << std::hex << refused;
    EXPECT_EQ(env_.GetLastError(), kErrorInvalidParameter) << std::hex << refused;
  }
  EXPECT_EQ(std::get<std::wstring>(NameById(0x0005000000000005ull)), L"\\");
  // A short buffer: the whole length, as much of the name as fits, and ERROR_MORE_DATA.
  EXPECT_EQ(ErrorOf(NameById(reference, 8, false)), kErrorMoreData);
  const HANDLE disk = env_.CreateFileW(L"\\\\.\\PhysicalDrive0", kGenericRead, 3, kOpenExisting, 0);
  FileIdDescriptor id;
  id.FileId = static_cast<std::int64_t>(reference);
  EXPECT_FALSE(IsValid(env_.OpenFileById(disk, &id, kOpenByIdAccess, 3, kOpenByIdFlags)));
  EXPECT_EQ(env_.GetLastError(), kErrorInvalidParameter);
  env_.CloseHandle(disk);
}

TEST_F(VolumeFiles, NameBuffersTooShortSayHowLongTheNameIs) {
  Attach("files.img");
  if (IsSkipped()) return;
  const auto names = LinkNames(L"\\Windows\\sample.dll");
  ASSERT_EQ(ErrorOf(names), 0u);
  wchar_t buffer[64];
  DWORD length = 5;
  EXPECT_FALSE(IsValid(env_.FindFirstFileNameW(L"\\\\?\\C:\\Windows\\sample.dll", 0, &length, buffer)));
  EXPECT_EQ(env_.GetLastError(), kErrorMoreData);
  EXPECT_EQ(length, std::get<0>(names)[0].size() + 1);
  const HANDLE find = env_.FindFirstFileNameW(L"\\\\?\\C:\\Windows\\sample.dll", 0, &length, buffer);
  ASSERT_TRUE(IsValid(find));
  length = 5;
  EXPECT_FALSE(env_.FindNextFileNameW(find, &length, buffer));
  EXPECT_EQ(env_.GetLastError(), kErrorMoreData);
  length = 64;  // the same name again, now that it fits
  EXPECT_TRUE(env_.FindNextFileNameW(find, &length, buffer));
  EXPECT_TRUE(env_.FindClose(find));
}

TEST_F(VolumeFiles, DeepPathsAreWhole) {
  Attach("deep.img");
  if (IsSkipped()) return;
  std::wstring bottom;
  for (int i = 1; i <= 150; ++i) bottom += L"\\level-" + std::to_wstring(i) + L"-of-a-deep-chain";
  const auto names = LinkNames(L"\\top.txt");
  ASSERT_TRUE(std::holds_alternative<std::vector<std::wstring>>(names));
  EXPECT_EQ(std::get<0>(names), (std::vector<std::wstring>{L"\\top.txt", bottom + L"\\bottom.txt"}));
  // Past what Win32 can hand out: the name cannot be given, rather than cut.
  std::wstring deeper;
  for (int i = 0; i < 170; ++i) deeper += L"\\" + std::wstring(200, L'x');
  EXPECT_EQ(ErrorOf(LinkNames(deeper + L"\\far.txt")), kErrorFilenameExcedRange);
}

TEST_F(VolumeFiles, BrokenVolumesEndWithErrors) {
  Attach("hostile.img");
  if (IsSkipped()) return;
  const auto id = [&](const char* path) {
    const std::uint64_t record = Ifind(image_, path);
    const std::string stat = Shell("istat '" + image_ + "' " + std::to_string(record));
    return record | std::stoull(stat.substr(stat.find("Sequence: ") + 10)) << 48;
  };
  // loop/a names loop/a/b as its folder: a cycle; parent-of-itself is its own folder.
  EXPECT_EQ(ErrorOf(NameById(id("loop/a/b"))), kErrorFileCorrupt);
  EXPECT_EQ(ErrorOf(NameById(id("parent-of-itself"))), kErrorFileCorrupt);
  EXPECT_EQ(ErrorOf(LinkNames(L"\\looped.txt")), kErrorFileCorrupt);
  // A name that runs past its attribute: the record cannot be opened, and the
  // listing reports it where it stands, as a corrupt entry.
  EXPECT_EQ(ErrorOf(NameById(id("bad-name.txt"))), kErrorFileCorrupt);
  Links walked;
  EXPECT_EQ(Walk(L"", &walked), kErrorFileCorrupt);
  // A folder whose index entry points back at the folder: the entry is dropped, and
  // the file whose name says it lives there is found as The Sleuth Kit finds it.
  Links self;
  EXPECT_EQ(Walk(L"\\self", &self), 0u);
  ASSERT_EQ(self.size(), 1u);
  EXPECT_EQ(self.begin()->second, "self/child.txt");
  EXPECT_NE(self.begin()->first, Ifind(image_, "self"));
}

TEST_F(VolumeFiles, ClustersTheSleuthKitRefusesGiveAReason) {
  Attach("ntfs-2m.img");
  if (IsSkipped()) return;
  EXPECT_FALSE(env_.PathFileExistsW(L"\\\\?\\C:\\"));
  EXPECT_EQ(env_.GetLastError(), posix::kErrorUnrecognizedVolume);
  EXPECT_EQ(koru::tool::FileLevelProblem(L'D'), "there is no volume D:");
  const std::string reason = koru::tool::FileLevelProblem(L'C');
  EXPECT_NE(reason.find("clusters above 64 KiB"), std::string::npos) << reason;
  EXPECT_NE(reason.find("2048 KiB"), std::string::npos) << reason;
}

TEST_F(VolumeFiles, ThreadsShareOneVolume) {
  Attach("files.img");
  if (IsSkipped()) return;
  const ByHandleFileInformation info = Info(L"\\Windows\\many.dat");
  const std::uint64_t reference = std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
  std::vector<std::thread> threads;
  std::vector<std::wstring> answers(4);
  for (std::size_t t = 0; t < answers.size(); ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        const auto name = NameById(reference);
        answers[t] = std::holds_alternative<std::wstring>(name) ? std::get<std::wstring>(name) : L"failed";
      }
    });
  for (auto& thread : threads) thread.join();
  for (const auto& answer : answers) EXPECT_EQ(answer, L"\\Windows\\many.dat");
}

TEST(WindowsFolders, DefaultsUnlessTheEnvironmentSetsThem) {
  PosixEnv env;
  ::unsetenv("ProgramData");
  ::setenv("ProgramFiles", "D:\\Apps", 1);
  ::setenv("ProgramFiles(x86)", "", 1);  // Windows has no empty variables
  wchar_t buffer[260];
  EXPECT_EQ(env.GetEnvironmentVariableW(L"ProgramData", buffer, 260), 14u);
  EXPECT_EQ(std::wstring(buffer), L"C:\\ProgramData");
  EXPECT_EQ(env.GetEnvironmentVariableW(L"ProgramFiles", buffer, 260), 7u);
  EXPECT_EQ(std::wstring(buffer), L"D:\\Apps");
  EXPECT_EQ(env.GetEnvironmentVariableW(L"ProgramFiles(x86)", buffer, 260), 0u);
  EXPECT_EQ(env.GetLastError(), kErrorEnvVarNotFound);
  EXPECT_EQ(env.GetWindowsDirectoryW(buffer, 5), 11u);  // the size needed
  EXPECT_EQ(env.GetWindowsDirectoryW(buffer, 260), 10u);
  EXPECT_EQ(std::wstring(buffer), L"C:\\Windows");
  EXPECT_EQ(env.SHGetFolderPathW(kCsidlCommonDocuments, kShgfpTypeDefault, buffer), kSOk);
  EXPECT_EQ(std::wstring(buffer), L"C:\\Users\\Public\\Documents");
  ::unsetenv("ProgramFiles");
  ::unsetenv("ProgramFiles(x86)");
}

}  // namespace
}  // namespace platform
