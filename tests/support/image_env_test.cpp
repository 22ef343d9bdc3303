// What the Windows runs of the disk and MFT tests rely on beyond what those tests
// check themselves: the image never reaches the real system's devices, a bare
// volume carries the name the Linux personality gives it, and reads end as a disk's.
#include "support/image_env.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/temp_disk.h"

namespace koru::test {
namespace {

std::vector<std::byte> BareNtfs(std::size_t sectors) {
  std::vector<std::byte> disk(sectors * 512);
  PutText(disk, 3, "NTFS    ");
  Put16(disk, 0x0B, 4096);
  Put32(disk, 0x1B8, 0xA1B2C3D4);
  disk.back() = std::byte{0x5A};
  return disk;
}

platform::HANDLE Open(platform::Env& env, const wchar_t* path, DWORD access = platform::kGenericRead) {
  return env.CreateFileW(path, access, platform::kFileShareRead | platform::kFileShareWrite,
                         platform::kOpenExisting, 0);
}

TEST(ImageEnv, BareVolumeIsDiskZeroAndVolumeC) {
  FaultEnv inner(platform::Env::Default());
  ImageEnv env(inner, BareNtfs(16), 0);
  EXPECT_EQ(env.sector_size(), 4096u);  // the boot sector's own
  wchar_t name[64] = {};
  ASSERT_TRUE(env.GetVolumeNameForVolumeMountPointW(L"c:\\", name, 64));
  EXPECT_STREQ(name, L"\\\\?\\Volume{A1B2C3D4-4B4F-5255-0000-000000000000}\\");
  EXPECT_FALSE(env.GetVolumeNameForVolumeMountPointW(L"D:\\", name, 64));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  for (const wchar_t* path : {L"\\\\.\\C:", L"\\\\?\\Volume{a1b2c3d4-4b4f-5255-0000-000000000000}"}) {
    platform::HANDLE volume = Open(env, path);
    ASSERT_TRUE(platform::IsValid(volume)) << path;
    unsigned char out[64] = {};
    DWORD returned = 0;
    ASSERT_TRUE(
        env.DeviceIoControl(volume, platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, out, 64, &returned));
    platform::DISK_EXTENT extent{};
    std::memcpy(&extent, out + platform::kVolumeDiskExtentsHeader, sizeof extent);
    EXPECT_EQ(returned, 32u);
    EXPECT_EQ(extent.ExtentLength, 16 * 512);
    EXPECT_TRUE(env.CloseHandle(volume));
  }
  EXPECT_EQ(inner.Count(Call::CreateFileW) + inner.Count(Call::DeviceIoControl), 0);  // all served from the image
}

TEST(ImageEnv, DiskReadsAreShortAtTheEndAndNeverWrite) {
  FaultEnv inner(platform::Env::Default());
  ImageEnv env(inner, BareNtfs(4), 512);
  EXPECT_EQ(env.sector_size(), 512u);  // the size given wins over the boot sector's
  platform::HANDLE disk = Open(env, L"\\\\.\\PHYSICALDRIVE0");
  ASSERT_TRUE(platform::IsValid(disk));
  std::int64_t at = 0;
  ASSERT_TRUE(env.SetFilePointerEx(disk, 4 * 512 - 2, &at, platform::kFileBegin));
  unsigned char buffer[8] = {};
  DWORD read = 0;
  ASSERT_TRUE(env.ReadFile(disk, buffer, 8, &read));
  EXPECT_EQ(read, 2u);
  EXPECT_EQ(buffer[1], 0x5A);
  ASSERT_TRUE(env.ReadFile(disk, buffer, 8, &read));
  EXPECT_EQ(read, 0u);
  EXPECT_FALSE(env.SetFilePointerEx(disk, -1, &at, platform::kFileBegin));
  EXPECT_EQ(env.GetLastError(), platform::kErrorNegativeSeek);
  EXPECT_FALSE(env.DeviceIoControl(disk, platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, buffer, 8, &read));
  EXPECT_EQ(env.GetLastError(), platform::kErrorInvalidFunction);  // a disk is not a volume
  EXPECT_TRUE(env.CloseHandle(disk));
  EXPECT_FALSE(platform::IsValid(Open(env, L"\\\\.\\PhysicalDrive0", platform::kGenericWrite)));
  EXPECT_EQ(env.GetLastError(), platform::kErrorAccessDenied);
  EXPECT_FALSE(platform::IsValid(Open(env, L"\\\\.\\PhysicalDrive1")));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  EXPECT_EQ(inner.Count(Call::CreateFileW), 0);
}

TEST(ImageEnv, WithoutABareVolumeThereIsNoC) {
  FaultEnv inner(platform::Env::Default());
  std::vector<std::byte> mbr(8 * 512);
  Put16(mbr, 510, 0xAA55);
  ImageEnv env(inner, mbr, 0);
  EXPECT_EQ(env.sector_size(), 512u);
  EXPECT_FALSE(platform::IsValid(Open(env, L"\\\\.\\C:")));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  wchar_t name[64] = {};
  EXPECT_FALSE(env.GetVolumeNameForVolumeMountPointW(L"C:\\", name, 64));
}

}  // namespace
}  // namespace koru::test
