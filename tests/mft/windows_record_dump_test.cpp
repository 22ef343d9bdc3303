// Under Wine, drive E: is an mkntfs image (tests/mft/wine_drive_e.sh): its records,
// read raw through \\.\E: by WindowsEnv, must dump as the Linux vmft dumps them from
// the image file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "mft/mft.h"
#include "platform/device_io.h"
#include "platform/windows_env.h"

namespace koru {
namespace {

TEST(WineDriveE, RecordDumpsThroughTheVolumeMatchTheLinuxBuild) {
#if defined(KORU_WINE_DRIVE_E_DIR)
  if (platform::windows::WineVersion() == nullptr) GTEST_SKIP() << "drive E: is a test image only under Wine";
  const std::filesystem::path dir = KORU_WINE_DRIVE_E_DIR;
  std::string why;
  std::getline(std::ifstream(dir / "why-missing.txt"), why);
  if (!why.empty()) GTEST_SKIP() << "no test image as E:: " << why;

  MFT mft;
  std::wcscpy(mft.m_wszPhysicalDrive, L"\\\\.\\E:");
  mft.m_wcDriveLetter = L'E';
  mft.m_dwBytesPerSector = 512;
  platform::DWORD error = 0;
  ASSERT_TRUE(mft.OpenDisk(&error)) << error;
  std::byte boot[512];
  ASSERT_TRUE(platform::ReadAt(platform::Env::Default(), mft.m_hDisk, 0, boot, 512).ok());
  mft.m_dwSectorsPerCluster = le8Or0(boot, boot::kSectorsPerCluster);
  const std::uint64_t mft_sector = le64Or0(boot, boot::kMftCluster) * mft.m_dwSectorsPerCluster;
  int compared = 0;
  for (int n = 0; std::filesystem::exists(dir / ("record-" + std::to_string(n) + ".txt")); ++n, ++compared) {
    SCOPED_TRACE(n);
    std::ostringstream linux_dump;
    linux_dump << std::ifstream(dir / ("record-" + std::to_string(n) + ".txt"), std::ios::binary).rdbuf();
    mft.m_uiMftSector = mft_sector + 2 * n;
    std::wostringstream os;
    ASSERT_TRUE(mft.Read(os));
    EXPECT_EQ(Utf8FromWide(os.str()), linux_dump.str());
  }
  mft.CloseHandles();
  EXPECT_EQ(compared, 16);
#else
  GTEST_SKIP() << "drive E: is mapped to a test image only by the Wine run of a cross build";
#endif
}

}  // namespace
}  // namespace koru
