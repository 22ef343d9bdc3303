#include "disk/boot_sector.h"

#include <gtest/gtest.h>

#include "platform/posix_env.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::FaultEnv;
using test::Put64;
using test::PutText;
using test::TempDisk;
using test::TraceCapture;

// A bare NTFS volume of 64 sectors whose boot sector says what the test wants.
std::vector<std::byte> Volume(std::uint8_t sectors_per_cluster, std::uint64_t mft_cluster,
                              const char* oem = "NTFS    ") {
  std::vector<std::byte> disk(64 * 512);
  PutText(disk, 3, oem);
  disk[0x0B] = std::byte{0x00};
  disk[0x0C] = std::byte{0x02};
  disk[0x0D] = std::byte{sectors_per_cluster};
  Put64(disk, 0x30, mft_cluster);
  disk[510] = std::byte{0x55};
  disk[511] = std::byte{0xAA};
  return disk;
}

struct Decoded {
  bool ok;
  std::uint64_t mft_sector;
  platform::DWORD sectors_per_cluster;
};

Decoded Decode(const std::vector<std::byte>& disk, std::uint64_t start_sector = 0) {
  TempDisk attached(disk, 512);
  BootSector boot;
  boot.m_dwBytesPerSector = 512;
  std::uint64_t sector = 0xDEAD;
  const bool ok = boot.GetMftSector(VolumeStart{0, start_sector}, sector);
  return {ok, sector, boot.m_dwSectorsPerCluster};
}

TEST(BootSector, DecodesTheSectorsPerClusterByte) {
  EXPECT_EQ(Decode(Volume(0x08, 4)).sectors_per_cluster, 8u);
  EXPECT_EQ(Decode(Volume(0x80, 4)).sectors_per_cluster, 128u);   // not a negative exponent
  EXPECT_EQ(Decode(Volume(0xF4, 4)).sectors_per_cluster, 4096u);  // 2 MiB clusters
  EXPECT_EQ(Decode(Volume(0xFF, 4)).sectors_per_cluster, 2u);
  EXPECT_EQ(Decode(Volume(0xE0, 4)).sectors_per_cluster, 1u);     // shift 32 wraps to 0
  EXPECT_EQ(Decode(Volume(0x81, 4)).sectors_per_cluster, 1u << 31);
}

TEST(BootSector, MftSectorIsAbsoluteOnTheDisk) {
  const auto d = Decode(Volume(0x08, 786432), 0);
  EXPECT_TRUE(d.ok);
  EXPECT_EQ(d.mft_sector, 8u * 786432u);
  // The volume may start anywhere: its start is added.
  std::vector<std::byte> disk(2048 * 512 + 64 * 512);
  const auto volume = Volume(0x08, 4);
  std::copy(volume.begin(), volume.end(), disk.begin() + 2048 * 512);
  const auto shifted = Decode(disk, 2048);
  EXPECT_TRUE(shifted.ok);
  EXPECT_EQ(shifted.mft_sector, 2048u + 32u);
}

TEST(BootSector, ZeroSectorsPerClusterIsAcceptedButCannotBeUsed) {
  TempDisk attached(Volume(0, 100), 512);
  BootSector boot;
  boot.m_dwBytesPerSector = 512;
  std::uint64_t sector = 0;
  ASSERT_TRUE(boot.GetMftSector(VolumeStart{0, 0}, sector));
  EXPECT_EQ(sector, 0u);
  TraceCapture trace;
  platform::DWORD spc = 99;
  EXPECT_FALSE(boot.GetSectorsPerCluster(spc));
  EXPECT_EQ(spc, 99u);
  EXPECT_TRUE(trace.Has(L"[V]: BootSector::GetSectorsPerCluster : ... ending(sectors per cluster undetermioned)"));
}

TEST(BootSector, BitLockerFailsAndPrintsTheFallbackLine) {
  FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  TraceCapture trace;
  const auto d = Decode(Volume(0x08, 4, "-FVE-FS-"));
  EXPECT_FALSE(d.ok);
  EXPECT_EQ(d.mft_sector, 0xDEADu);
  EXPECT_EQ(env.captured_stdout().str(), L"BitLocker boot sector detected ... using legacy hard-link scan\n");
  EXPECT_TRUE(trace.Has(L"[W]: BootSector::GetMftSector : ... ending(BitLocker boot sector detected)"));
}

TEST(BootSector, RealBootSectorsDecodeToWhatTheirVolumesSay) {
  struct Case {
    const char* file;
    platform::DWORD sectors_per_cluster;
  } cases[] = {{"boot-sectors/dfir-512.boot", 1},  {"boot-sectors/dfir-4k.boot", 8},
               {"boot-sectors/dfir-64k.boot", 128}, {"boot-sectors/dfir-128k.boot", 256},
               {"boot-sectors/dfir-nobootcode.boot", 8}, {"boot-sectors/libfsntfs-volume_header.1", 1},
               {"boot-sectors/ez-Boot.bin", 8}, {"boot-sectors/dfir-4kn.boot", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    auto disk = test::ReadFileBytes(test::SharedImage(c.file));
    disk.resize(64 * 512);
    const auto d = Decode(disk);
    EXPECT_TRUE(d.ok);
    EXPECT_EQ(d.sectors_per_cluster, c.sectors_per_cluster);
  }
  for (const char* file : {"bitlocker/bitlk-aes-cbc-128.first64k", "bitlocker/bitlk-aes-xts-128.first64k"}) {
    SCOPED_TRACE(file);
    EXPECT_FALSE(Decode(test::ReadFileBytes(test::SharedImage(file))).ok);
  }
}

// Each real boot sector placed where its volume began (its hidden-sectors field, when
// small enough to write), on a disk of its own sector size.
TEST(BootSector, RealBootSectorsGiveTheAbsoluteMftSector) {
  struct Case {
    const char* file;
    std::uint32_t bytes_per_sector;
    std::uint64_t start;
    platform::DWORD sectors_per_cluster;
    std::uint64_t mft_cluster;
  } cases[] = {{"boot-sectors/dfir-512.boot", 512, 128, 1, 697002},
               {"boot-sectors/dfir-nobootcode.boot", 512, 17, 8, 771},
               {"boot-sectors/libfsntfs-volume_header.1", 512, 63, 1, 5355},
               {"boot-sectors/dfir-4kn.boot", 4096, 16, 1, 4778},
               {"records/4kn-ntfs-bootsector.bin", 4096, 64, 1, 8533},
               {"boot-sectors/dfir-4k.boot", 512, 0, 8, 786432},
               {"boot-sectors/ez-Boot.bin", 512, 0, 8, 786432},
               {"boot-sectors/dfir-64k.boot", 512, 0, 128, 49152},
               {"boot-sectors/dfir-128k.boot", 512, 0, 256, 24576}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const auto boot = test::ReadFileBytes(test::SharedImage(c.file));
    std::vector<std::byte> disk((c.start + 2) * c.bytes_per_sector);
    std::copy_n(boot.begin(), std::min<std::size_t>(boot.size(), c.bytes_per_sector),
                disk.begin() + static_cast<std::ptrdiff_t>(c.start * c.bytes_per_sector));
    TempDisk attached(disk, c.bytes_per_sector);
    BootSector reader;
    reader.m_dwBytesPerSector = c.bytes_per_sector;
    std::uint64_t mft = 0;
    ASSERT_TRUE(reader.GetMftSector(VolumeStart{0, c.start}, mft));
    EXPECT_EQ(mft, c.start + c.sectors_per_cluster * c.mft_cluster);
    platform::DWORD spc = 0;
    ASSERT_TRUE(reader.GetSectorsPerCluster(spc));
    EXPECT_EQ(spc, c.sectors_per_cluster);
  }
}

TEST(BootSector, TracesEveryValueOfASuccessfulRead) {
  std::vector<std::byte> disk(8 * 512);
  const auto volume = Volume(0xF4, 3);
  std::copy_n(volume.begin(), 512, disk.begin() + 4 * 512);
  TempDisk attached(disk, 512);
  TraceCapture trace;
  BootSector boot;
  boot.m_dwBytesPerSector = 512;
  std::uint64_t sector = 0;
  ASSERT_TRUE(boot.GetMftSector(VolumeStart{0, 4}, sector));
  EXPECT_EQ(sector, 4u + 4096u * 3u);
  const std::vector<std::wstring> want = {
      L"[V]: BootSector::GetMftSector : starting ...",
      L"[I]: BootSector::GetMftSector : wszDriveName = \"\\\\.\\PhysicalDrive0\"",
      L"[I]: BootSector::GetMftSector : Bs.bs_ntfs.bpb.bSectorsPerCluster = 244",
      L"[I]: BootSector::GetMftSector : m_dwSectorsPerCluster = 4096",
      L"[I]: BootSector::GetMftSector : uiMftSector = 12292",
      L"[V]: BootSector::GetMftSector : ... ending",
  };
  EXPECT_EQ(trace.lines(), want);

  trace.Reset();
  platform::DWORD spc = 0;
  ASSERT_TRUE(boot.GetSectorsPerCluster(spc));
  EXPECT_EQ(spc, 4096u);
  const std::vector<std::wstring> want_spc = {
      L"[V]: BootSector::GetSectorsPerCluster : starting ...",
      L"[I]: BootSector::GetSectorsPerCluster : dwSectorsPerCluster = 4096",
      L"[V]: BootSector::GetSectorsPerCluster : ... ending",
  };
  EXPECT_EQ(trace.lines(), want_spc);
}

TEST(BootSector, ByteOf0x80IsNotTracedAsANegativeExponent) {
  TempDisk attached(Volume(0x80, 1), 512);
  TraceCapture trace;
  BootSector boot;
  boot.m_dwBytesPerSector = 512;
  std::uint64_t sector = 0;
  ASSERT_TRUE(boot.GetMftSector(VolumeStart{0, 0}, sector));
  EXPECT_EQ(sector, 128u);
  EXPECT_FALSE(trace.Contains(L"Bs.bs_ntfs.bpb.bSectorsPerCluster"));
}

TEST(BootSector, SeeksInUnitsOfTheDiskSector) {
  // A 4096-byte-sector disk: the volume at sector 3 begins at byte 12288.
  std::vector<std::byte> disk(8 * 4096);
  const auto volume = Volume(0x01, 10);
  std::copy_n(volume.begin(), 512, disk.begin() + 3 * 4096);
  TempDisk attached(disk, 4096);
  BootSector boot;
  boot.m_dwBytesPerSector = 4096;
  std::uint64_t sector = 0;
  ASSERT_TRUE(boot.GetMftSector(VolumeStart{0, 3}, sector));
  EXPECT_EQ(sector, 13u);
  // Read as if its sectors were 512 bytes, the same start lands on zeros: accepted as
  // they stand, since the OEM id is never checked for NTFS.
  boot.m_dwBytesPerSector = 512;
  ASSERT_TRUE(boot.GetMftSector(VolumeStart{0, 3}, sector));
  EXPECT_EQ(sector, 3u);
  EXPECT_EQ(boot.m_dwSectorsPerCluster, 0u);
}

TEST(BootSector, OtherFileSystemsAreNotRejected) {
  // BitLocker To Go volumes carry a FAT boot sector: only "-FVE-FS-" is refused.
  FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  const auto d = Decode(test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-togo-aes-xts-128.first64k")));
  EXPECT_TRUE(d.ok);
  EXPECT_EQ(d.sectors_per_cluster, 2u);
  EXPECT_TRUE(env.captured_stdout().str().empty());
}

TEST(BootSector, ReadPastTheEndOfTheDiskIsAShortRead) {
  TempDisk attached(Volume(0x08, 4), 512);  // 64 sectors
  TraceCapture trace;
  BootSector boot;
  boot.m_dwBytesPerSector = 512;
  std::uint64_t sector = 5;
  EXPECT_FALSE(boot.GetMftSector(VolumeStart{0, 64}, sector));
  EXPECT_EQ(sector, 5u);
  EXPECT_TRUE(trace.Has(L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)"));
}

class BootSectorFaults : public ::testing::Test {
 protected:
  BootSectorFaults() : attached_(Volume(0x08, 4), 512), env_(platform::Env::Default()), scoped_(env_) {}
  bool Run() {
    BootSector boot;
    boot.m_dwBytesPerSector = 512;
    std::uint64_t sector = 77;
    const bool ok = boot.GetMftSector(VolumeStart{0, 0}, sector);
    EXPECT_EQ(sector, ok ? 32u : 77u);  // untouched on failure
    return ok;
  }
  TempDisk attached_;
  FaultEnv env_;
  platform::ScopedEnv scoped_;
  TraceCapture trace_;
};

TEST_F(BootSectorFaults, OpenFailure) {
  env_.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  EXPECT_FALSE(Run());
  EXPECT_TRUE(trace_.Has(L"[E]: BootSector::GetMftSector : ... ending(CreateFile() failed) : dwLastError = 5"));
  EXPECT_EQ(env_.Count(Call::CloseHandle), 0);
}

TEST_F(BootSectorFaults, SeekFailureAndWrongPositionCloseTheDisk) {
  env_.FailCall(Call::SetFilePointerEx, platform::kErrorSeek);
  EXPECT_FALSE(Run());
  EXPECT_TRUE(trace_.Has(L"[E]: BootSector::GetMftSector : ... ending(SetFilePointerEx() failed) : dwLastError = 25"));
  env_.SeekOff(512);
  EXPECT_FALSE(Run());
  EXPECT_TRUE(trace_.Has(L"[V]: BootSector::GetMftSector : ... ending(actual seek offset not equal to requested seek offset)"));
  EXPECT_EQ(env_.Count(Call::CloseHandle), 2);
}

TEST_F(BootSectorFaults, ReadFailureAndShortRead) {
  env_.FailCall(Call::ReadFile, platform::kErrorReadFault);
  EXPECT_FALSE(Run());
  EXPECT_TRUE(trace_.Has(L"[E]: BootSector::GetMftSector : ... ending(ReadFile() failed) : dwLastError = 30"));
  env_.ShortRead(511);
  EXPECT_FALSE(Run());
  EXPECT_TRUE(trace_.Has(L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)"));
  EXPECT_TRUE(Run());
}

}  // namespace
}  // namespace koru
