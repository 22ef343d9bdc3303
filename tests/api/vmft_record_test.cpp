// VMFT::ReadMFTRecord end to end: letter -> extents -> geometry -> boot sector ->
// the record at the chosen sector, dumped into the caller's stream. The failures of
// the chain it shares with GetMFTSectorRanges are in vmft_ranges_test.cpp.
#include <gtest/gtest.h>

#include <sstream>

#include "koru_mft/vmft.h"
#include "mft/record_fixture.h"
#include "support/disk_image.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

// A bare volume of 64 sectors, 8 to a cluster (or `spc_byte`), its MFT at cluster
// 4: record 0 at sector 32.
std::vector<std::byte> Volume(std::uint8_t spc_byte = 8) {
  std::vector<std::byte> disk = test::DiskImage(64).Boot(0, boot::kNtfsOemId, spc_byte, 4);
  const auto record = test::RecordFixture().End().OnDisk();
  std::copy(record.begin(), record.end(), disk.begin() + 32 * 512);
  return disk;
}

// Any other sector is read as given: record_windows_test.sh dumps every record by its sector.
TEST(ReadMFTRecord, SectorZeroMeansTheMftsFirstRecordAndTheHandlesAreClosed) {
  test::TempDisk disk(Volume(), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  test::TraceCapture trace;
  std::wostringstream os;
  EXPECT_TRUE(VMFT::ReadMFTRecord(os, L'C', 0));
  EXPECT_NE(os.str().find(L"Absolute Sectors                 : 32 & 33\n"), std::wstring::npos);
  EXPECT_NE(os.str().find(L"MFT Record Number                : 0\n"), std::wstring::npos);
  // The argument as passed, not the sector it stands for.
  EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : Requested sector : uiSectorNo = 0"));
  EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
}

// A record that cannot be read, or an extent without a cluster size, leave the
// stream empty without failing the call.
TEST(ReadMFTRecord, AnUnreadableRecordOrNoClusterSizeOnlyLeaveTheStreamEmpty) {
  for (const auto& [spc, sector, line] :
       {std::tuple{8, 64, L"[E]: MFT::Read : ... ending(Didn't read the whole MFT record)"},
        {0, 0, L"[V]: VMFT::ReadMFTRecord : ... ending"}}) {
    test::TempDisk disk(Volume(static_cast<std::uint8_t>(spc)), 512);
    test::TraceCapture trace;
    std::wostringstream os;
    EXPECT_TRUE(VMFT::ReadMFTRecord(os, L'C', static_cast<std::uint64_t>(sector)));
    EXPECT_EQ(os.str(), L"");
    EXPECT_TRUE(trace.Has(line));
    EXPECT_EQ(trace.Has(L"[V]: MFT::Read : starting ..."), sector == 64);
  }
}

}  // namespace
}  // namespace koru
