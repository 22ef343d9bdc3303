// VMFT::GetMFTSectorRanges end to end: letter -> extents -> geometry -> boot
// sector -> record 0 -> runs, on small disks attached through PosixEnv.
#ifndef _WIN32

#include <gtest/gtest.h>

#include "koru_mft/vmft.h"
#include "mft/record_fixture.h"
#include "platform/posix_env.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using platform::DWORD;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
using test::BareVolume;
using test::MbrDisk;
using test::RecordFixture;
using test::TempDisk;
using test::TraceCapture;

// Record 0 of a $MFT with the run list 31 40 00 10 0C 00: 0x40 clusters at 0x0C1000.
std::vector<std::byte> Record0(const std::vector<std::uint8_t>& runs = {0x31, 0x40, 0x00, 0x10, 0x0C}) {
  RecordFixture r;
  r.Resident(layout::kStandardInformation, 0x48).Resident(layout::kFileName, 0x4A);
  r.NonResident(layout::kData, runs).NonResident(layout::kBitmap, {0x11, 0x01, 0x02}).End();
  return r.OnDisk(0x0005);
}

// 8 sectors per cluster, MFT at cluster 4, the volume at LBA 2048.
std::vector<std::byte> Disk(const std::vector<std::byte>& record0, std::uint8_t spc_byte = 8) {
  return MbrDisk(BareVolume(512, spc_byte, 4, 8, record0, 128), 2048);
}

TEST(GetMFTSectorRanges, OneVolumeGivesItsRunsInAbsoluteSectors) {
  TempDisk disk(Disk(Record0()), 512);
  TraceCapture trace;
  Ranges ranges;
  ASSERT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
  ASSERT_EQ(ranges, (Ranges{{0x0C1000u * 8 + 2048, (0x0C1000u + 0x40) * 8 + 2048}}));
  EXPECT_TRUE(trace.Has(L"[I]: VMFT::GetMFTSectorRanges : DiskExtent.StartingOffset = " + std::to_wstring(2048 * 512)));
  EXPECT_TRUE(trace.Has(L"[I]: VMFT::GetMFTSectorRanges : DiskGeometry.Geometry.BytesPerSector = 512"));
  EXPECT_TRUE(trace.Has(L"[I]: MFT::GetMftRanges : m_uiMftSector = " + std::to_wstring(2048 + 32)));
  EXPECT_TRUE(trace.Has(L"[I]: MFT::GetMftRanges : MftRange.first = " + std::to_wstring(0x0C1000u * 8 + 2048)));
}

TEST(GetMFTSectorRanges, EarlierEntriesStayInFrontAndAreShiftedWithTheNewOnes) {
  // Several runs, the third placed before its predecessor.
  TempDisk disk(Disk(Record0({0x11, 0x10, 0x40, 0x21, 0x08, 0x00, 0x01, 0x11, 0x04, 0xC0})), 512);
  Ranges ranges{{7, 9}};
  ASSERT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
  EXPECT_EQ(ranges, (Ranges{{7 + 2048, 9 + 2048},
                            {0x40 * 8 + 2048, 0x50 * 8 + 2048},
                            {0x140 * 8 + 2048, 0x148 * 8 + 2048},
                            {0x100 * 8 + 2048, 0x104 * 8 + 2048}}));
}

TEST(GetMFTSectorRanges, BitLockerFailsTheQuery) {
  for (const char* image : {"bitlocker/bitlk-aes-xts-128.first64k", "bitlocker/bitlk-aes-xts-128-4k.first64k",
                            "bitlocker/bitlk-aes-cbc-128.first64k"}) {
    SCOPED_TRACE(image);
    TempDisk disk(test::ReadFileBytes(test::SharedImage(image)));
    TraceCapture trace;
    Ranges ranges{{1, 2}};
    EXPECT_FALSE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_EQ(ranges, (Ranges{{1, 2}}));
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(BootSector::GetMftSector() failed)"));
  }
}

TEST(GetMFTSectorRanges, AZeroClusterSizeSkipsTheExtent) {
  TempDisk disk(Disk(Record0(), 0), 512);
  TraceCapture trace;
  Ranges ranges{{1, 2}};
  EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
  EXPECT_EQ(ranges, (Ranges{{1, 2}}));
  EXPECT_FALSE(trace.Contains(L"MFT::GetMftRanges"));
  EXPECT_TRUE(trace.Has(L"[V]: VMFT::GetMFTSectorRanges : ... ending"));
}

TEST(GetMFTSectorRanges, AnExtentWhoseRecordsCannotBeUsedAddsNothingButDoesNotFail) {
  // MFT cluster past the end of the disk: the record read comes up short.
  {
    TempDisk disk(MbrDisk(BareVolume(512, 8, 1000, 8, {}, 128), 2048), 512);
    Ranges ranges;
    TraceCapture trace;
    EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_TRUE(ranges.empty());
    EXPECT_TRUE(trace.Has(L"[E]: MFT::GetMftRanges : ... ending(ReadMftRecord() failed)"));
  }
  // A resident $DATA after a good one: the good one's pairs stay, volume-relative.
  {
    RecordFixture r;
    r.NonResident(layout::kData, {0x11, 0x04, 0x10}).Resident(layout::kData, 16).End();
    TempDisk disk(Disk(r.OnDisk()), 512);
    Ranges ranges{{1, 2}};
    TraceCapture trace;
    EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_EQ(ranges, (Ranges{{1, 2}, {0x80, 0xA0}}));
    EXPECT_TRUE(trace.Has(L"[E]: MFT::GetMftRanges : ... ending(DATA_Attribute::GetSectorRange() failed)"));
  }
}

TEST(GetMFTSectorRanges, NoVolumeBehindTheLetter) {
  TempDisk disk(Disk(Record0()), 512);
  TraceCapture trace;
  Ranges ranges;
  EXPECT_FALSE(VMFT::GetMFTSectorRanges(L'D', ranges));
  EXPECT_TRUE(ranges.empty());
  EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(GetVolumeDiskExtentList() failed)"));
}

// Reports the disk geometry with the bytes per sector it is given.
class GeometryEnv : public test::FaultEnv {
 public:
  GeometryEnv(platform::Env& inner, DWORD bytes_per_sector) : FaultEnv(inner), bytes_(bytes_per_sector) {}
  bool DeviceIoControl(platform::HANDLE h, DWORD code, const void* in, DWORD in_size, void* out, DWORD out_size,
                       DWORD* returned) override {
    const bool ok = FaultEnv::DeviceIoControl(h, code, in, in_size, out, out_size, returned);
    if (ok && code == platform::kIoctlDiskGetDriveGeometryEx)
      static_cast<platform::DISK_GEOMETRY_EX*>(out)->Geometry.BytesPerSector = bytes_;
    return ok;
  }

 private:
  DWORD bytes_;
};

TEST(GetMFTSectorRanges, GeometryFailuresFailTheQuery) {
  TempDisk disk(Disk(Record0()), 512);
  {
    GeometryEnv env(platform::Env::Default(), 0);
    platform::ScopedEnv scoped(env);
    TraceCapture trace;
    Ranges ranges;
    EXPECT_FALSE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(GetDiskGeometryEx() failed)"));
  }
  {
    test::FaultEnv env(platform::Env::Default());
    platform::ScopedEnv scoped(env);
    // The first control call lists the extents, the second asks for the geometry.
    env.FailCall(test::Call::DeviceIoControl, platform::kErrorInvalidFunction, 2);
    TraceCapture trace;
    Ranges ranges;
    EXPECT_FALSE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(GetDiskGeometryEx() failed)"));
  }
}

TEST(GetMFTSectorRanges, HandlesAreClosedAfterEachExtent) {
  TempDisk disk(Disk(Record0()), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  Ranges ranges;
  ASSERT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
  EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
}

TEST(GetMFTSectorRanges, RealRecordsOnAFourKSectorDisk) {
  // Boot sector and records 0-4 of a Windows volume on 4096-byte sectors: 1 sector
  // per cluster, MFT at cluster 8533, $MFT's $DATA one run of 0x40 clusters there.
  const auto boot = test::ReadFileBytes(test::SharedImage("records/4kn-ntfs-bootsector.bin"));
  const auto records = test::ReadFileBytes(test::SharedImage("records/4kn-ntfs-mft-records0-4.bin"));
  std::vector<std::byte> disk((8533 + 2) * 4096);
  std::copy(boot.begin(), boot.end(), disk.begin());
  std::copy(records.begin(), records.end(), disk.begin() + 8533 * 4096);
  TempDisk attached(disk, 4096);
  Ranges ranges;
  ASSERT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
  EXPECT_EQ(ranges, (Ranges{{8533, 8533 + 0x40}}));
}

}  // namespace
}  // namespace koru

#endif  // _WIN32
