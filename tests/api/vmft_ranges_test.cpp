// VMFT::GetMFTSectorRanges end to end: letter -> extents -> geometry -> boot
// sector -> record 0 -> runs, on small disks attached as \\.\PhysicalDrive0; and the
// failures of that chain, which ReadMFTRecord shares.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "koru_mft/vmft.h"
#include "mft/record_fixture.h"
#include "support/disk_image.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using platform::DWORD;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
using test::RecordFixture;
using test::TempDisk;
using test::TraceCapture;

// A disk of 512-byte sectors whose one MBR partition (type 7) at LBA 2048 holds a
// 128-sector NTFS volume: `spc_byte` in its boot sector, `record0` at cluster
// `mft_cluster` of 8 sectors.
std::vector<std::byte> Disk(const std::vector<std::byte>& record0, std::uint8_t spc_byte = 8,
                            std::uint64_t mft_cluster = 4) {
  std::vector<std::byte> disk =
      test::DiskImage(2048 + 128).Entry(0, 0, 0x07, 2048, 128).Boot(2048, boot::kNtfsOemId, spc_byte, mft_cluster);
  const std::size_t at = (2048 + mft_cluster * 8) * 512;
  if (at + record0.size() <= disk.size()) std::copy(record0.begin(), record0.end(), disk.begin() + at);
  return disk;
}

// Reports the disk geometry with `bytes_per_sector` once that is set.
class GeometryEnv : public test::FaultEnv {
 public:
  using FaultEnv::FaultEnv;
  bool DeviceIoControl(platform::HANDLE h, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
                       DWORD* returned) override {
    const bool ok = FaultEnv::DeviceIoControl(h, code, in, in_size, out, out_size, returned);
    if (ok && code == platform::kIoctlDiskGetDriveGeometryEx && bytes_per_sector)
      static_cast<platform::DISK_GEOMETRY_EX*>(out)->Geometry.BytesPerSector = *bytes_per_sector;
    return ok;
  }
  std::optional<DWORD> bytes_per_sector;
};

// Both services fail with the step that failed; the caller's entries and stream are
// left as they were.
TEST(ExtentChain, BitLockerMissingVolumeAndBadGeometryFailBothServices) {
  const auto fails = [](wchar_t letter, const std::wstring& why) {
    TraceCapture trace;
    Ranges ranges{{1, 2}};
    std::wostringstream os;
    EXPECT_FALSE(VMFT::GetMFTSectorRanges(letter, ranges));
    EXPECT_FALSE(VMFT::ReadMFTRecord(os, letter, 0));
    EXPECT_EQ(ranges, (Ranges{{1, 2}}));
    EXPECT_EQ(os.str(), L"");
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(" + why + L")"));
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::ReadMFTRecord : ... ending(" + why + L")"));
  };
  {
    TempDisk bitlocker(test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-aes-xts-128.first64k")));
    test::FaultEnv env(platform::Env::Default());  // BitLocker's notice goes to its stdout
    platform::ScopedEnv scoped(env);
    fails(L'C', L"BootSector::GetMftSector() failed");
  }
  TempDisk disk(Disk({}), 512);
  fails(L'D', L"GetVolumeDiskExtentList() failed");
  GeometryEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  // A failed geometry query takes the same way: volume_test.cpp, vmft_hlinfo_test.cpp.
  env.bytes_per_sector = 0;  // would divide by zero
  fails(L'C', L"GetDiskGeometryEx() failed");
}

// An extent that gives no usable ranges does not fail the query, and every handle
// opened is closed.
TEST(GetMFTSectorRanges, ExtentsWithoutUsableRangesAddNothingButDoNotFail) {
  const auto adds = [](const std::vector<std::byte>& image, const std::wstring& line, const Ranges& expected) {
    TempDisk disk(image, 512);
    test::FaultEnv env(platform::Env::Default());
    platform::ScopedEnv scoped(env);
    TraceCapture trace;
    Ranges ranges{{1, 2}};
    EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_EQ(ranges, expected);
    EXPECT_TRUE(trace.Has(line));
    EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
    return trace.Contains(L"MFT::GetMftRanges");
  };
  // A cluster size of 0 skips the extent before any record is read.
  EXPECT_FALSE(adds(Disk({}, 0), L"[V]: VMFT::GetMFTSectorRanges : ... ending", {{1, 2}}));
  const std::wstring failed = L"[E]: MFT::GetMftRanges : ... ending(";
  // MFT cluster past the end of the disk: the record read comes up short.
  adds(Disk({}, 8, 1000), failed + L"ReadMftRecord() failed)", {{1, 2}});
  // A resident $DATA after a good one: the good one's pairs stay, volume-relative.
  RecordFixture r;
  r.NonResident(layout::kData, {0x11, 0x04, 0x10}).Resident(layout::kData, 16).End();
  adds(Disk(r.OnDisk()), failed + L"DATA_Attribute::GetSectorRange() failed)", {{1, 2}, {0x80, 0xA0}});
}

}  // namespace
}  // namespace koru
