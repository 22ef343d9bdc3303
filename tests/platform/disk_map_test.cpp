// The disk map over byte images: partition scans, sector sizes, letters, volume
// names, device paths and the IOCTL answers.
#include "platform/disk_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "support/disk_image.h"
#include "support/image_env.h"

namespace platform {
namespace {

using koru::test::DiskImage;
using koru::test::SourceOver;
using Image = std::vector<std::byte>;
constexpr std::uint32_t kMiB = 1024 * 1024;
constexpr const char* kNtfs = koru::boot::kNtfsOemId;
constexpr const char* kBitLocker = koru::boot::kBitLockerOemId;

TEST(DiskMap, SectorSizeIsGivenElseFoundOnTheDisk) {
  // An MBR disk of 4096-byte sectors: its volume is only where 4096 puts it.
  const Image mbr4k = DiskImage(16 * kMiB / 4096, 4096).Entry(0, 0, 0x07, 256, 2048).Boot(256);
  const struct {
    Image image;
    DWORD given, want;
    std::size_t volumes;
  } cases[] = {{DiskImage(2048).Gpt(), 0, 512, 0},
               {DiskImage(256, 4096).Gpt(), 0, 4096, 0},
               {DiskImage(512).Boot(0, kNtfs, 8, 4, 4096), 0, 4096, 1},
               {DiskImage(512).Boot(0, kBitLocker, 8, 4, 4096), 0, 4096, 1},
               {DiskImage(512).Boot(0, kNtfs, 8, 4, 4095), 0, 512, 1},  // not a power of two
               {mbr4k, 0, 4096, 1},
               {DiskImage(512).Boot(0, kNtfs, 8, 4, 4096), 512, 512, 1},  // a given size is believed
               {mbr4k, 512, 512, 0},
               {DiskImage(64), 1000, 512, 0}};  // not a sector size
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const ScannedDisk disk = ScanDisk(SourceOver(c.image, c.given));
    EXPECT_EQ(disk.sector_size, c.want);
    EXPECT_EQ(disk.volumes.size(), c.volumes);
  }
}

// Disk 0: MBR with NTFS, FAT, and an extended partition holding NTFS and BitLocker
// logicals; disk 1: GPT with two NTFS partitions; disk 2: nothing.
struct ThreeDisks {
  Image mbr = DiskImage(64 * kMiB / 512).Put(koru::partition::kMbrDiskSignature, 0x12345678, 4)
                  .Entry(0, 0, 0x07, 2048, 8192).Boot(2048).Entry(0, 1, 0x0C, 10240, 2048).Boot(10240, "MSDOS5.0")
                  .Entry(0, 2, 0x0F, 20480, 100000)
                  // EBR: logical at +2048, next EBR at +40960
                  .Entry(20480, 0, 0x07, 2048, 4096).Entry(20480, 1, 0x05, 40960, 8192).Boot(20480 + 2048)
                  .Entry(20480 + 40960, 0, 0x07, 2048, 4096).Boot(20480 + 40960 + 2048, kBitLocker);
  Image gpt = DiskImage(16384).Gpt().GptEntry(0, 34, 2081, 0x10).GptEntry(1, 4096, 8191, 0x20).Boot(34).Boot(4096);
  Image empty = Image(4096);
  DiskMap Map(const std::vector<LetterPin>& pins = {}) const {
    return DiskMap({SourceOver(mbr), SourceOver(gpt), SourceOver(empty)}, pins);
  }
};

// Letters, offsets, kinds and volume names of every volume are compared with mmls by
// volumes_mbr/logical/gpt/bare_test.sh; what is left is pins that collide or miss.
TEST(DiskMap, PinsComeFirstThenTheRestFromC) {
  const ThreeDisks disks;
  // Pins first (one on the FAT partition does nothing), then the rest from C:.
  const DiskMap pinned = disks.Map({{L'C', 1, 2}, {L'Z', 0, 6}, {L'X', 0, 2}, {L'Y', 0, 6}});
  std::vector<wchar_t> letters;
  for (const auto& v : pinned.volumes()) letters.push_back(v.letter);
  EXPECT_EQ(letters, (std::vector<wchar_t>{L'D', L'E', L'Z', L'F', L'C'}));
}

TEST(DiskMap, BrokenTablesEndTheScanWithWhatWasFound) {
  const struct {
    Image image;
    std::vector<std::int64_t> offsets;
  } cases[] = {
      // An EBR chain whose second link points at itself.
      {DiskImage(8192).Entry(0, 0, 0x05, 2048, 4096).Entry(2048, 0, 0x07, 64, 128).Entry(2048, 1, 0x05, 1024, 128)
           .Entry(2048 + 1024, 0, 0x07, 64, 128).Entry(2048 + 1024, 1, 0x05, 1024, 128).Boot(2048 + 64)
           .Boot(2048 + 1024 + 64),
       {(2048 + 64) * 512, (2048 + 1024 + 64) * 512}},
      // One whose link leaves the disk.
      {DiskImage(8192).Entry(0, 0, 0x0F, 2048, 4096).Entry(2048, 0, 0x07, 64, 128).Entry(2048, 1, 0x05, 1024, 128)
           .Entry(2048 + 1024, 1, 0x05, 0x7FFFFFFF, 128).Boot(2048 + 64),
       {(2048 + 64) * 512}},
      // GPT entries beyond the disk, absurd counts and sizes, or backwards and huge ranges.
      {DiskImage(64).Gpt(128, 128, 1ull << 39).Boot(34), {}},
      {DiskImage(64).Gpt(0xFFFFFFFF, 0xFFFFFFFF).GptEntry(0, 34, 40, 1).Boot(34), {}},
      {DiskImage(64).Gpt().GptEntry(0, 0xFFFFFFFFFFFFFFF0ull, ~0ull, 1).GptEntry(1, 40, 30, 2).GptEntry(2, 34, 40, 3).Boot(34),
       {34 * 512}},
      // A table that runs past the disk's end keeps the entries before it.
      {DiskImage(40).Gpt(1000).GptEntry(0, 34, 39, 1).Boot(34), {34 * 512}},
      // A partition beyond the end.
      {DiskImage(64).Entry(0, 0, 0x07, 1000, 8).Entry(0, 1, 0x07, 8, 8).Boot(8), {8 * 512}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    std::vector<std::int64_t> offsets;
    for (const auto& v : ScanDisk(SourceOver(c.image)).volumes) offsets.push_back(v.offset);
    EXPECT_EQ(offsets, c.offsets);
  }
}

// The core opens \\.\PhysicalDriveN and the \\?\Volume{...} names it is given on every
// run of the integration tests; what is left is other spellings and refusals.
TEST(DiskMap, DevicePathsNameDisksAndVolumes) {
  const ThreeDisks disks;
  const DiskMap map = disks.Map();
  const std::wstring g = map.volumes()[3].guid;
  const struct {
    std::wstring path;
    int disk, volume;  // -1, -1: not found
    std::int64_t base, length;
  } cases[] = {{L"\\\\.\\physicaldrive2", 2, -1, 0, 4096},
               {L"\\\\.\\PhysicalDrive3", -1, -1, 0, 0},
               {L"\\\\.\\PhysicalDrive0x", -1, -1, 0, 0},
               {L"\\\\.\\e:", 0, 2, (20480 + 40960 + 2048) * 512, 4096 * 512},
               {L"\\\\.\\H:", -1, -1, 0, 0},
               {L"\\\\.\\volume{13121110-1514-1716-1819-1a1b1c1d1e1f}\\", 1, 3, 34 * 512, 2048 * 512},
               {L"Volume" + g, -1, -1, 0, 0},
               {L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}", -1, -1, 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.path));
    DeviceWindow device;
    DWORD error = 0;
    ASSERT_EQ(map.Resolve(c.path, &device, &error), c.disk >= 0);
    if (c.disk < 0) {
      EXPECT_EQ(error, kErrorFileNotFound);
      continue;
    }
    EXPECT_EQ(std::make_tuple(device.disk, device.volume, device.base, device.length),
              std::make_tuple(c.disk, c.volume, c.base, c.length));
  }
  std::wstring name;
  DWORD error = 0;
  EXPECT_FALSE(map.VolumeNameForMountPoint(L"H:\\", &name, &error));
  EXPECT_EQ(error, kErrorFileNotFound);
  EXPECT_FALSE(map.VolumeNameForMountPoint(L"F:", &name, &error));
  EXPECT_EQ(error, kErrorInvalidName);
}

// What the answers hold, ranges_mkntfs/4k/hostile_test.sh read through them (volume
// offsets, sector sizes, disk ends); what is left is the refusals.
TEST(DiskMap, DevicesRefuseIoctlsTheyCannotAnswer) {
  const ThreeDisks disks;
  const DiskMap map = disks.Map();
  DeviceWindow volume, disk;
  DWORD error = 0, returned = 0;
  ASSERT_TRUE(map.Resolve(L"\\\\.\\D:", &volume, &error));
  ASSERT_TRUE(map.Resolve(L"\\\\.\\PhysicalDrive0", &disk, &error));
  unsigned char out[64] = {};
  const struct {
    DeviceWindow device;
    DWORD code, size, error;
  } refused[] = {{volume, kIoctlVolumeGetVolumeDiskExtents, 31, kErrorInvalidParameter},  // not even one extent
                 {disk, kIoctlVolumeGetVolumeDiskExtents, 64, kErrorInvalidFunction},  // a disk is not a volume
                 {disk, 0x12345678, 64, kErrorInvalidFunction},
                 {disk, kIoctlDiskGetDriveGeometryEx, 23, kErrorInsufficientBuffer},
                 {{7, -1, 0, 0}, kIoctlDiskGetDriveGeometryEx, 64, kErrorInvalidHandle}};  // no such disk (any more)
  for (const auto& r : refused) {
    SCOPED_TRACE(r.code);
    EXPECT_FALSE(map.DeviceIoControl(r.device, r.code, out, r.size, &returned, &error));
    EXPECT_EQ(error, r.error);
  }
}

}  // namespace
}  // namespace platform
