// The file-level calls on a lettered volume, through PosixEnv, on volumes made by
// mkntfs and ntfs-3g (tests/platform/volume_files_images.sh): what the hlinfo
// integration tests cannot see from the output (error numbers, handle kinds, DOS
// aliases, loops, short buffers). Those tests check names, links and sizes
// against The Sleuth Kit.
#include "platform/posix_volume_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <span>

#include "base/bytes.h"
#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "koru_mft/tool.h"
#include "platform/posix_env.h"
#include "platform/posix_volume_paths.h"
#include "support/temp_disk.h"

namespace platform {
namespace {

using Links = std::multimap<std::uint64_t, std::wstring>;  // record -> path

// A file's reference as The Sleuth Kit finds it by path.
std::uint64_t TskId(const std::string& image, const std::string& path) {
  std::string out(64, '\0');
  FILE* pipe = ::popen(("istat '" + image + "' $(ifind -n '" + path + "' '" + image + "') | sed -n 2p").c_str(), "r");
  out.resize(pipe ? std::fread(out.data(), 1, out.size(), pipe) : 0);
  if (pipe) ::pclose(pipe);
  return std::stoull(out.substr(out.find("Entry: ") + 7)) | std::stoull(out.substr(out.find("Sequence: ") + 10)) << 48;
}

// The offset of the first record of `image` whose field at `at`, masked, is `value`.
std::size_t RecordWhere(const std::vector<std::byte>& image, std::size_t at, std::uint64_t mask, std::uint64_t value) {
  std::size_t r = 0;
  const auto file = koru::le32Or0(std::as_bytes(std::span("FILE", 4)), 0);
  while (r + 1024 <= image.size() &&
         !(koru::le32Or0(image, r + koru::layout::kRecSignature) == file && (koru::le64Or0(image, r + at) & mask) == value))
    r += 1024;
  return r;
}

class VolumeFiles : public ::testing::Test {
 protected:
  void Attach(const std::string& name) {
    image_ = std::string(KORU_TEST_TMP) + "/volume-files/" + name;
    if (!std::filesystem::exists(image_)) GTEST_SKIP() << image_ << " was not made (volume_files_images needs root)";
    posix::ResetDisks();
    std::string error;
    ASSERT_TRUE(koru::tool::AttachDisk(image_, &error)) << error;
  }
  void TearDown() override { posix::ResetDisks(); }

  DWORD ErrorOf(bool ok) { return ok ? 0 : env_.GetLastError(); }  // 0, or the error the call left
  HANDLE Open(const std::wstring& path, DWORD access = kFileReadAttributes, DWORD flags = kFileFlagBackupSemantics) {
    return env_.CreateFileW((L"\\\\?\\C:" + path).c_str(), access, kFileShareRead, kOpenExisting, flags);
  }
  std::uint64_t Id(const std::wstring& path, DWORD* links = nullptr) {
    ByHandleFileInformation info;
    const HANDLE h = Open(path);
    EXPECT_TRUE(IsValid(h) && env_.GetFileInformationByHandle(h, &info)) << koru::Utf8FromWide(path) << " " << env_.GetLastError();
    env_.CloseHandle(h);
    if (links != nullptr) *links = info.nNumberOfLinks;
    return std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow;
  }
  HANDLE OpenById(std::uint64_t reference, const wchar_t* hint = L"\\\\.\\C:") {
    const HANDLE volume = env_.CreateFileW(hint, kGenericRead, 3, kOpenExisting, 0);
    FileIdDescriptor id;
    id.FileId = static_cast<std::int64_t>(reference);
    const HANDLE h = env_.OpenFileById(volume, &id, kSynchronize | kFileReadAttributes, 3,
                                       kFileFlagBackupSemantics | kFileFlagOpenReparsePoint);
    const DWORD error = env_.GetLastError();
    env_.CloseHandle(volume);
    env_.SetLastError(error);
    return h;
  }
  // The path by id as the hard-link scan reads it into `size` bytes; 0 or the error.
  DWORD NameById(std::uint64_t reference, std::wstring* name = nullptr, DWORD size = 524) {
    const HANDLE h = OpenById(reference);
    if (!IsValid(h)) return env_.GetLastError();
    std::vector<unsigned char> buffer(size);
    const DWORD error = ErrorOf(env_.GetFileInformationByHandleEx(h, kFileNameInfo, buffer.data(), size));
    env_.CloseHandle(h);
    std::uint32_t bytes = 0;
    std::memcpy(&bytes, buffer.data(), sizeof bytes);
    std::u16string units(std::min<std::size_t>(bytes, buffer.size() - 4) / 2, u'\0');
    std::memcpy(units.data(), buffer.data() + kFileNameInfoHeader, units.size() * 2);
    if (name != nullptr) *name = posix::WideFromUtf16(units);
    return error;
  }
  // Every name FindFirstFileNameW / FindNextFileNameW give; 0 when they end with ERROR_HANDLE_EOF.
  DWORD LinkNames(const std::wstring& path, std::vector<std::wstring>* names) {
    wchar_t buffer[4096];
    DWORD length = 4096;
    const HANDLE find = env_.FindFirstFileNameW((L"\\\\?\\C:" + path).c_str(), 0, &length, buffer);
    if (!IsValid(find)) return env_.GetLastError();
    do names->emplace_back(buffer, length - 1);
    while ((length = 4096, env_.FindNextFileNameW(find, &length, buffer)));
    const DWORD error = env_.GetLastError();
    EXPECT_TRUE(env_.FindClose(find));
    return error == kErrorHandleEof ? 0 : error;
  }
  // Walks as the hard-link walk does, into every folder that is not a reparse point;
  // the error of the first folder that fails.
  DWORD Walk(const std::wstring& dir, Links* links) {
    FindData data;
    const HANDLE find = env_.FindFirstFileW((L"\\\\?\\C:" + dir + L"\\*").c_str(), &data);
    if (!IsValid(find)) return env_.GetLastError();
    DWORD error = 0;
    do {
      const std::wstring name = data.cFileName, path = dir + L"\\" + name;
      if (name == L"." || name == L"..") continue;
      links->emplace(Id(path) & 0xFFFFFFFFFFFFull, path);
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

TEST_F(VolumeFiles, AnswersAsWindowsDoes) {
  Attach("files.img");
  if (IsSkipped()) return;
  // A DOS alias is no link for Win32, and it opens the file.
  DWORD links = 0;
  EXPECT_EQ(Id(L"\\programdata\\LONGFI~1.TXT", &links), Id(L"\\ProgramData\\LongFileName.txt"));
  EXPECT_EQ(links, 2u);

  const std::tuple<const wchar_t*, DWORD> attributes[] = {
      {L"C:\\", kFileAttributeDirectory | 0x26},  // hidden, system, archive
      {L"C:\\ProgramData\\junction", kFileAttributeDirectory | kFileAttributeReparsePoint | 0x20},
      {L"C:\\Windows\\link.dll", kFileAttributeReparsePoint | 0x20},
      {L"C:\\Windows\\compact.dll", 0x20},  // CompactOS: Windows hides its reparse point
      {L"\\\\?\\C:\\Users\\alice\\AppData\\Local\\secret.txt", kFileAttributeEncrypted | 0x20},
      {L"C:\\Windows\\absent.dll", kInvalidFileAttributes},
  };
  for (const auto& [path, expected] : attributes) EXPECT_EQ(env_.GetFileAttributesW(path), expected) << koru::Utf8FromWide(path);

  const std::tuple<const wchar_t*, DWORD, DWORD, DWORD> refused[] = {
      {L"\\Windows\\absent.dll", kGenericRead, 0, kErrorFileNotFound},
      {L"\\Absent\\sample.dll", kGenericRead, 0, kErrorPathNotFound},
      {L"\\Windows\\sample.dll\\x", kGenericRead, 0, kErrorPathNotFound},
      {L"\\ProgramData\\deleted.txt", kGenericRead, 0, kErrorFileNotFound},
      {L"\\Windows", kGenericRead, 0, kErrorAccessDenied},  // a folder needs backup semantics
      {L"\\Windows\\sample.dll", kGenericWrite, 0, 19},       // ERROR_WRITE_PROTECT
      {L"\\Users\\alice\\AppData\\Local\\secret.txt", kGenericRead, kFileFlagBackupSemantics, kErrorAccessDenied},
  };
  for (const auto& [path, access, flags, error] : refused)
    EXPECT_EQ(ErrorOf(IsValid(Open(path, access, flags))), error) << koru::Utf8FromWide(path);
  EXPECT_EQ(ErrorOf(env_.PathFileExistsW(L"\\\\?\\Y:\\Windows")), kErrorPathNotFound);

  const HANDLE file = Open(L"\\WINDOWS\\SAMPLE.DLL", kGenericRead, kFileAttributeNormal);
  EXPECT_FALSE(env_.FindClose(file));  // each kind of handle closes its own way
  EXPECT_TRUE(env_.CloseHandle(file));
  EXPECT_FALSE(env_.CloseHandle(file));
  FindData data;
  const HANDLE find = env_.FindFirstFileW(L"C:\\Windows\\SAMPLE.*", &data);
  EXPECT_EQ(std::wstring(data.cFileName), L"sample.dll");
  EXPECT_FALSE(env_.CloseHandle(find));
  EXPECT_TRUE(env_.FindClose(find));
  for (const auto& [pattern, error] : {std::tuple(L"C:\\Absent\\*", kErrorPathNotFound),
                                       std::tuple(L"C:\\Windows\\*.none", kErrorFileNotFound)})
    EXPECT_EQ(ErrorOf(IsValid(env_.FindFirstFileW(pattern, &data))), error) << koru::Utf8FromWide(pattern);
}

TEST_F(VolumeFiles, OpenByIdRefusesWhatIsNotAFileAndShortBuffersSayHowLong) {
  Attach("files.img");
  if (IsSkipped()) return;
  const std::uint64_t reference = Id(L"\\Windows\\many.dat"), seq = reference >> 48 << 48;
  // An extension record of the file with 41 names, found by its base reference.
  const auto image = koru::test::ReadFileBytes(image_);
  const std::size_t at = RecordWhere(image, koru::layout::kRecBaseRecordLo, ~0ull >> 16, reference & ~seq);
  ASSERT_LT(at, image.size());
  const std::uint64_t extension = koru::le32Or0(image, at + koru::layout::kRecNumber);
  for (const std::uint64_t refused : std::vector<std::uint64_t>{reference + (1ull << 48), extension | seq, 30, 1ull << 40})
    EXPECT_EQ(ErrorOf(IsValid(OpenById(refused))), kErrorInvalidParameter) << std::hex << refused;
  EXPECT_EQ(ErrorOf(IsValid(OpenById(reference, L"\\\\.\\PhysicalDrive0"))), kErrorInvalidParameter);
  std::wstring name;
  EXPECT_EQ(NameById(0x0005000000000005ull, &name), 0u);
  EXPECT_EQ(name, L"\\");
  EXPECT_EQ(NameById(reference, &name, 10), kErrorMoreData);  // the whole length, what fits of the name
  EXPECT_EQ(name, L"\\Wi");

  wchar_t buffer[64];
  DWORD length = 5;
  EXPECT_EQ(ErrorOf(IsValid(env_.FindFirstFileNameW(L"\\\\?\\C:\\Windows\\many.dat", 0, &length, buffer))), kErrorMoreData);
  EXPECT_EQ(length, std::wcslen(L"\\Windows\\many.dat") + 1);
  const HANDLE find = env_.FindFirstFileNameW(L"\\\\?\\C:\\Windows\\many.dat", 0, &length, buffer);
  length = 5;
  EXPECT_EQ(ErrorOf(env_.FindNextFileNameW(find, &length, buffer)), kErrorMoreData);
  length = 64;  // the same name again, now that it fits
  EXPECT_TRUE(env_.FindNextFileNameW(find, &length, buffer));
  EXPECT_TRUE(env_.FindClose(find));
}

TEST_F(VolumeFiles, DeepPathsAreWholeOrRefused) {
  Attach("deep.img");
  if (IsSkipped()) return;
  std::wstring bottom, deeper;
  for (int i = 1; i <= 150; ++i) bottom += L"\\level-" + std::to_wstring(i) + L"-of-a-deep-chain";
  for (int i = 0; i < 170; ++i) deeper += L"\\" + std::wstring(200, L'x');
  std::vector<std::wstring> names;
  EXPECT_EQ(LinkNames(L"\\top.txt", &names), 0u);
  EXPECT_EQ(names, (std::vector<std::wstring>{L"\\top.txt", bottom + L"\\bottom.txt"}));
  // Past what Win32 can hand out: no name rather than a cut one.
  EXPECT_EQ(LinkNames(deeper + L"\\far.txt", &names), kErrorFilenameExcedRange);
}

TEST_F(VolumeFiles, BrokenVolumesEndWithErrors) {
  Attach("hostile.img");
  if (IsSkipped()) return;
  // loop/a names loop/a/b as its folder; parent-of-itself is its own folder; the name
  // of bad-name.txt runs past its attribute, so the walk meets it as a corrupt entry.
  std::vector<std::wstring> names;
  EXPECT_EQ(NameById(TskId(image_, "loop/a/b")), kErrorFileCorrupt);
  EXPECT_EQ(NameById(TskId(image_, "parent-of-itself")), kErrorFileCorrupt);
  EXPECT_EQ(LinkNames(L"\\looped.txt", &names), kErrorFileCorrupt);
  EXPECT_EQ(NameById(TskId(image_, "bad-name.txt")), kErrorFileCorrupt);
  Links walked;
  EXPECT_EQ(Walk(L"", &walked), kErrorFileCorrupt);
  // An index entry of "self" points back at it: the entry is dropped, and the file whose
  // name says it lives there is found as The Sleuth Kit finds it.
  Links self;
  EXPECT_EQ(Walk(L"\\self", &self), 0u);
  ASSERT_EQ(self.size(), 1u);
  EXPECT_EQ(self.begin()->second, L"\\self\\child.txt");
  EXPECT_NE(self.begin()->first, TskId(image_, "self") & 0xFFFFFFFFFFFFull);
}

TEST_F(VolumeFiles, ClustersTheSleuthKitRefusesGiveAReason) {
  Attach("ntfs-2m.img");
  if (IsSkipped()) return;
  EXPECT_EQ(ErrorOf(env_.PathFileExistsW(L"\\\\?\\C:\\")), posix::kErrorUnrecognizedVolume);
  const std::string reason = koru::tool::FileLevelProblem(L'C');
  EXPECT_NE(reason.find("clusters above 64 KiB, and this volume's clusters are 2048 KiB"), std::string::npos) << reason;
}

// The Sleuth Kit keeps an attribute's type code in a field of its own enum type,
// which cannot hold every code a record can carry (the sanitizer build caught the
// read of one, from a hostile-disk run).
TEST_F(VolumeFiles, AnAttributeOfAnUnknownTypeIsPassedOver) {
  Attach("files.img");
  if (IsSkipped()) return;
  auto image = koru::test::ReadFileBytes(image_);
  const std::size_t at =
      RecordWhere(image, koru::layout::kRecNumber, 0xFFFFFFFFu, Id(L"\\ProgramData\\readme.txt") & 0xFFFFFFFFu);
  ASSERT_LT(at, image.size());
  std::size_t a = koru::le16Or0(image, at + koru::layout::kRecFirstAttribute);
  while (a + 8 < 1024 && koru::le32Or0(image, at + a) != koru::layout::kData)
    a += std::max<std::size_t>(koru::le16Or0(image, at + a + koru::layout::kAttrLength), 8);
  ASSERT_LT(a + 8, 1024u);
  koru::test::Put32(image, at + a, 0x00A10030);
  koru::test::TempDisk disk(image);
  EXPECT_NE(env_.GetFileAttributesW(L"C:\\ProgramData\\readme.txt"), kInvalidFileAttributes);
  EXPECT_TRUE(env_.PathFileExistsW(L"C:\\ProgramData\\LongFileName.txt"));
}

}  // namespace
}  // namespace platform
