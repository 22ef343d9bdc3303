// PosixEnv's handles on attached disks: reads are positional per handle, short at the
// end of the disk or volume, and never write. Also its Z:\ paths, module identity and
// INI files.
#include "platform/posix_env.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>
#include <vector>

#include "platform/posix_paths.h"
#include "support/disk_image.h"
#include "support/temp_dir.h"

namespace platform {
namespace {

constexpr std::size_t kMiB = 1024 * 1024;
using Bytes = std::vector<std::byte>;

// 4 MiB of a pattern, with a 1 MiB NTFS volume at 1 MiB.
Bytes PatternDisk() {
  koru::test::DiskImage image(4 * kMiB / 512);
  for (std::size_t i = 512; i < 4 * kMiB; ++i) image.Put(i, (i * 7 + i / 4096) & 0xFF, 1);
  return image.Entry(0, 0, 0x07, 2048, 2048).Boot(2048);
}

class OpenedDisk : public ::testing::Test {
 protected:
  HANDLE Open(const wchar_t* path, DWORD access = kGenericRead) {
    return env_.CreateFileW(path, access, kFileShareRead | kFileShareWrite, kOpenExisting, 0);
  }
  // Up to `count` bytes from the handle's position, or from `at` after a seek there.
  Bytes Read(HANDLE h, DWORD count, std::int64_t at = -1) {
    std::int64_t pos = at;
    if (at >= 0) env_.SetFilePointerEx(h, at, &pos, kFileBegin);
    EXPECT_EQ(pos, at);
    Bytes out(count);
    DWORD got = 0;
    EXPECT_TRUE(env_.ReadFile(h, out.data(), count, &got));
    out.resize(got);
    return out;
  }
  Bytes Slice(std::size_t at, std::size_t count) const {
    return {image_.begin() + static_cast<std::ptrdiff_t>(at), image_.begin() + static_cast<std::ptrdiff_t>(at + count)};
  }
  const Bytes image_ = PatternDisk();
  koru::test::TempDisk disk_{image_};
  PosixEnv env_;
};

TEST_F(OpenedDisk, ReadsPastTheEndOfTheDiskOrVolumeAreShort) {
  HANDLE disk = Open(L"\\\\.\\PhysicalDrive0");
  ASSERT_TRUE(IsValid(disk));
  EXPECT_EQ(Read(disk, 512, image_.size() - 100), Slice(image_.size() - 100, 100));
  EXPECT_TRUE(Read(disk, 512, image_.size() + 4096).empty());
  std::int64_t end = 0;
  ASSERT_TRUE(env_.SetFilePointerEx(disk, 0, &end, kFileEnd));
  EXPECT_EQ(end, static_cast<std::int64_t>(image_.size()));
  EXPECT_TRUE(env_.CloseHandle(disk));
  HANDLE volume = Open(L"\\\\.\\c:");
  ASSERT_TRUE(IsValid(volume));
  EXPECT_EQ(Read(volume, 512, 0), Slice(kMiB, 512));
  EXPECT_EQ(Read(volume, 512, kMiB - 10), Slice(2 * kMiB - 10, 10));
  DWORD written = 0;
  EXPECT_FALSE(env_.WriteFile(volume, image_.data(), 1, &written));
  EXPECT_EQ(env_.GetLastError(), kErrorAccessDenied);
  EXPECT_TRUE(env_.CloseHandle(volume));
  EXPECT_FALSE(env_.CloseHandle(volume));
  EXPECT_FALSE(IsValid(Open(L"\\\\.\\PhysicalDrive0", kGenericWrite)));
  EXPECT_EQ(env_.GetLastError(), kErrorAccessDenied);
}

// The one-step read gives what the seek and the read it stands for give, and leaves
// the handle where they leave it. Two handles on one disk: each keeps its own position.
TEST_F(OpenedDisk, ReadAtAnswersAsItsSeekAndReadWould) {
  HANDLE one = Open(L"\\\\.\\PhysicalDrive0"), two = Open(L"\\\\.\\PhysicalDrive0");
  ASSERT_TRUE(IsValid(one) && IsValid(two));
  Bytes a(512), b(512);
  const auto same = [&](HANDLE h1, HANDLE h2, std::uint64_t offset, bool buffer) {
    SCOPED_TRACE(offset);
    const ReadResult fast = env_.ReadAt(h1, offset, buffer ? a.data() : nullptr, 512);
    const DWORD fast_error = env_.GetLastError();
    const ReadResult slow = env_.Env::ReadAt(h2, offset, buffer ? b.data() : nullptr, 512);
    EXPECT_EQ(fast.step, slow.step);
    EXPECT_EQ(fast.error, slow.error);
    EXPECT_EQ(fast.bytes, slow.bytes);
    EXPECT_EQ(fast_error, env_.GetLastError());
    EXPECT_EQ(Bytes(a.begin(), a.begin() + fast.bytes), Bytes(b.begin(), b.begin() + slow.bytes));
    EXPECT_EQ(Read(h1, 16), Read(h2, 16));  // both go on from the same place
  };
  same(one, two, 4096, true);
  same(one, two, image_.size() - 100, true);  // short at the end of the disk
  same(one, two, image_.size() + 512, true);
  same(one, two, 8192, false);  // no buffer: the read fails, the seek stays
  same(one, two, std::uint64_t{1} << 63, true);  // before the start, as a signed offset
  // A run of reads, each where the last one ended, to the end of a volume and past it.
  const HANDLE v1 = Open(L"\\\\.\\c:"), v2 = Open(L"\\\\.\\c:");
  for (std::uint64_t at = kMiB - 100 * 1024 - 100; at < kMiB + 512; at += 512) same(v1, v2, at, true);
  const HANDLE closed = Open(L"\\\\.\\PhysicalDrive0");
  env_.CloseHandle(closed);
  const ReadResult gone = env_.ReadAt(closed, 0, a.data(), 512);
  EXPECT_EQ(gone.step, ReadResult::kSeekFailed);
  EXPECT_EQ(gone.error, kErrorInvalidHandle);
  for (HANDLE h : {one, two, v1, v2}) env_.CloseHandle(h);
}

TEST(PosixPaths, ZColonIsTheRoot) {
  const struct {
    const wchar_t* windows;
    const char* host;
  } cases[] = {{L"Z:\\usr\\local\\bin\\vmft", "/usr/local/bin/vmft"}, {L"z:\\", "/"}, {L"z:", "/"},
               {L"/usr/bin", "/usr/bin"}, {L"C:\\Windows", ""}, {L".\\Logfiles", "./Logfiles"},
               {L"Z:\\caf\u00e9", "/caf\xC3\xA9"}};
  for (const auto& c : cases) EXPECT_EQ(HostPath(c.windows), c.host) << c.host;
  EXPECT_EQ(WindowsPath("/usr/local/bin/vmft"), L"Z:\\usr\\local\\bin\\vmft");
}

// The library, linked in statically here, is not KORU_MFT.DLL. That the program
// answers with its Z:\ path, foundation_test.sh sees from the trace log beside a copy of vmft.
TEST(PosixModule, AShortBufferIsReportedAndTheLibraryIsUnknown) {
  PosixEnv env;
  // Too small: cut, terminated, the full size and ERROR_INSUFFICIENT_BUFFER.
  env.SetLastError(0);
  wchar_t small[5];
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 5), 5u);
  EXPECT_EQ(env.GetLastError(), kErrorInsufficientBuffer);
  EXPECT_EQ(std::wstring(small).substr(0, 3) + L"|" + std::to_wstring(std::wcslen(small)), L"Z:\\|4");
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);
  EXPECT_NE(env.GetModuleHandleW(nullptr), nullptr);
}

// The private-profile calls on INI files, as the core makes them: names in any case,
// the first match, values trimmed and cut to the caller's buffer.
class PosixIni : public ::testing::Test {
 protected:
  std::wstring Get(const wchar_t* section, const wchar_t* key, const wchar_t* fallback, const std::wstring& file,
                   DWORD size = 64) {
    std::vector<wchar_t> buffer(size + 1, L'#');
    const DWORD n = env_.GetPrivateProfileStringW(section, key, fallback, buffer.data(), size, file.c_str());
    EXPECT_EQ(n, std::wcslen(buffer.data()));
    return buffer.data();
  }

  koru::test::TempDir dir_;
  PosixEnv env_;
};

TEST_F(PosixIni, ReadingStringsAndIntegers) {
  dir_.Write("test.ini",
             "[File Locations]\r\nLogfiles = Z:\\logs\\here \r\n"
             "[Main]\nLevel=1\nlevel=2\n[Other]\nLevel=9\n[MAIN]\nLevel=3\nOnlyLater=4\n"
             "[S]\nlong=0123456789\nquoted=\"a b\"\nempty=\na=42\nb=7 levels\nc=none\nd=-1\n");
  const std::wstring file = dir_.win("test.ini"), absent = dir_.win("absent.ini");
  const std::wstring host = std::filesystem::path(dir_ / "test.ini").wstring();
  const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const std::wstring&, DWORD, const wchar_t*>
      texts[] = {
      {L"file locations", L"LOGFILES", L"d", file, 64, L"Z:\\logs\\here"},  // no case, trimmed
      {L"Main", L"Level", L"d", file, 64, L"1"},                             // the first match wins
      {L"Main", L"OnlyLater", L"d", file, 64, L"d"},                         // only the first [Main] counts
      {L"Main", L"Missing", L".\\Logfiles", file, 64, L".\\Logfiles"},
      {L"Main", L"Level", L"d", absent, 64, L"d"},
      {L"S", L"long", L"", file, 5, L"0123"},                                // cut to the buffer
      {L"S", L"quoted", L"d", file, 64, L"a b"},
      {L"S", L"empty", L"d", file, 64, L""},
      {L"S", L"a", L"", host, 64, L"42"},                                    // a host path works too
  };
  for (const auto& [section, key, fallback, in, size, expected] : texts)
    EXPECT_EQ(Get(section, key, fallback, in, size), expected) << section << "/" << key;

  const std::tuple<const wchar_t*, const wchar_t*, const std::wstring&, UINT> ints[] = {
      {L"Main", L"Missing", file, 5u}, {L"S", L"a", file, 42u}, {L"S", L"b", file, 7u},
      {L"S", L"c", file, 0u},          {L"S", L"d", file, 0xFFFFFFFFu},
  };
  for (const auto& [section, key, in, expected] : ints)
    EXPECT_EQ(env_.GetPrivateProfileIntW(section, key, 5, in.c_str()), expected) << section << "/" << key;
}

TEST_F(PosixIni, WritingReplacesOrAddsTheKeyKeepsTheRestAndMakesNoDirectory) {
  dir_.Write("keep.ini", "; comment\r\n[A]\r\nx=1\r\nVERSION=old\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  const std::wstring file = dir_.win("keep.ini"), created = dir_.win("new.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"a", L"Version", L"new", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"A", L"added", L"4", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"C", L"k", L"v", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"),
            "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\nadded=4\r\n\r\n[B]\r\nz=3\r\n[C]\r\nk=v\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"KORU_MFT.DLL", L"Version", L"1.0.0.0", created.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\n");
  EXPECT_FALSE(env_.WritePrivateProfileStringW(L"A", L"k", L"v", dir_.win("no/such/dir.ini").c_str()));
}

}  // namespace
}  // namespace platform
