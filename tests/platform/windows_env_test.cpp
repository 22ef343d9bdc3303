// WindowsEnv against the real Win32 (or Wine): what it adds to the calls (registry keys,
// exports looked up at run time), the version resource of KORU_MFT.DLL, and the MFT of
// an NTFS volume read through \\.\D:.
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
using platform::WindowsEnv;

bool UnderWine() { return platform::windows::WineVersion() != nullptr; }

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

TEST(WindowsEnv, PredefinedRegistryKeysOpen) {
  // Env carries HKEY_LOCAL_MACHINE as 0x80000002; 64-bit Windows wants it sign-extended.
  WindowsEnv env;
  platform::HKEY key = 0;
  ASSERT_EQ(env.RegOpenKeyExW(platform::kHKeyLocalMachine, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0,
                              platform::kKeyRead, &key),
            0);
  DWORD type = 0, size = 0;
  EXPECT_EQ(env.RegQueryValueExW(key, L"CurrentVersion", &type, nullptr, &size), 0);
  EXPECT_EQ(type, platform::kRegSz);
  EXPECT_EQ(env.RegCloseKey(key), 0);
}

// Exports looked up at run time, where an older Windows may lack them.
TEST(WindowsEnv, OptionalExports) {
  WindowsEnv env;
  platform::OsVersionInfo info;
  ASSERT_TRUE(env.GetVersionExW(&info));
  DWORD product = 0xFFFFFFFFu;
  if (env.GetProductInfo(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &product))
    EXPECT_NE(product, 0xFFFFFFFFu);
  else
    EXPECT_EQ(env.GetLastError(), platform::kErrorProcNotFound);
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
  const auto* translation = static_cast<const std::uint16_t*>(value);
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
TEST(WineDriveD, MftRangesMatchTheLinuxBuild) {
#if defined(KORU_WINE_DRIVE_DIR)
  if (!UnderWine()) GTEST_SKIP() << "drive D: is mapped to a test image only under Wine";
  const std::filesystem::path dir = KORU_WINE_DRIVE_DIR;
#else
  const std::filesystem::path dir;
  GTEST_SKIP() << "drive D: is mapped to a test image only by the Wine run of a cross build";
#endif
  if (const std::string why = FirstLine(dir / "why-missing.txt"); !why.empty())
    GTEST_SKIP() << "no test image as D:: " << why;
  std::ifstream linux_ranges(dir / "ranges.txt");
  if (!linux_ranges)
    GTEST_SKIP() << "nothing to compare with: " << FirstLine(dir / "ranges-missing.txt", "ranges.txt missing");
  std::ostringstream expected;
  expected << linux_ranges.rdbuf();

  // The boot sector from the image file; the MFT through \\.\D:, as the core reads it.
  std::vector<std::byte> boot(512);
  std::ifstream(dir / "image.ntfs", std::ios::binary).read(reinterpret_cast<char*>(boot.data()), 512);
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
