// PosixEnv's Windows personality: INI profiles, module names, paths, and handles on
// attached disks.
#ifndef _WIN32

#include "platform/posix_env.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <tuple>
#include <vector>

#include "support/disk_image.h"
#include "support/temp_dir.h"

namespace {

using koru::test::TempDir;
using platform::PosixEnv;

class PosixIni : public ::testing::Test {
 protected:
  std::wstring Get(const wchar_t* section, const wchar_t* key, const wchar_t* fallback, const std::wstring& file,
                   platform::DWORD size = 64) {
    std::vector<wchar_t> buffer(size + 1, L'#');
    const platform::DWORD n = env_.GetPrivateProfileStringW(section, key, fallback, buffer.data(), size, file.c_str());
    EXPECT_EQ(n, std::wcslen(buffer.data()));
    return buffer.data();
  }

  TempDir dir_;
  PosixEnv env_;
};

TEST_F(PosixIni, ReadingStringsAndIntegers) {
  dir_.Write("test.ini",
             "[File Locations]\r\nLogfiles = Z:\\logs\\here \r\n"
             "[Main]\nLevel=1\nlevel=2\n[Other]\nLevel=9\n[MAIN]\nLevel=3\nOnlyLater=4\n"
             "[S]\nlong=0123456789\nquoted=\"a b\"\nempty=\na=42\nb=7 levels\nc=none\nd=-1\n");
  const std::wstring file = dir_.win("test.ini"), absent = dir_.win("absent.ini");
  const std::wstring host = std::filesystem::path(dir_ / "test.ini").wstring();
  struct Text {
    const wchar_t *section, *key, *fallback;
    const std::wstring& file;
    platform::DWORD size;
    const wchar_t* expected;
  };
  const Text texts[] = {
      {L"file locations", L"LOGFILES", L"d", file, 64, L"Z:\\logs\\here"},  // no case, trimmed
      {L"FILE LOCATIONS", L"logfiles", L"d", file, 64, L"Z:\\logs\\here"},
      {L"Main", L"Level", L"d", file, 64, L"1"},                             // the first match wins
      {L"Main", L"OnlyLater", L"d", file, 64, L"d"},                         // only the first [Main] counts
      {L"Main", L"Missing", L".\\Logfiles", file, 64, L".\\Logfiles"},
      {L"Nowhere", L"Level", L"d", file, 64, L"d"},
      {L"Main", L"Level", L"d", absent, 64, L"d"},
      {L"S", L"long", L"", file, 5, L"0123"},                                // cut to the buffer
      {L"S", L"quoted", L"d", file, 64, L"a b"},
      {L"S", L"empty", L"d", file, 64, L""},
      {L"S", L"a", L"", host, 64, L"42"},                                    // a host path works too
  };
  for (const Text& t : texts)
    EXPECT_EQ(Get(t.section, t.key, t.fallback, t.file, t.size), t.expected) << t.section << "/" << t.key;

  const std::tuple<const wchar_t*, const wchar_t*, const std::wstring&, platform::UINT> ints[] = {
      {L"main", L"LEVEL", file, 1u},  {L"Main", L"Missing", file, 5u}, {L"Main", L"Level", absent, 5u},
      {L"S", L"a", file, 42u},        {L"S", L"b", file, 7u},          {L"S", L"c", file, 0u},
      {L"S", L"d", file, 0xFFFFFFFFu},
  };
  for (const auto& [section, key, in, expected] : ints)
    EXPECT_EQ(env_.GetPrivateProfileIntW(section, key, 5, in.c_str()), expected) << section << "/" << key;
}

TEST_F(PosixIni, WritingCreatesFileSectionAndKeyButNoDirectory) {
  const std::wstring file = dir_.win("new.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"KORU_MFT.DLL", L"Version", L"1.0.0.0", file.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"Other", L"Version", L"2", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"koru_mft.dll", L"Built", L"today", file.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\nBuilt=today\r\n[Other]\r\nVersion=2\r\n");
  EXPECT_FALSE(env_.WritePrivateProfileStringW(L"A", L"k", L"v", dir_.win("no/such/dir.ini").c_str()));
}

TEST_F(PosixIni, WritingReplacesTheKeyAndKeepsTheRest) {
  dir_.Write("keep.ini", "; comment\r\n[A]\r\nx=1\r\nVERSION=old\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  const std::wstring file = dir_.win("keep.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"a", L"Version", L"new", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"), "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"A", L"added", L"4", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"), "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\nadded=4\r\n\r\n[B]\r\nz=3\r\n");
  EXPECT_EQ(Get(L"b", L"Z", L"", file), L"3");
}

TEST(PosixModule, TheProgramAnswersAsZColonPathAndTheLibraryIsUnknown) {
  PosixEnv env;
  wchar_t buffer[4096];
  const platform::DWORD n = env.GetModuleFileNameW(nullptr, buffer, 4096);
  ASSERT_GT(n, 0u);
  const std::wstring expected = platform::WindowsPath(std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(std::wstring(buffer, n), expected);
  EXPECT_EQ(expected.rfind(L"Z:\\", 0), 0u);
  EXPECT_EQ(expected.find(L'/'), std::wstring::npos);

  // Too small: cut, terminated, the full size and ERROR_INSUFFICIENT_BUFFER.
  env.SetLastError(0);
  wchar_t small[5];
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 5), 5u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);
  EXPECT_EQ(std::wstring(small), expected.substr(0, 4));

  // A program without the shared object.
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);
  EXPECT_NE(env.GetModuleHandleW(nullptr), nullptr);
}

TEST(PosixPaths, ZColonIsTheRoot) {
  EXPECT_EQ(platform::HostPath(L"Z:\\usr\\local\\bin\\vmft"), "/usr/local/bin/vmft");
  EXPECT_EQ(platform::HostPath(L"z:\\"), "/");
  EXPECT_EQ(platform::HostPath(L"/usr/bin"), "/usr/bin");
  EXPECT_EQ(platform::HostPath(L"C:\\Windows"), "");
  EXPECT_EQ(platform::HostPath(L".\\Logfiles"), "./Logfiles");
  EXPECT_EQ(platform::WindowsPath("/usr/local/bin/vmft"), L"Z:\\usr\\local\\bin\\vmft");
}

TEST(PosixRegistry, NoHiveIsAttached) {
  PosixEnv env;
  platform::HKEY key = 1;
  EXPECT_EQ(env.RegOpenKeyExW(platform::kHKeyLocalMachine, L"SOFTWARE\\Microsoft", 0, platform::kKeyRead, &key),
            static_cast<platform::LONG>(platform::kErrorFileNotFound));
  EXPECT_EQ(key, 0u);
  platform::OsVersionInfo info;
  info.dwMajorVersion = 9;
  EXPECT_TRUE(env.GetVersionExW(&info));
  EXPECT_EQ(info.dwMajorVersion, 0u);
  platform::DWORD type = 0;
  EXPECT_FALSE(env.GetProductInfo(6, 3, 0, 0, &type));
  EXPECT_EQ(env.GetLastError(), platform::kErrorProcNotFound);
}

TEST(PosixNetwork, DottedQuadThroughTheSystem) {
  PosixEnv env;
  char text[16];
  ASSERT_TRUE(env.InetNtoa(env.HostToNetworkLong(0xC0A80102u), text, sizeof text));
  EXPECT_STREQ(text, "192.168.1.2");
  ASSERT_TRUE(env.InetNtoa(0xFFFFFFFFu, text, sizeof text));
  EXPECT_STREQ(text, "255.255.255.255");
  EXPECT_FALSE(env.InetNtoa(0x01020304u, text, 4));
}

}  // namespace

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

TEST_F(OpenedDisk, EachHandleReadsAtItsOwnPosition) {
  HANDLE a = Open(L"\\\\.\\PhysicalDrive0"), b = Open(L"\\\\.\\PhysicalDrive0");
  EXPECT_EQ(Read(a, 16, 4096), Slice(4096, 16));
  EXPECT_EQ(Read(b, 16, 8192), Slice(8192, 16));
  EXPECT_EQ(Read(a, 16), Slice(4096 + 16, 16));  // b's seek and read left a where it was
  env_.CloseHandle(a);
  env_.CloseHandle(b);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      HANDLE h = Open(L"\\\\.\\PhysicalDrive0");
      for (int i = 0; i < 200; ++i) {
        const std::size_t at = static_cast<std::size_t>(t * 997 + i * 4099) % (image_.size() - 64);
        if (Read(h, 64, static_cast<std::int64_t>(at)) != Slice(at, 64)) ++wrong;
      }
      env_.CloseHandle(h);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace platform

#endif  // _WIN32
