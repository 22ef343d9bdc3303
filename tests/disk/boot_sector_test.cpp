#include "disk/boot_sector.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/disk_image.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::FaultEnv;
using test::TempDisk;
using test::TraceCapture;
using Image = std::vector<std::byte>;

// A bare volume of 64 sectors of 512 bytes whose boot sector says what the test wants.
Image Volume(std::uint8_t sectors_per_cluster, std::uint64_t mft_cluster, const char* oem = boot::kNtfsOemId) {
  return test::DiskImage(64).Boot(0, oem, sectors_per_cluster, mft_cluster);
}

struct Read {
  bool ok;
  std::uint64_t mft_sector;  // 77 when left untouched
  BootSector boot;
  std::wstring stdout_text;
  int closes;
};

// Attaches `disk` and runs GetMftSector on the volume at `start`, with `fault` injected.
Read ReadBoot(const Image& disk, std::uint64_t start = 0, std::uint32_t sector_size = 512,
              const std::function<void(FaultEnv&)>& fault = nullptr) {
  TempDisk attached(disk, sector_size);
  FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  if (fault) fault(env);
  Read r{false, 77, BootSector{}, L"", 0};
  r.boot.m_dwBytesPerSector = sector_size;
  r.ok = r.boot.GetMftSector(VolumeStart{0, start}, r.mft_sector);
  r.stdout_text = env.captured_stdout().str();
  r.closes = env.Count(Call::CloseHandle);
  return r;
}

TEST(BootSector, DecodesTheSectorsPerClusterByte) {
  struct Case {
    std::uint8_t byte;
    platform::DWORD decoded;
  } cases[] = {{0x08, 8}, {0x80, 128}, {0xF4, 4096}, {0xFF, 2}, {0xE0, 1}, {0x81, 1u << 31}, {0x00, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.byte);
    TraceCapture trace;
    Read r = ReadBoot(Volume(c.byte, 3));
    ASSERT_TRUE(r.ok);  // even 0 is accepted here...
    EXPECT_EQ(r.boot.m_dwSectorsPerCluster, c.decoded);
    EXPECT_EQ(r.mft_sector, 3ull * c.decoded);
    // Only bytes above 0x80 are exponents, and only those are traced raw.
    EXPECT_EQ(trace.Contains(L"Bs.bs_ntfs.bpb.bSectorsPerCluster"), c.byte > 0x80);
    platform::DWORD spc = 99;  // ...but refused here
    EXPECT_EQ(r.boot.GetSectorsPerCluster(spc), c.decoded != 0);
    EXPECT_EQ(spc, c.decoded ? c.decoded : 99u);
    EXPECT_EQ(trace.Has(L"[V]: BootSector::GetSectorsPerCluster : ... ending(sectors per cluster undetermioned)"),
              c.decoded == 0);
  }
}

TEST(BootSector, BitLockerAloneIsRefusedAndPrintsTheFallbackLine) {
  TraceCapture trace;
  const Read locked = ReadBoot(Volume(0x08, 4, "-FVE-FS-"));
  EXPECT_FALSE(locked.ok);
  EXPECT_EQ(locked.mft_sector, 77u);
  EXPECT_EQ(locked.stdout_text, L"BitLocker boot sector detected ... using legacy hard-link scan\n");
  EXPECT_TRUE(trace.Has(L"[W]: BootSector::GetMftSector : ... ending(BitLocker boot sector detected)"));
  // BitLocker To Go volumes carry a FAT boot sector: used as it stands, not refused.
  const Read togo = ReadBoot(test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-togo-aes-xts-128.first64k")));
  EXPECT_TRUE(togo.ok);
  EXPECT_EQ(togo.boot.m_dwSectorsPerCluster, 2u);
  EXPECT_TRUE(togo.stdout_text.empty());
}

// Each real boot sector placed where its volume began (its hidden-sectors field, when
// small enough to write), on a disk of its own sector size: the seek is in disk sectors.
TEST(BootSector, RealBootSectorsGiveTheAbsoluteMftSector) {
  struct Case {
    const char* file;
    std::uint32_t bytes_per_sector;
    std::uint64_t start;
    platform::DWORD sectors_per_cluster;
    std::uint64_t mft_cluster;
    platform::DWORD bytes_per_record;  // byte 0x40: clusters, or 2^-n bytes when negative
  } cases[] = {{"boot-sectors/dfir-512.boot", 512, 128, 1, 697002, 1024},
               {"boot-sectors/dfir-nobootcode.boot", 512, 17, 8, 771, 1024},
               {"boot-sectors/dfir-4kn.boot", 4096, 16, 1, 4778, 4096},
               {"records/4kn-ntfs-bootsector.bin", 4096, 64, 1, 8533, 1024},
               {"boot-sectors/dfir-128k.boot", 512, 0, 256, 24576, 1024}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const auto disk = test::DiskImage(c.start + 2, c.bytes_per_sector)
                          .Place(c.start, test::ReadFileBytes(test::SharedImage(c.file)));
    Read r = ReadBoot(disk, c.start, c.bytes_per_sector);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.mft_sector, c.start + c.sectors_per_cluster * c.mft_cluster);
    EXPECT_EQ(r.boot.m_dwBytesPerFileRecord, c.bytes_per_record);
    platform::DWORD spc = 0;
    ASSERT_TRUE(r.boot.GetSectorsPerCluster(spc));
    EXPECT_EQ(spc, c.sectors_per_cluster);
  }
}

TEST(BootSector, EveryFailureTracesWhyLeavesTheSectorAndClosesTheDisk) {
  struct Case {
    std::function<void(FaultEnv&)> fault;
    std::uint64_t start;
    const wchar_t* line;
    int closes;  // the disk is closed whenever it was opened
  } cases[] = {
      {[](FaultEnv& e) { e.FailCall(Call::CreateFileW, platform::kErrorAccessDenied); }, 0,
       L"[E]: BootSector::GetMftSector : ... ending(CreateFile() failed) : dwLastError = 5", 0},
      {[](FaultEnv& e) { e.FailCall(Call::SetFilePointerEx, platform::kErrorSeek); }, 0,
       L"[E]: BootSector::GetMftSector : ... ending(SetFilePointerEx() failed) : dwLastError = 25", 1},
      {[](FaultEnv& e) { e.SeekOff(512); }, 0,
       L"[V]: BootSector::GetMftSector : ... ending(actual seek offset not equal to requested seek offset)", 1},
      {[](FaultEnv& e) { e.FailCall(Call::ReadFile, platform::kErrorReadFault); }, 0,
       L"[E]: BootSector::GetMftSector : ... ending(ReadFile() failed) : dwLastError = 30", 1},
      {[](FaultEnv& e) { e.ShortRead(511); }, 0,
       L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)", 1},
      {nullptr, 64,  // past the end of the disk
       L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.line)));
    TraceCapture trace;
    const Read r = ReadBoot(Volume(0x08, 4), c.start, 512, c.fault);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.mft_sector, 77u);
    EXPECT_TRUE(trace.Has(c.line));
    EXPECT_EQ(r.closes, c.closes);
  }
}

}  // namespace
}  // namespace koru
