// PosixEnv's disks: images attached as \\.\PhysicalDriveN, their partition tables,
// the lettered NTFS/BitLocker volumes, and the device calls the core makes on them.
#ifndef _WIN32

#include "platform/posix_disks.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "koru_mft/tool.h"
#include "platform/posix_env.h"
#include "support/temp_disk.h"

namespace platform {
namespace {

using koru::test::Put16;
using koru::test::Put32;
using koru::test::Put64;
using koru::test::PutText;
using Image = std::vector<std::byte>;

constexpr std::uint32_t kMiB = 1024 * 1024;

void PutBoot(Image& disk, std::uint64_t byte_offset, const char* oem, std::uint16_t bytes_per_sector = 512) {
  PutText(disk, byte_offset + 3, oem);
  Put16(disk, byte_offset + 0x0B, bytes_per_sector);
  disk.at(byte_offset + 0x0D) = std::byte{8};
  Put16(disk, byte_offset + 510, 0xAA55);
}

void PutMbrEntry(Image& disk, std::uint64_t table, int slot, std::uint8_t type, std::uint32_t lba,
                 std::uint32_t count) {
  const std::uint64_t at = table + 446 + 16 * static_cast<std::uint64_t>(slot);
  disk.at(at + 4) = std::byte{type};
  Put32(disk, at + 8, lba);
  Put32(disk, at + 12, count);
  Put16(disk, table + 510, 0xAA55);
}

struct GptPart {
  std::uint64_t first, last;
  std::uint8_t guid_seed;
};

// A GPT disk: protective MBR, header at LBA 1, 128 entries at LBA 2. Checksums are
// left zero: nothing here reads them.
Image Gpt(std::uint32_t sector, std::uint64_t sectors, const std::vector<GptPart>& parts) {
  Image disk(sectors * sector);
  PutMbrEntry(disk, 0, 0, 0xEE, 1, static_cast<std::uint32_t>(sectors - 1));
  PutText(disk, sector, "EFI PART");
  Put64(disk, sector + 72, 2);
  Put32(disk, sector + 80, 128);
  Put32(disk, sector + 84, 128);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const std::uint64_t at = 2 * std::uint64_t{sector} + 128 * i;
    for (int b = 0; b < 16; ++b) disk.at(at + b) = std::byte{0xA2};  // basic data, roughly
    for (int b = 0; b < 16; ++b) disk.at(at + 16 + b) = std::byte{static_cast<std::uint8_t>(parts[i].guid_seed + b)};
    Put64(disk, at + 32, parts[i].first);
    Put64(disk, at + 40, parts[i].last);
  }
  return disk;
}

// Writes images, attaches them in order and forgets them again afterwards.
class Disks {
 public:
  Disks() { posix::ResetDisks(); }
  ~Disks() {
    posix::ResetDisks();
    std::error_code ec;
    for (const auto& path : paths_) std::filesystem::remove(path, ec);
  }
  std::string Write(const Image& bytes) {
    static std::atomic<int> counter{0};
    std::filesystem::create_directories(KORU_TEST_TMP);
    const std::string path =
        std::string(KORU_TEST_TMP) + "/posix-disk-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                 static_cast<std::streamsize>(bytes.size()));
    paths_.push_back(path);
    return path;
  }
  void Attach(const Image& bytes, const std::string& suffix = "") {
    std::string error;
    ASSERT_TRUE(koru::tool::AttachDisk(Write(bytes) + suffix, &error)) << error;
  }

 private:
  std::vector<std::string> paths_;
};

// The sector size the disk device reports for `bytes` attached as `arg_suffix` says.
std::uint32_t SectorSizeOf(const Image& bytes, const std::string& arg_suffix) {
  Disks disks;
  disks.Attach(bytes, arg_suffix);
  Env& env = Env::Default();
  HANDLE h = env.CreateFileW(L"\\\\.\\PhysicalDrive0", kGenericRead, kFileShareRead | kFileShareWrite, kOpenExisting, 0);
  DISK_GEOMETRY_EX g{};
  DWORD returned = 0;
  EXPECT_TRUE(env.DeviceIoControl(h, kIoctlDiskGetDriveGeometryEx, nullptr, 0, &g, sizeof g, &returned));
  EXPECT_EQ(g.DiskSize, static_cast<std::int64_t>(bytes.size()));
  env.CloseHandle(h);
  return g.Geometry.BytesPerSector;
}

Image Bare(const char* oem, std::uint16_t bytes_per_sector, std::size_t size = 64 * 4096) {
  Image disk(size);
  PutBoot(disk, 0, oem, bytes_per_sector);
  return disk;
}

TEST(PosixDisks, SectorSizeIsGivenElseDetectedElse512) {
  const struct {
    Image image;
    const char* arg_suffix;
    std::uint32_t want;
  } cases[] = {{Gpt(512, 2048, {}), "", 512},
               {Gpt(4096, 256, {}), "", 4096},
               {Bare("NTFS    ", 4096), "", 4096},
               {Bare("-FVE-FS-", 4096), "", 4096},
               {Bare("NTFS    ", 4095), "", 512},  // not a power of two: ignored
               {Image(64 * 512), "", 512},
               {Bare("NTFS    ", 4096), ":512", 512},  // given sizes win over anything on the disk
               {Image(64 * 512), ":2048", 2048}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    EXPECT_EQ(SectorSizeOf(c.image, c.arg_suffix), c.want);
  }
}

TEST(PosixDisks, AttachRefusesBadSpecs) {
  Disks disks;
  std::string error;
  EXPECT_FALSE(koru::tool::AttachDisk(std::string(KORU_TEST_TMP) + "/no-such-image", &error));
  EXPECT_NE(error.find("no-such-image"), std::string::npos);
  const std::string path = disks.Write(Image(512));
  EXPECT_FALSE(koru::tool::AttachDisk(path + ":1000", &error));
  EXPECT_FALSE(koru::tool::AttachDisk(path + ":256", &error));
  EXPECT_FALSE(koru::tool::AttachDisk(KORU_TEST_TMP, &error));  // a directory
  for (const char* pin : {"B=0:1", "C0:1", "C=x:1", "C=0:0", "C=0", "=0:1"}) {
    SCOPED_TRACE(pin);
    EXPECT_FALSE(koru::tool::PinVolume(pin, &error));
  }
}

// Disk 0: MBR with NTFS, FAT, and an extended partition holding NTFS and BitLocker
// logicals; disk 1: GPT with two NTFS partitions; disk 2: nothing.
void AttachThreeDisks(Disks& disks) {
  Image mbr(64 * kMiB);
  Put32(mbr, 440, 0x12345678);
  PutMbrEntry(mbr, 0, 0, 0x07, 2048, 8192);
  PutBoot(mbr, 2048 * 512, "NTFS    ");
  PutMbrEntry(mbr, 0, 1, 0x0C, 10240, 2048);
  PutText(mbr, 10240 * 512 + 3, "MSDOS5.0");
  PutMbrEntry(mbr, 0, 2, 0x0F, 20480, 100000);
  // First EBR at the extended start: logical at +2048, next EBR at +40960.
  PutMbrEntry(mbr, 20480 * 512, 0, 0x07, 2048, 4096);
  PutMbrEntry(mbr, 20480 * 512, 1, 0x05, 40960, 8192);
  PutBoot(mbr, (20480 + 2048) * 512ull, "NTFS    ");
  PutMbrEntry(mbr, (20480 + 40960) * 512ull, 0, 0x07, 2048, 4096);
  PutBoot(mbr, (20480 + 40960 + 2048) * 512ull, "-FVE-FS-");
  disks.Attach(mbr);

  Image gpt = Gpt(512, 16384, {{34, 2081, 0x10}, {4096, 8191, 0x20}});
  PutBoot(gpt, 34 * 512, "NTFS    ");
  PutBoot(gpt, 4096 * 512, "NTFS    ");
  disks.Attach(gpt);
  disks.Attach(Image(4096));
}

// letter, disk, offset, length, kind, bytes per sector of every listed volume.
using Row = std::tuple<wchar_t, std::uint32_t, std::int64_t, std::int64_t, std::wstring, std::uint32_t>;
std::vector<Row> Volumes() {
  std::vector<Row> rows;
  for (const auto& v : koru::tool::ListVolumes())
    rows.emplace_back(v.letter, v.disk, v.offset, v.length, v.kind, v.bytes_per_sector);
  return rows;
}

TEST(PosixDisks, VolumesAreLetteredDiskByDiskInTableOrder) {
  Disks disks;
  AttachThreeDisks(disks);
  EXPECT_EQ(Volumes(), (std::vector<Row>{{L'C', 0, 2048 * 512, 8192 * 512, L"NTFS", 512},
                                         {L'D', 0, (20480 + 2048) * 512, 4096 * 512, L"NTFS", 512},
                                         {L'E', 0, (20480 + 40960 + 2048) * 512, 4096 * 512, L"BitLocker", 512},
                                         {L'F', 1, 34 * 512, 2048 * 512, L"NTFS", 512},
                                         {L'G', 1, 4096 * 512, 4096 * 512, L"NTFS", 512}}));
  // GPT volumes are named by their partition GUID, printed as Windows prints it.
  EXPECT_EQ(koru::tool::ListVolumes().at(3).volume_name, L"\\\\?\\Volume{13121110-1514-1716-1819-1A1B1C1D1E1F}\\");
}

TEST(PosixDisks, PinnedLettersAreKeptAndTheRestFillIn) {
  Disks disks;
  AttachThreeDisks(disks);
  std::string error;
  ASSERT_TRUE(koru::tool::PinVolume("c=1:2", &error)) << error;
  ASSERT_TRUE(koru::tool::PinVolume("Z=0:6", &error)) << error;
  ASSERT_TRUE(koru::tool::PinVolume("X=0:3", &error)) << error;  // FAT: not a volume, the pin does nothing
  EXPECT_EQ(Volumes(), (std::vector<Row>{{L'C', 1, 4096 * 512, 4096 * 512, L"NTFS", 512},
                                         {L'D', 0, 2048 * 512, 8192 * 512, L"NTFS", 512},
                                         {L'E', 0, (20480 + 2048) * 512, 4096 * 512, L"NTFS", 512},
                                         {L'F', 1, 34 * 512, 2048 * 512, L"NTFS", 512},
                                         {L'Z', 0, (20480 + 40960 + 2048) * 512, 4096 * 512, L"BitLocker", 512}}));
}

TEST(PosixDisks, EnvironmentAttachesDisksAndPinsLetters) {
  Disks disks;
  const Image bare = Bare("NTFS    ", 512, 64 * 512);
  const std::string a = disks.Write(bare), b = disks.Write(bare);
  ::setenv("KORU_MFT_DISKS", (a + "," + b + ":4096").c_str(), 1);
  ::setenv("KORU_MFT_VOLUMES", "K=0:1", 1);
  posix::ResetDisks();
  const auto rows = Volumes();
  ::unsetenv("KORU_MFT_DISKS");
  ::unsetenv("KORU_MFT_VOLUMES");
  EXPECT_EQ(rows, (std::vector<Row>{{L'C', 1, 0, 64 * 512, L"NTFS", 4096}, {L'K', 0, 0, 64 * 512, L"NTFS", 512}}));
}

TEST(PosixDisks, MbrVolumeNamesAreDeterministic) {
  Image mbr(8 * kMiB);
  Put32(mbr, 440, 0xCAFEF00D);
  PutMbrEntry(mbr, 0, 0, 0x07, 2048, 4096);
  PutMbrEntry(mbr, 0, 1, 0x07, 8192, 4096);
  PutBoot(mbr, 2048 * 512, "NTFS    ");
  PutBoot(mbr, 8192 * 512, "NTFS    ");
  const auto names = [](const Image& image) {  // each time another file with these bytes
    Disks disks;
    disks.Attach(image);
    std::vector<std::wstring> out;
    for (const auto& v : koru::tool::ListVolumes()) out.push_back(v.volume_name);
    return out;
  };
  const auto first = names(mbr);
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(names(mbr), first);
  EXPECT_NE(first[0], first[1]);  // the offset is part of the name
  for (const auto& name : first) {
    EXPECT_EQ(name.rfind(L"\\\\?\\Volume{CAFEF00D-", 0), 0u) << std::string(name.begin(), name.end());
    EXPECT_EQ(name.size(), 49u);  // \\?\Volume{8-4-4-4-12}\ .
    EXPECT_EQ(name.back(), L'\\');
  }
  Put32(mbr, 440, 0xCAFEF00E);
  EXPECT_NE(names(mbr).at(0), first[0]);  // the signature is too
}

TEST(PosixDisks, BrokenTablesEndTheScan) {
  Disks disks;
  // An EBR chain whose second link points at itself, and one that leaves the disk.
  Image loop(4 * kMiB);
  PutMbrEntry(loop, 0, 0, 0x05, 2048, 4096);
  PutMbrEntry(loop, 2048 * 512, 0, 0x07, 64, 128);
  PutMbrEntry(loop, 2048 * 512, 1, 0x05, 1024, 128);
  PutMbrEntry(loop, (2048 + 1024) * 512, 0, 0x07, 64, 128);
  PutMbrEntry(loop, (2048 + 1024) * 512, 1, 0x05, 1024, 128);
  PutBoot(loop, (2048 + 64) * 512, "NTFS    ");
  PutBoot(loop, (2048 + 1024 + 64) * 512, "NTFS    ");
  disks.Attach(loop);
  Image cycle(4 * kMiB);
  PutMbrEntry(cycle, 0, 0, 0x0F, 2048, 4096);
  PutMbrEntry(cycle, 2048 * 512, 0, 0x07, 64, 128);
  PutMbrEntry(cycle, 2048 * 512, 1, 0x05, 1024, 128);
  PutMbrEntry(cycle, (2048 + 1024) * 512, 1, 0x05, 0x7FFFFFFF, 128);  // beyond the disk
  PutBoot(cycle, (2048 + 64) * 512, "NTFS    ");
  disks.Attach(cycle);
  // GPT whose entries lie beyond the disk, or claim absurd sizes.
  Image gpt = Gpt(512, 64, {{34, 40, 1}});
  Put64(gpt, 512 + 72, 1ull << 39);
  disks.Attach(gpt);
  Image huge = Gpt(512, 64, {{34, 40, 1}});
  Put32(huge, 512 + 80, 0xFFFFFFFF);
  Put32(huge, 512 + 84, 0xFFFFFFFF);
  disks.Attach(huge);
  Image wild = Gpt(512, 64, {{0xFFFFFFFFFFFFFFF0ull, 0xFFFFFFFFFFFFFFFFull, 1}, {40, 30, 2}});
  disks.Attach(wild);
  EXPECT_EQ(Volumes(), (std::vector<Row>{{L'C', 0, (2048 + 64) * 512, 128 * 512, L"NTFS", 512},
                                         {L'D', 0, (2048 + 1024 + 64) * 512, 128 * 512, L"NTFS", 512},
                                         {L'E', 1, (2048 + 64) * 512, 128 * 512, L"NTFS", 512}}));
}

TEST(PosixDisks, MbrOf4096ByteSectorsIsRecognisedWhenNotGiven) {
  Image mbr(16 * kMiB);
  PutMbrEntry(mbr, 0, 0, 0x07, 256, 2048);
  PutBoot(mbr, 256 * 4096, "NTFS    ", 4096);
  {
    Disks disks;
    disks.Attach(mbr);
    EXPECT_EQ(Volumes(), (std::vector<Row>{{L'C', 0, 256 * 4096, 2048 * 4096, L"NTFS", 4096}}));
  }
  Disks disks;  // a given 512 is believed: no volume where it points
  disks.Attach(mbr, ":512");
  EXPECT_TRUE(koru::tool::ListVolumes().empty());
}

// Room for one extent at least, else refused; room for fewer than all: the header
// with the count, and 234 so the caller grows its buffer.
TEST(PosixDisks, ExtentsIoctlAnswersLikeTheVolumeManager) {
  const std::vector<DISK_EXTENT> two = {{0, 1048576, 4096}, {1, 512, 8192}};
  const struct {
    DWORD size, error, returned, count;
  } cases[] = {{31, kErrorInvalidParameter, 0, 0}, {32, kErrorMoreData, 32, 2}, {55, kErrorMoreData, 32, 2}, {56, 0, 56, 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    unsigned char buffer[64] = {};
    DWORD returned = 99, error = 0;
    EXPECT_EQ(posix::AnswerVolumeDiskExtents(two, buffer, c.size, &returned, &error), c.error == 0);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(returned, c.returned);
    std::uint32_t count = 0;
    std::memcpy(&count, buffer, 4);
    EXPECT_EQ(count, c.count);
    DISK_EXTENT second{};
    std::memcpy(&second, buffer + 32, sizeof second);
    EXPECT_EQ(second.ExtentLength, c.error == 0 ? 8192 : 0);
    EXPECT_EQ(second.StartingOffset, c.error == 0 ? 512 : 0);
    EXPECT_EQ(second.DiskNumber, c.error == 0 ? 1u : 0u);
  }
}

constexpr const wchar_t* kDisk0 = L"\\\\.\\PhysicalDrive0";

class OpenedDisk : public ::testing::Test {
 protected:
  OpenedDisk() {
    image_.resize(4 * kMiB);
    for (std::size_t i = 512; i < image_.size(); ++i) image_[i] = std::byte{static_cast<std::uint8_t>(i * 7 + i / 4096)};
    PutMbrEntry(image_, 0, 0, 0x07, 2048, 2048);  // 1 MiB volume at 1 MiB
    PutBoot(image_, 2048 * 512, "NTFS    ");
    disks_.Attach(image_);
  }
  HANDLE Open(const wchar_t* path) {
    return env_.CreateFileW(path, kGenericRead, kFileShareRead | kFileShareWrite, kOpenExisting, 0);
  }
  // Up to `count` bytes from the handle's position; ReadAt seeks there first.
  std::vector<std::byte> Read(HANDLE h, DWORD count) {
    std::vector<std::byte> out(count);
    DWORD got = 0;
    EXPECT_TRUE(env_.ReadFile(h, out.data(), count, &got));
    out.resize(got);
    return out;
  }
  std::vector<std::byte> ReadAt(HANDLE h, std::int64_t at, DWORD count) {
    std::int64_t pos = -1;
    EXPECT_TRUE(env_.SetFilePointerEx(h, at, &pos, kFileBegin));
    EXPECT_EQ(pos, at);
    return Read(h, count);
  }
  std::vector<std::byte> Slice(std::size_t at, std::size_t count) {
    return {image_.begin() + static_cast<std::ptrdiff_t>(at), image_.begin() + static_cast<std::ptrdiff_t>(at + count)};
  }
  Image image_;
  Disks disks_;
  Env& env_ = Env::Default();
};

TEST_F(OpenedDisk, ReadsPastTheEndAreShort) {
  HANDLE disk = Open(kDisk0);
  ASSERT_TRUE(IsValid(disk));
  EXPECT_EQ(ReadAt(disk, image_.size() - 100, 512), Slice(image_.size() - 100, 100));
  EXPECT_TRUE(ReadAt(disk, image_.size() + 4096, 512).empty());
  env_.CloseHandle(disk);
  // The volume device ends where its partition ends, not at the disk's end.
  HANDLE volume = Open(L"\\\\.\\c:");
  ASSERT_TRUE(IsValid(volume));
  EXPECT_EQ(ReadAt(volume, 0, 512), Slice(2048 * 512, 512));
  EXPECT_EQ(ReadAt(volume, kMiB - 10, 512), Slice(2048 * 512 + kMiB - 10, 10));
  env_.CloseHandle(volume);
}

TEST_F(OpenedDisk, EachHandleReadsAtItsOwnPosition) {
  HANDLE a = Open(kDisk0), b = Open(kDisk0);
  EXPECT_EQ(ReadAt(a, 4096, 16), Slice(4096, 16));
  EXPECT_EQ(ReadAt(b, 8192, 16), Slice(8192, 16));
  EXPECT_EQ(Read(a, 16), Slice(4096 + 16, 16));  // b's seek and read left a where it was
  std::int64_t pos = 0;
  ASSERT_TRUE(env_.SetFilePointerEx(a, 0, &pos, kFileCurrent));
  EXPECT_EQ(pos, 4096 + 32);
  env_.CloseHandle(a);
  env_.CloseHandle(b);
  // Threads with handles of their own never see each other's positions.
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      HANDLE h = Open(kDisk0);
      for (int i = 0; i < 200; ++i) {
        const std::size_t at = (t * 997 + i * 4099) % (image_.size() - 64);
        if (ReadAt(h, static_cast<std::int64_t>(at), 64) != Slice(at, 64)) ++wrong;
      }
      env_.CloseHandle(h);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST_F(OpenedDisk, DevicesAnswerTheCoresIoctls) {
  HANDLE volume = Open(L"\\\\?\\Volume{00000000-4B4F-5255-0000-000000100000}");
  ASSERT_TRUE(IsValid(volume));  // signature 0, offset 1 MiB; the trailing backslash is optional
  unsigned char buffer[56] = {};
  DWORD returned = 0;
  ASSERT_TRUE(env_.DeviceIoControl(volume, kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, buffer, 56, &returned));
  EXPECT_EQ(returned, 32u);
  DISK_EXTENT extent{};
  std::memcpy(&extent, buffer + 8, sizeof extent);
  EXPECT_EQ(extent.DiskNumber, 0u);
  EXPECT_EQ(extent.StartingOffset, kMiB);
  EXPECT_EQ(extent.ExtentLength, kMiB);
  EXPECT_FALSE(env_.DeviceIoControl(volume, kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, buffer, 16, &returned));
  EXPECT_EQ(env_.GetLastError(), kErrorInvalidParameter);
  EXPECT_FALSE(env_.DeviceIoControl(volume, 0x12345678, nullptr, 0, buffer, 56, &returned));
  EXPECT_EQ(env_.GetLastError(), kErrorInvalidFunction);
  env_.CloseHandle(volume);

  HANDLE disk = Open(kDisk0);
  EXPECT_FALSE(env_.DeviceIoControl(disk, kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, buffer, 56, &returned));
  EXPECT_EQ(env_.GetLastError(), kErrorInvalidFunction);  // a disk is not a volume
  env_.CloseHandle(disk);

  EXPECT_FALSE(IsValid(Open(L"\\\\.\\PhysicalDrive1")));
  EXPECT_EQ(env_.GetLastError(), kErrorFileNotFound);
  EXPECT_FALSE(IsValid(Open(L"\\\\.\\PhysicalDrive0x")));
  EXPECT_FALSE(IsValid(Open(L"\\\\.\\D:")));
  EXPECT_FALSE(IsValid(env_.CreateFileW(L"\\\\.\\PhysicalDrive0", kGenericWrite, 0, kOpenExisting, 0)));
  EXPECT_EQ(env_.GetLastError(), kErrorAccessDenied);

  wchar_t name[64];
  EXPECT_FALSE(env_.GetVolumeNameForVolumeMountPointW(L"D:\\", name, 64));
  EXPECT_EQ(env_.GetLastError(), kErrorFileNotFound);
  ASSERT_TRUE(env_.GetVolumeNameForVolumeMountPointW(L"c:\\", name, 64));
  EXPECT_EQ(std::wstring(name), L"\\\\?\\Volume{00000000-4B4F-5255-0000-000000100000}\\");
}

TEST(PosixDisks, MachineDisksAreNumberedLikeWindowsWould) {
  const std::vector<std::string> want = {"sda", "sdb", "sdz", "sdaa", "nvme0n1", "nvme1n1", "nvme10n1", "mmcblk0", "md0"};
  EXPECT_EQ(posix::OrderMachineDisks({"md0", "nvme10n1", "sdaa", "mmcblk0", "sdb", "nvme1n1", "sdz", "nvme0n1", "sda"}),
            want);
}

}  // namespace
}  // namespace platform

#endif  // _WIN32
