// VMFT::ReadMFTRecord end to end: letter -> extents -> geometry -> boot sector ->
// the record at the chosen sector, dumped into the caller's stream.
#include <gtest/gtest.h>

#include <sstream>

#include "koru_mft/vmft.h"
#include "mft/record_fixture.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::TempDisk;
using test::TraceCapture;

// A bare volume of 64 sectors, 8 to a cluster, its MFT at cluster 4: record 0 at
// sector 32 and record 1 at 34.
std::vector<std::byte> Volume(std::uint8_t spc_byte = 8, const char* oem = "NTFS    ") {
  std::vector<std::byte> disk(64 * 512);
  test::PutText(disk, 3, oem);
  test::Put16(disk, 0x0B, 512);
  disk[0x0D] = std::byte{spc_byte};
  test::Put64(disk, 0x30, 4);
  test::Put16(disk, 510, 0xAA55);
  for (std::uint32_t number : {0u, 1u}) {
    test::RecordFixture r;
    test::Put32(r.bytes(), layout::kRecNumber, number);
    const auto record = r.End().OnDisk();
    std::copy(record.begin(), record.end(), disk.begin() + 32 * 512 + number * 1024);
  }
  return disk;
}

std::wstring Dump(wchar_t letter, std::uint64_t sector, bool expect = true) {
  std::wostringstream os;
  EXPECT_EQ(VMFT::ReadMFTRecord(os, letter, sector), expect);
  return os.str();
}

TEST(ReadMFTRecord, SectorZeroMeansTheMftsFirstRecordAndTheHandlesAreClosed) {
  TempDisk disk(Volume(), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  const struct {
    std::uint64_t sector;
    const wchar_t* sectors;
    const wchar_t* number;
  } cases[] = {
      {0, L"Absolute Sectors                 : 32 & 33\n", L"MFT Record Number                : 0\n"},
      {34, L"Absolute Sectors                 : 34 & 35\n", L"MFT Record Number                : 1\n"},
  };
  for (const auto& c : cases) {
    TraceCapture trace;
    const std::wstring dump = Dump(L'C', c.sector);
    EXPECT_NE(dump.find(c.sectors), std::wstring::npos) << testing::PrintToString(dump);
    EXPECT_NE(dump.find(c.number), std::wstring::npos);
    EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : wcDL = 'C'"));
    EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : dwSectorsPerCluster = 8"));
    EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : MFT starts at sector : uiMftSector = 32"));
    // The argument as passed, 0 included.
    EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : Requested sector : uiSectorNo = " +
                          std::to_wstring(c.sector)));
    EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
  }
}

// Failures of the chain fail the call; a record that cannot be read, or an extent
// without a cluster size, only leave the stream empty.
TEST(ReadMFTRecord, FailuresOfTheChainAndOfTheRecord) {
  const struct {
    std::vector<std::byte> disk;
    wchar_t letter;
    std::uint64_t sector;
    bool result;
    const wchar_t* line;
  } cases[] = {
      {Volume(), L'C', 64, true, L"[E]: MFT::Read : ... ending(Didn't read the whole MFT record)"},
      {Volume(), L'D', 0, false, L"[E]: VMFT::ReadMFTRecord : ... ending(GetVolumeDiskExtentList() failed)"},
      {Volume(0), L'C', 0, true, L"[V]: VMFT::ReadMFTRecord : ... ending"},
      {Volume(8, "-FVE-FS-"), L'C', 0, false, L"[E]: VMFT::ReadMFTRecord : ... ending(BootSector::GetMftSector() failed)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.line)));
    TempDisk disk(c.disk, 512);
    test::FaultEnv env(platform::Env::Default());  // BitLocker's notice goes to its stdout
    platform::ScopedEnv scoped(env);
    TraceCapture trace;
    EXPECT_EQ(Dump(c.letter, c.sector, c.result), L"");
    EXPECT_TRUE(trace.Has(c.line));
    EXPECT_EQ(trace.Has(L"[V]: MFT::Read : starting ..."), c.sector == 64);
  }
  TempDisk disk(Volume(), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  // The first control call lists the extents, the second asks for the geometry.
  env.FailCall(test::Call::DeviceIoControl, platform::kErrorInvalidFunction, 2);
  TraceCapture trace;
  EXPECT_EQ(Dump(L'C', 0, false), L"");
  EXPECT_TRUE(trace.Has(L"[E]: VMFT::ReadMFTRecord : ... ending(GetDiskGeometryEx() failed)"));
}

}  // namespace
}  // namespace koru
