// PosixEnv's Windows personality: INI profiles, module names and paths.
#ifndef _WIN32

#include "platform/posix_env.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/temp_dir.h"

namespace {

using koru::test::TempDir;
using platform::PosixEnv;

class PosixIni : public ::testing::Test {
 protected:
  std::wstring Get(const wchar_t* section, const wchar_t* key, const wchar_t* fallback = L"dflt",
                   const std::string& file = "test.ini", platform::DWORD size = 64) {
    std::vector<wchar_t> buffer(size + 1, L'#');
    const platform::DWORD n =
        env_.GetPrivateProfileStringW(section, key, fallback, buffer.data(), size, dir_.win(file).c_str());
    EXPECT_EQ(n, std::wcslen(buffer.data()));
    return buffer.data();
  }

  TempDir dir_;
  PosixEnv env_;
};

TEST_F(PosixIni, SectionsAndKeysMatchWithoutRegardToCase) {
  dir_.Write("test.ini", "[File Locations]\r\nLogfiles = Z:\\logs\\here \r\n");
  EXPECT_EQ(Get(L"file locations", L"LOGFILES"), L"Z:\\logs\\here");
  EXPECT_EQ(Get(L"FILE LOCATIONS", L"logfiles"), L"Z:\\logs\\here");
}

TEST_F(PosixIni, TheFirstMatchWins) {
  dir_.Write("test.ini",
             "[Main]\nLevel=1\nlevel=2\n[Other]\nLevel=9\n[MAIN]\nLevel=3\nOnlyLater=4\n");
  EXPECT_EQ(Get(L"Main", L"Level"), L"1");
  EXPECT_EQ(Get(L"Main", L"OnlyLater"), L"dflt");  // only the first [Main] is searched
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"main", L"LEVEL", 5, dir_.win("test.ini").c_str()), 1u);
}

TEST_F(PosixIni, DefaultsWhenTheFileSectionOrKeyIsMissing) {
  dir_.Write("test.ini", "[Main]\nLevel=1\n");
  EXPECT_EQ(Get(L"Main", L"Missing"), L"dflt");
  EXPECT_EQ(Get(L"Nowhere", L"Level"), L"dflt");
  EXPECT_EQ(Get(L"Main", L"Level", L"dflt", "absent.ini"), L"dflt");
  EXPECT_EQ(Get(L"Main", L"Missing", L".\\Logfiles"), L".\\Logfiles");
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"Main", L"VMFT_TraceLevel", 5, dir_.win("absent.ini").c_str()), 5u);
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"Main", L"Missing", 5, dir_.win("test.ini").c_str()), 5u);
}

TEST_F(PosixIni, ValuesAreCutToTheBufferAndUnquoted) {
  dir_.Write("test.ini", "[S]\nlong=0123456789\nquoted=\"a b\"\nempty=\n");
  EXPECT_EQ(Get(L"S", L"long", L"", "test.ini", 5), L"0123");
  EXPECT_EQ(Get(L"S", L"quoted"), L"a b");
  EXPECT_EQ(Get(L"S", L"empty"), L"");
}

TEST_F(PosixIni, IntegersReadTheirLeadingDigits) {
  dir_.Write("test.ini", "[S]\na=42\nb=7 levels\nc=none\nd=-1\n");
  const std::wstring file = dir_.win("test.ini");
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"S", L"a", 5, file.c_str()), 42u);
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"S", L"b", 5, file.c_str()), 7u);
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"S", L"c", 5, file.c_str()), 0u);
  EXPECT_EQ(env_.GetPrivateProfileIntW(L"S", L"d", 5, file.c_str()), 0xFFFFFFFFu);
}

TEST_F(PosixIni, WritingCreatesFileSectionAndKey) {
  const std::wstring file = dir_.win("new.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"KORU_MFT.DLL", L"Version", L"1.0.0.0", file.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"Other", L"Version", L"2", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"koru_mft.dll", L"Built", L"today", file.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\nBuilt=today\r\n[Other]\r\nVersion=2\r\n");
}

TEST_F(PosixIni, WritingReplacesTheKeyAndKeepsTheRest) {
  dir_.Write("keep.ini", "; comment\r\n[A]\r\nx=1\r\nVERSION=old\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  const std::wstring file = dir_.win("keep.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"a", L"Version", L"new", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"), "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"A", L"added", L"4", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"), "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\nadded=4\r\n\r\n[B]\r\nz=3\r\n");
  EXPECT_EQ(Get(L"b", L"Z", L"", "keep.ini"), L"3");
}

TEST_F(PosixIni, WritingIntoAMissingDirectoryFails) {
  EXPECT_FALSE(env_.WritePrivateProfileStringW(L"A", L"k", L"v", dir_.win("no/such/dir.ini").c_str()));
}

TEST_F(PosixIni, HostPathsAreAcceptedToo) {
  dir_.Write("host.ini", "[S]\nk=v\n");
  wchar_t buffer[16];
  const std::wstring host = std::filesystem::path(dir_ / "host.ini").wstring();
  env_.GetPrivateProfileStringW(L"S", L"k", L"", buffer, 16, host.c_str());
  EXPECT_STREQ(buffer, L"v");
}

TEST(PosixModule, TheProgramAnswersAsZColonPath) {
  PosixEnv env;
  wchar_t buffer[4096];
  const platform::DWORD n = env.GetModuleFileNameW(nullptr, buffer, 4096);
  ASSERT_GT(n, 0u);
  const std::wstring expected =
      platform::WindowsPath(std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(std::wstring(buffer, n), expected);
  EXPECT_EQ(expected.rfind(L"Z:\\", 0), 0u);
  EXPECT_EQ(expected.find(L'/'), std::wstring::npos);

  // Too small: cut, terminated, the full size and ERROR_INSUFFICIENT_BUFFER.
  env.SetLastError(0);
  wchar_t small[5];
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 5), 5u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);
  EXPECT_EQ(std::wstring(small), expected.substr(0, 4));
}

TEST(PosixModule, TheLibraryNameIsUnknownToAProgramWithoutTheSharedObject) {
  PosixEnv env;
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

#endif  // _WIN32
