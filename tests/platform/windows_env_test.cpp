// WindowsEnv against the real Win32 (or Wine): the shapes the core relies on, the
// version resource of KORU_MFT.DLL, and the MFT of an NTFS volume read through \\.\D:.
#include "platform/windows_env.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/ntfs_layout.h"
#include "mft/mft.h"

namespace koru {
namespace {

using platform::DWORD;
using platform::Env;
using platform::WindowsEnv;

bool UnderWine() { return platform::windows::WineVersion() != nullptr; }

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

platform::HANDLE Open(Env& env, const std::wstring& path, DWORD access = platform::kGenericRead,
                      DWORD disposition = platform::kOpenExisting) {
  return env.CreateFileW(path.c_str(), access, platform::kFileShareRead | platform::kFileShareWrite, disposition, 0);
}

TEST(WindowsEnv, ModuleFileNameReportsAShortBuffer) {
  WindowsEnv env;
  wchar_t full[1024] = {};
  ASSERT_GT(env.GetModuleFileNameW(nullptr, full, 1024), 4u);
  EXPECT_NE(std::wstring(full).find(L"platform_tests.exe"), std::wstring::npos);
  // The core grows its buffer while error 122 comes back: the call must say so.
  wchar_t small[4] = {};
  env.SetLastError(0);
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 4), 4u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);  // termination differs: XP and Wine leave none
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);  // statically linked here
}

TEST(WindowsEnv, PredefinedRegistryKeysOpen) {
  // Env carries HKEY_LOCAL_MACHINE as 0x80000002; 64-bit Windows wants it sign-extended.
  WindowsEnv env;
  platform::HKEY key = 0;
  ASSERT_EQ(env.RegOpenKeyExW(platform::kHKeyLocalMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0,
                              platform::kKeyRead, &key),
            0);
  DWORD type = 0;
  DWORD size = 0;
  EXPECT_EQ(env.RegQueryValueExW(key, L"CurrentVersion", &type, nullptr, &size), 0);
  EXPECT_EQ(type, platform::kRegSz);
  std::vector<wchar_t> text(size / sizeof(wchar_t) + 1, L'\0');
  EXPECT_EQ(env.RegQueryValueExW(key, L"CurrentVersion", &type, text.data(), &size), 0);
  EXPECT_NE(std::wstring(text.data()).find(L'.'), std::wstring::npos);
  EXPECT_EQ(env.RegCloseKey(key), 0);
}

TEST(WindowsEnv, SystemInformationAndOptionalExports) {
  WindowsEnv env;
  platform::OsVersionInfo info;
  ASSERT_TRUE(env.GetVersionExW(&info));
  EXPECT_GE(info.dwMajorVersion, 6u);
  EXPECT_EQ(info.dwPlatformId, 2u);  // VER_PLATFORM_WIN32_NT
  DWORD product = 0xFFFFFFFFu;
  if (env.GetProductInfo(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &product))
    EXPECT_NE(product, 0xFFFFFFFFu);
  else
    EXPECT_EQ(env.GetLastError(), platform::kErrorProcNotFound);
  wchar_t system[260] = {};
  EXPECT_GT(env.GetSystemDirectoryW(system, 260), 3u);
  if (UnderWine()) GTEST_SKIP() << "Wine " << platform::windows::WineVersion() << " has no FindFirstFileNameW";
  DWORD length = 0;
  env.FindFirstFileNameW(L"C:\\no-such-file", 0, &length, nullptr);
  EXPECT_NE(env.GetLastError(), platform::kErrorCallNotImplemented);
}

#if defined(KORU_DLL_PATH)
TEST(WindowsEnv, DllVersionResourceHasTranslationAndFileVersion) {
  WindowsEnv env;
  const std::wstring dll = Wide(KORU_DLL_PATH);
  const DWORD size = env.GetFileVersionInfoSizeW(dll.c_str());
  ASSERT_GT(size, 0u) << "no version resource in " << KORU_DLL_PATH << ", error " << env.GetLastError();
  std::vector<unsigned char> block(size);
  ASSERT_TRUE(env.GetFileVersionInfoW(dll.c_str(), size, block.data()));
  const void* value = nullptr;
  platform::UINT length = 0;
  ASSERT_TRUE(env.VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", &value, &length));
  ASSERT_GE(length, 4u);
  std::uint16_t translation[2];
  std::memcpy(translation, value, sizeof translation);
  EXPECT_EQ(translation[0] << 16 | translation[1], 0x040904B0);  // English (US), Unicode: the key below
  ASSERT_TRUE(env.VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileVersion", &value, &length));
  EXPECT_EQ(std::wstring(static_cast<const wchar_t*>(value)), Wide(KORU_VERSION_STRING));
}
#endif

std::string FirstLine(const std::filesystem::path& file, std::string otherwise = "") {
  std::ifstream in(file);
  std::getline(in, otherwise);
  return otherwise;
}

// Drive D: is an mkntfs image under Wine (tests/platform/wine_drive_d.sh).
class WineDriveD : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(KORU_WINE_DRIVE_DIR)
    if (!UnderWine()) GTEST_SKIP() << "drive D: is mapped to a test image only under Wine";
    dir_ = KORU_WINE_DRIVE_DIR;
    const std::string why = FirstLine(dir_ / "why-missing.txt");
    if (!why.empty()) GTEST_SKIP() << "no test image as D:: " << why;
#else
    GTEST_SKIP() << "drive D: is mapped to a test image only by the Wine run of a cross build";
#endif
  }

  // Through WindowsEnv as the core reads: CreateFileW, SetFilePointerEx, ReadFile.
  std::vector<std::byte> DriveBytes(std::uint64_t offset, DWORD count) {
    platform::HANDLE h = Open(env_, L"\\\\.\\D:");
    EXPECT_TRUE(platform::IsValid(h)) << "CreateFileW(\\\\.\\D:) failed: " << env_.GetLastError();
    std::vector<std::byte> out(count);
    std::int64_t at = -1;
    DWORD done = 0;
    const bool ok = env_.SetFilePointerEx(h, static_cast<std::int64_t>(offset), &at, platform::kFileBegin) &&
                    env_.ReadFile(h, out.data(), count, &done);
    EXPECT_TRUE(ok) << env_.GetLastError();
    EXPECT_EQ(at, static_cast<std::int64_t>(offset));
    EXPECT_EQ(done, count);
    env_.CloseHandle(h);
    return ok ? out : std::vector<std::byte>{};
  }
  WindowsEnv env_;
  std::filesystem::path dir_;
};

TEST_F(WineDriveD, MftRangesMatchTheLinuxBuild) {
  std::ifstream linux_ranges(dir_ / "ranges.txt");
  if (!linux_ranges)
    GTEST_SKIP() << "nothing to compare with: " << FirstLine(dir_ / "ranges-missing.txt", "ranges.txt missing");
  std::ostringstream expected;
  expected << linux_ranges.rdbuf();

  const auto boot = DriveBytes(0, 512);
  ASSERT_EQ(boot.size(), 512u);
  MFT mft;
  std::wcscpy(mft.m_wszPhysicalDrive, L"\\\\.\\D:");
  mft.m_wcDriveLetter = L'D';
  mft.m_dwBytesPerSector = 512;
  mft.m_dwSectorsPerCluster = le8Or0(boot, boot::kSectorsPerCluster);
  mft.m_uiVolumeStartSector = 0;
  mft.m_uiMftSector = le64Or0(boot, boot::kMftCluster) * mft.m_dwSectorsPerCluster;
  SectorRanges ranges;
  const bool ok = mft.GetMftRanges(ranges);
  mft.CloseHandles();
  ASSERT_TRUE(ok);
  std::ostringstream got;
  for (const auto& [first, end] : ranges) got << first << " " << end << "\n";
  EXPECT_EQ(got.str(), expected.str());
  EXPECT_FALSE(ranges.empty());
}

}  // namespace
}  // namespace koru
