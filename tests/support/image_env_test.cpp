#include "support/image_env.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/fault_env.h"
#include "support/temp_disk.h"

namespace koru::test {
namespace {

using platform::DWORD;

std::vector<std::byte> BareNtfs(std::size_t sectors) {
  std::vector<std::byte> disk(sectors * 512);
  PutText(disk, 3, "NTFS    ");
  Put16(disk, 0x0B, 4096);
  Put32(disk, 0x1B8, 0xA1B2C3D4);
  disk.back() = std::byte{0x5A};
  return disk;
}

platform::HANDLE Open(platform::Env& env, const wchar_t* path) {
  return env.CreateFileW(path, platform::kGenericRead, platform::kFileShareRead | platform::kFileShareWrite,
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

  for (const wchar_t* path : {L"\\\\.\\C:", L"\\\\?\\Volume{A1B2C3D4-4B4F-5255-0000-000000000000}",
                              L"\\\\?\\Volume{a1b2c3d4-4b4f-5255-0000-000000000000}\\"}) {
    platform::HANDLE volume = Open(env, path);
    ASSERT_TRUE(platform::IsValid(volume)) << path;
    unsigned char out[32] = {};
    DWORD returned = 0;
    ASSERT_TRUE(env.DeviceIoControl(volume, platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, out, 32, &returned));
    EXPECT_EQ(returned, 32u);
    platform::DISK_EXTENT extent{};
    std::memcpy(&extent, out + platform::kVolumeDiskExtentsHeader, sizeof extent);
    EXPECT_EQ(extent.DiskNumber, 0u);
    EXPECT_EQ(extent.StartingOffset, 0);
    EXPECT_EQ(extent.ExtentLength, 16 * 512);
    // Too small for one extent: the header and ERROR_MORE_DATA, as Windows answers.
    EXPECT_FALSE(env.DeviceIoControl(volume, platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, out, 8, &returned));
    EXPECT_EQ(env.GetLastError(), platform::kErrorMoreData);
    EXPECT_EQ(returned, 8u);
    EXPECT_TRUE(env.CloseHandle(volume));
  }
  // Nothing reached the wrapped Env for the image's own devices.
  EXPECT_EQ(inner.Count(Call::CreateFileW), 0);
  EXPECT_EQ(inner.Count(Call::DeviceIoControl), 0);
}

TEST(ImageEnv, DiskReadsAreShortAtTheEndAndNeverWrite) {
  FaultEnv inner(platform::Env::Default());
  ImageEnv env(inner, BareNtfs(4), 512);
  platform::HANDLE disk = Open(env, L"\\\\.\\PHYSICALDRIVE0");
  ASSERT_TRUE(platform::IsValid(disk));
  platform::DISK_GEOMETRY_EX geometry{};
  DWORD returned = 0;
  ASSERT_TRUE(env.DeviceIoControl(disk, platform::kIoctlDiskGetDriveGeometryEx, nullptr, 0, &geometry,
                                  sizeof geometry, &returned));
  EXPECT_EQ(geometry.Geometry.BytesPerSector, 512u);  // the size given wins over the boot sector's
  EXPECT_EQ(geometry.DiskSize, 4 * 512);
  EXPECT_FALSE(env.DeviceIoControl(disk, platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, &geometry,
                                   sizeof geometry, &returned));
  EXPECT_EQ(env.GetLastError(), platform::kErrorInvalidFunction);  // a disk is not a volume

  std::int64_t at = 0;
  ASSERT_TRUE(env.SetFilePointerEx(disk, -2, &at, platform::kFileEnd));
  EXPECT_EQ(at, 4 * 512 - 2);
  unsigned char buffer[8] = {};
  DWORD read = 0;
  ASSERT_TRUE(env.ReadFile(disk, buffer, 8, &read));
  EXPECT_EQ(read, 2u);
  EXPECT_EQ(buffer[1], 0x5A);
  ASSERT_TRUE(env.ReadFile(disk, buffer, 8, &read));
  EXPECT_EQ(read, 0u);
  EXPECT_FALSE(env.SetFilePointerEx(disk, -1, &at, platform::kFileBegin));
  EXPECT_EQ(env.GetLastError(), platform::kErrorNegativeSeek);
  EXPECT_FALSE(env.WriteFile(disk, buffer, 1, &read));
  EXPECT_EQ(env.GetLastError(), platform::kErrorAccessDenied);
  EXPECT_TRUE(env.CloseHandle(disk));
  EXPECT_FALSE(platform::IsValid(env.CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericWrite, 0,
                                                 platform::kOpenExisting, 0)));
  EXPECT_EQ(env.GetLastError(), platform::kErrorAccessDenied);
}

TEST(ImageEnv, WithoutABareVolumeOnlyTheDiskExists) {
  FaultEnv inner(platform::Env::Default());
  std::vector<std::byte> mbr(8 * 512);
  Put16(mbr, 510, 0xAA55);
  ImageEnv env(inner, mbr, 0);
  EXPECT_EQ(env.sector_size(), 512u);
  EXPECT_FALSE(platform::IsValid(Open(env, L"\\\\.\\C:")));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  EXPECT_FALSE(platform::IsValid(Open(env, L"\\\\.\\PhysicalDrive1")));
  EXPECT_EQ(env.GetLastError(), platform::kErrorFileNotFound);
  wchar_t name[64] = {};
  EXPECT_FALSE(env.GetVolumeNameForVolumeMountPointW(L"C:\\", name, 64));
  // Ordinary files and handles are the wrapped Env's.
  EXPECT_FALSE(env.CloseHandle(reinterpret_cast<platform::HANDLE>(std::uintptr_t{0x1234})));
  EXPECT_EQ(inner.Count(Call::CloseHandle), 1);
}

}  // namespace
}  // namespace koru::test
