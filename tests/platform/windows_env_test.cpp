// WindowsEnv against the real Win32 (or Wine): the shapes the core relies on, the
// version resource of KORU_MFT.DLL, and raw reads of an NTFS volume through \\.\D:.
#include "platform/windows_env.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "disk/boot_sector_layout.h"
#include "mft/mft.h"
#include "support/temp_dir.h"

namespace koru {
namespace {

using platform::DWORD;
using platform::Env;
using platform::WindowsEnv;

bool UnderWine() { return platform::windows::WineVersion() != nullptr; }

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

TEST(WindowsEnv, IsTheDefaultBackend) {
  EXPECT_NE(dynamic_cast<WindowsEnv*>(&Env::Default()), nullptr);
}

TEST(WindowsEnv, ModuleFileNameTruncatesAndReportsInsufficientBuffer) {
  WindowsEnv env;
  wchar_t full[1024] = {};
  const DWORD length = env.GetModuleFileNameW(nullptr, full, 1024);
  ASSERT_GT(length, 4u);
  EXPECT_NE(std::wstring(full).find(L"platform_tests.exe"), std::wstring::npos);
  // The core grows its buffer while error 122 comes back: the call must say so.
  wchar_t small[4] = {};
  env.SetLastError(0);
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 4), 4u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);  // termination differs: XP and Wine leave none
  // Statically linked here: no module answers to the DLL's name.
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);
}

TEST(WindowsEnv, FilesKeepTheirPositionAndReportWin32Errors) {
  WindowsEnv env;
  test::TempDir dir;
  const std::wstring path = dir.path().wstring() + L"\\data.bin";
  platform::HANDLE h = env.CreateFileW(path.c_str(), platform::kGenericRead | platform::kGenericWrite, 0,
                                       platform::kCreateAlways, 0);
  ASSERT_TRUE(platform::IsValid(h)) << env.GetLastError();
  DWORD done = 0;
  ASSERT_TRUE(env.WriteFile(h, "0123456789", 10, &done));
  EXPECT_EQ(done, 10u);
  std::int64_t at = -1;
  ASSERT_TRUE(env.SetFilePointerEx(h, -4, &at, platform::kFileEnd));
  EXPECT_EQ(at, 6);
  char buffer[8] = {};
  ASSERT_TRUE(env.ReadFile(h, buffer, 8, &done));
  EXPECT_EQ(done, 4u);  // short at the end, not a failure
  EXPECT_EQ(std::string(buffer, 4), "6789");
  EXPECT_FALSE(env.SetFilePointerEx(h, -1, &at, platform::kFileBegin));
  EXPECT_EQ(env.GetLastError(), platform::kErrorNegativeSeek);
  EXPECT_TRUE(env.CloseHandle(h));

  EXPECT_FALSE(platform::IsValid(env.CreateFileW((path + L".missing").c_str(), platform::kGenericRead, 0,
                                                 platform::kOpenExisting, 0)));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(platform::IsValid(env.CreateFileW((dir.path().wstring() + L"\\no\\such.bin").c_str(),
                                                 platform::kGenericRead, 0, platform::kOpenExisting, 0)));
  EXPECT_EQ(env.GetLastError(), platform::kErrorPathNotFound);
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
  EXPECT_GT(size, 2u);
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
  if (env.GetProductInfo(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &product)) {
    EXPECT_NE(product, 0xFFFFFFFFu);
  } else {
    EXPECT_EQ(env.GetLastError(), platform::kErrorProcNotFound);
  }
  wchar_t system[260] = {};
  EXPECT_GT(env.GetSystemDirectoryW(system, 260), 3u);
  platform::Luid luid;
  EXPECT_TRUE(env.LookupPrivilegeValueW(L"SeBackupPrivilege", &luid));
  EXPECT_FALSE(env.LookupPrivilegeValueW(L"SeNoSuchPrivilege", &luid));
  EXPECT_EQ(env.GetLastError(), platform::kErrorNoSuchPrivilege);

  if (UnderWine()) GTEST_SKIP() << "Wine " << platform::windows::WineVersion() << " has no FindFirstFileNameW";
  EXPECT_NE(platform::windows::FindFirstFileNameWEntry(), nullptr);
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
  EXPECT_EQ(translation[0], 0x0409);
  EXPECT_EQ(translation[1], 0x04B0);
  ASSERT_TRUE(env.VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\FileVersion", &value, &length));
  EXPECT_EQ(std::wstring(static_cast<const wchar_t*>(value)), Wide(KORU_VERSION_STRING));
}
#endif

TEST(WindowsEnv, PhysicalDriveGeometry) {
  if (UnderWine()) GTEST_SKIP() << "Wine cannot open \\\\.\\PhysicalDriveN for reading (error 1)";
  WindowsEnv env;
  platform::HANDLE disk = env.CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead,
                                          platform::kFileShareRead | platform::kFileShareWrite,
                                          platform::kOpenExisting, 0);
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

// Drive D: is an mkntfs image under Wine (tests/platform/wine_drive_d.sh).
class WineDriveD : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(KORU_WINE_DRIVE_DIR)
    if (!UnderWine()) GTEST_SKIP() << "drive D: is mapped to a test image only under Wine";
    const std::filesystem::path dir(KORU_WINE_DRIVE_DIR);
    std::ifstream why(dir / "why-missing.txt");
    std::string reason;
    if (why && std::getline(why, reason)) GTEST_SKIP() << "no test image as D:: " << reason;
    std::ifstream in(dir / "image.ntfs", std::ios::binary);
    ASSERT_TRUE(in) << "the image of drive D: is missing from " << KORU_WINE_DRIVE_DIR;
    image_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    dir_ = dir;
#else
    GTEST_SKIP() << "drive D: is mapped to a test image only by the Wine run of a cross build";
#endif
  }

  // What the Linux build reads from the image file, byte for byte.
  std::vector<unsigned char> ImageBytes(std::uint64_t offset, std::size_t count) const {
    if (offset > image_.size() || count > image_.size() - offset) return {};
    return {image_.begin() + static_cast<std::ptrdiff_t>(offset),
            image_.begin() + static_cast<std::ptrdiff_t>(offset + count)};
  }

  // Through WindowsEnv as the core reads: CreateFileW, SetFilePointerEx, ReadFile.
  std::vector<unsigned char> DriveBytes(std::uint64_t offset, DWORD count) {
    platform::HANDLE h = env_.CreateFileW(L"\\\\.\\D:", platform::kGenericRead,
                                          platform::kFileShareRead | platform::kFileShareWrite,
                                          platform::kOpenExisting, 0);
    EXPECT_TRUE(platform::IsValid(h)) << "CreateFileW(\\\\.\\D:) failed: " << env_.GetLastError();
    if (!platform::IsValid(h)) return {};
    std::vector<unsigned char> out(count);
    std::int64_t at = -1;
    DWORD done = 0;
    const bool ok = env_.SetFilePointerEx(h, static_cast<std::int64_t>(offset), &at, platform::kFileBegin) &&
                    env_.ReadFile(h, out.data(), count, &done);
    EXPECT_TRUE(ok) << env_.GetLastError();
    EXPECT_EQ(at, static_cast<std::int64_t>(offset));
    EXPECT_EQ(done, count);
    env_.CloseHandle(h);
    return ok ? out : std::vector<unsigned char>{};
  }

  static std::uint64_t Le(const std::vector<unsigned char>& b, std::size_t at, int bytes) {
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | b.at(at + static_cast<std::size_t>(i));
    return v;
  }

  WindowsEnv env_;
  std::vector<unsigned char> image_;
  std::filesystem::path dir_;
};

TEST_F(WineDriveD, BootSectorAndFirstMftRecordMatchTheImage) {
  const auto boot = DriveBytes(0, 512);
  ASSERT_EQ(boot, ImageBytes(0, 512));
  ASSERT_EQ(std::memcmp(boot.data() + boot::kOemId, boot::kNtfsOemId, boot::kOemIdLength), 0);
  const std::uint64_t bytes_per_sector = Le(boot, boot::kBytesPerSector, 2);
  const std::uint64_t sectors_per_cluster = Le(boot, boot::kSectorsPerCluster, 1);
  const std::uint64_t mft_offset = Le(boot, boot::kMftCluster, 8) * sectors_per_cluster * bytes_per_sector;
  const auto record = DriveBytes(mft_offset, 1024);
  ASSERT_EQ(record.size(), 1024u);
  EXPECT_EQ(std::memcmp(record.data(), "FILE", 4), 0);
  EXPECT_EQ(record, ImageBytes(mft_offset, 1024));
}

TEST_F(WineDriveD, MftRangesMatchTheLinuxBuild) {
  std::ifstream linux_ranges(dir_ / "ranges.txt");
  if (!linux_ranges) {
    std::ifstream why(dir_ / "ranges-missing.txt");
    std::string reason = "ranges.txt missing";
    std::getline(why, reason);
    GTEST_SKIP() << "nothing to compare with: " << reason;
  }
  std::ostringstream expected;
  expected << linux_ranges.rdbuf();

  const auto boot = DriveBytes(0, 512);
  ASSERT_EQ(boot.size(), 512u);
  MFT mft;
  std::wcscpy(mft.m_wszPhysicalDrive, L"\\\\.\\D:");
  mft.m_wcDriveLetter = L'D';
  mft.m_dwBytesPerSector = 512;
  mft.m_dwSectorsPerCluster = static_cast<DWORD>(Le(boot, boot::kSectorsPerCluster, 1));
  mft.m_uiVolumeStartSector = 0;
  mft.m_uiMftSector = Le(boot, boot::kMftCluster, 8) * mft.m_dwSectorsPerCluster;
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
