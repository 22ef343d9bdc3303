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
using test::TraceCapture;

struct Read {
  bool ok;
  std::uint64_t mft_sector;  // 77 when left untouched
  BootSector boot;
  std::wstring stdout_text;
  int closes;
};

// Attaches `disk` and runs GetMftSector on the volume at `start`, with `fault` injected.
Read ReadBoot(const std::vector<std::byte>& disk, std::uint64_t start = 0, std::uint32_t sector_size = 512,
              const std::function<void(FaultEnv&)>& fault = nullptr) {
  test::TempDisk attached(disk, sector_size);
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
    Read r = ReadBoot(test::DiskImage(64).Boot(0, boot::kNtfsOemId, c.byte, 3));
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
  const Read locked = ReadBoot(test::DiskImage(64).Boot(0, "-FVE-FS-"));
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

TEST(BootSector, EveryFailureTracesWhyLeavesTheSectorAndClosesTheDisk) {
  struct Case {
    std::function<void(FaultEnv&)> fault;
    const wchar_t* line;
    int closes;  // the disk is closed whenever it was opened
  } cases[] = {
      {[](FaultEnv& e) { e.FailCall(Call::CreateFileW, platform::kErrorAccessDenied); },
       L"[E]: BootSector::GetMftSector : ... ending(CreateFile() failed) : dwLastError = 5", 0},
      {[](FaultEnv& e) { e.FailCall(Call::SetFilePointerEx, platform::kErrorSeek); },
       L"[E]: BootSector::GetMftSector : ... ending(SetFilePointerEx() failed) : dwLastError = 25", 1},
      {[](FaultEnv& e) { e.SeekOff(512); },
       L"[V]: BootSector::GetMftSector : ... ending(actual seek offset not equal to requested seek offset)", 1},
      {[](FaultEnv& e) { e.FailCall(Call::ReadFile, platform::kErrorReadFault); },
       L"[E]: BootSector::GetMftSector : ... ending(ReadFile() failed) : dwLastError = 30", 1},
      {[](FaultEnv& e) { e.ShortRead(511); },
       L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.line)));
    TraceCapture trace;
    const Read r = ReadBoot(test::DiskImage(64).Boot(0), 0, 512, c.fault);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.mft_sector, 77u);
    EXPECT_TRUE(trace.Has(c.line));
    EXPECT_EQ(r.closes, c.closes);
  }
}

}  // namespace
}  // namespace koru
