// WindowsEnv against the real Win32 (or Wine): the shapes the core relies on, the
// version resource of KORU_MFT.DLL, and raw reads of an NTFS volume through \\.\D:.
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
#include "support/temp_dir.h"
#include "support/temp_disk.h"

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

TEST(WindowsEnv, FilesKeepTheirPositionAndReportWin32Errors) {
  WindowsEnv env;
  test::TempDir dir;
  const std::wstring path = dir.path().wstring() + L"\\data.bin";
  platform::HANDLE h = Open(env, path, platform::kGenericRead | platform::kGenericWrite, platform::kCreateAlways);
  ASSERT_TRUE(platform::IsValid(h)) << env.GetLastError();
  DWORD done = 0;
  ASSERT_TRUE(env.WriteFile(h, "0123456789", 10, &done));
  EXPECT_EQ(done, 10u);
  std::int64_t at = -1;
  ASSERT_TRUE(env.SetFilePointerEx(h, 6, &at, platform::kFileBegin));
  EXPECT_EQ(at, 6);
  char buffer[8] = {};
  ASSERT_TRUE(env.ReadFile(h, buffer, 8, &done));
  EXPECT_EQ(std::string(buffer, done), "6789");  // short at the end, not a failure
  EXPECT_TRUE(env.CloseHandle(h));

  const struct { std::wstring path; DWORD error; } missing[] = {
      {path + L".missing", platform::kErrorFileNotFound},
      {dir.path().wstring() + L"\\no\\such.bin", platform::kErrorPathNotFound}};
  for (const auto& m : missing) {
    EXPECT_FALSE(platform::IsValid(Open(env, m.path)));
    EXPECT_EQ(env.GetLastError(), m.error);
  }
  EXPECT_TRUE(env.PathFileExistsW(path.c_str()));
  EXPECT_TRUE(env.PathIsDirectoryW(dir.path().wstring().c_str()));
  EXPECT_FALSE(env.PathIsDirectoryW(path.c_str()));
  EXPECT_TRUE(env.DeleteFileW(path.c_str()));
  EXPECT_FALSE(env.PathFileExistsW(path.c_str()));
}

TEST(WindowsEnv, ProfileFilesAreCaseInsensitive) {
  WindowsEnv env;
  test::TempDir dir;
  const std::wstring ini = dir.path().wstring() + L"\\kor.ini";
  ASSERT_TRUE(env.WritePrivateProfileStringW(L"File Locations", L"Log Files", L"D:\\Logs", ini.c_str()));
  ASSERT_TRUE(env.WritePrivateProfileStringW(L"Main", L"VMFT_TraceLevel", L"3", ini.c_str()));
  wchar_t value[64] = {};
  EXPECT_EQ(env.GetPrivateProfileStringW(L"FILE LOCATIONS", L"log files", L".\\Logfiles", value, 64, ini.c_str()), 7u);
  EXPECT_STREQ(value, L"D:\\Logs");
  EXPECT_EQ(env.GetPrivateProfileStringW(L"File Locations", L"Logfiles", L".\\Logfiles", value, 64, ini.c_str()),
            10u);
  EXPECT_STREQ(value, L".\\Logfiles");
  EXPECT_EQ(env.GetPrivateProfileIntW(L"main", L"vmft_tracelevel", 7, ini.c_str()), 3u);
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

TEST(WindowsEnv, PhysicalDriveGeometry) {
  if (UnderWine()) GTEST_SKIP() << "Wine cannot open \\\\.\\PhysicalDriveN for reading (error 1)";
  WindowsEnv env;
  platform::HANDLE disk = Open(env, L"\\\\.\\PhysicalDrive0");
  if (!platform::IsValid(disk) && env.GetLastError() == platform::kErrorAccessDenied)
    GTEST_SKIP() << "reading \\\\.\\PhysicalDrive0 needs administrator rights";
  ASSERT_TRUE(platform::IsValid(disk)) << env.GetLastError();
  platform::DISK_GEOMETRY_EX geometry{};
  DWORD returned = 0;
  EXPECT_TRUE(env.DeviceIoControl(disk, platform::kIoctlDiskGetDriveGeometryEx, nullptr, 0, &geometry,
                                  sizeof geometry, &returned));
  EXPECT_GE(returned, sizeof(platform::DISK_GEOMETRY));
  EXPECT_TRUE(geometry.Geometry.BytesPerSector == 512 || geometry.Geometry.BytesPerSector == 4096);
  env.CloseHandle(disk);
}

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
    image_ = test::ReadFileBytes((dir_ / "image.ntfs").string());
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
  // What the Linux build reads from the image file, byte for byte.
  std::vector<std::byte> ImageBytes(std::size_t offset, std::size_t count) const {
    const Bytes part = Sub(image_, offset, count);
    return {part.begin(), part.end()};
  }

  WindowsEnv env_;
  std::vector<std::byte> image_;
  std::filesystem::path dir_;
};

TEST_F(WineDriveD, BootSectorAndFirstMftRecordMatchTheImage) {
  const auto boot = DriveBytes(0, 512);
  ASSERT_EQ(boot, ImageBytes(0, 512));
  ASSERT_TRUE(boot::HasOemId(boot, boot::kNtfsOemId));
  const std::uint64_t mft_offset = le64Or0(boot, boot::kMftCluster) * le8Or0(boot, boot::kSectorsPerCluster) *
                                   le16Or0(boot, boot::kBytesPerSector);
  const auto record = DriveBytes(mft_offset, 1024);
  ASSERT_EQ(record.size(), 1024u);
  EXPECT_EQ(std::memcmp(record.data(), "FILE", 4), 0);
  EXPECT_EQ(record, ImageBytes(mft_offset, 1024));
}

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
