// The record reader and GetMftRanges read through attached disk images (PosixEnv).
#ifndef _WIN32

#include "mft/mft.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "mft/record_fixture.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::Put16;

// A disk with one record at `sector` whose update sequence is as the test sets it.
std::vector<std::byte> DiskWithRecord(std::uint64_t sector, std::uint32_t sector_size, std::uint16_t usa_count,
                                      std::uint16_t usn, std::uint16_t end1, std::uint16_t end2) {
  std::vector<std::byte> disk((sector + 4) * sector_size);
  const std::size_t at = sector * sector_size;
  test::PutText(disk, at, "FILE");
  Put16(disk, at + layout::kRecUsaCount, usa_count);
  Put16(disk, at + layout::kRecUpdateSequenceNumber, usn);
  Put16(disk, at + layout::kRecFixUp1, 0x1111);
  Put16(disk, at + layout::kRecFixUp2, 0x2222);
  Put16(disk, at + layout::kRecSectorEnd1, end1);
  Put16(disk, at + layout::kRecSectorEnd2, end2);
  return disk;
}

MFT Reader(std::uint32_t sector_size) {
  MFT mft;
  std::wcscpy(mft.m_wszPhysicalDrive, L"\\\\.\\PhysicalDrive0");
  mft.m_wcDriveLetter = L'C';
  mft.m_dwBytesPerSector = sector_size;
  // The disk stands in for the volume hint: the images here have no lettered volume.
  mft.m_hVolumeHint = platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                                           platform::kOpenExisting, 0);
  return mft;
}

std::uint16_t Word(const RecordBuffer& r, std::size_t at) { return le16Or0(Bytes(r), at); }

TEST(MftReadRecord, MatchingUpdateSequencePatchesBothSectorEnds) {
  test::TempDisk disk(DiskWithRecord(10, 512, 3, 0x0007, 0x0007, 0x0007), 512);
  MFT mft = Reader(512);
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(10, record));
  EXPECT_EQ(Word(record, layout::kRecSectorEnd1), 0x1111);
  EXPECT_EQ(Word(record, layout::kRecSectorEnd2), 0x2222);
  EXPECT_EQ(Word(record, layout::kRecUpdateSequenceNumber), 0x0007);  // the array itself is unchanged
  EXPECT_EQ(Word(record, layout::kRecFixUp1), 0x1111);
  mft.CloseHandles();
}

TEST(MftReadRecord, TornAndUnexpectedRecordsAreReturnedUnpatched) {
  struct Case {
    std::uint16_t usa_count, end1, end2;
    const wchar_t* trace;
  } cases[] = {
      {3, 0x0007, 0x0008, nullptr},
      {3, 0x0009, 0x0007, nullptr},
      {0, 0x0007, 0x0007, L"[V]: MFT::ReadMftRecord : Update Sequence Array Size zero"},
      {9, 0x0007, 0x0007,
       L"[W]: MFT::ReadMftRecord : Unexpected Update Sequence Array Size : "
       L"mft.header.MultiSectorHeader.UpdateSequenceArraySize = 9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.usa_count);
    test::TempDisk disk(DiskWithRecord(2, 512, c.usa_count, 0x0007, c.end1, c.end2), 512);
    MFT mft = Reader(512);
    test::TraceCapture trace;
    RecordBuffer record{};
    ASSERT_TRUE(mft.ReadMftRecord(2, record));
    EXPECT_EQ(Word(record, layout::kRecSectorEnd1), c.end1);
    EXPECT_EQ(Word(record, layout::kRecSectorEnd2), c.end2);
    if (c.trace) {
      EXPECT_TRUE(trace.Has(c.trace));
    }
    mft.CloseHandles();
  }
}

TEST(MftReadRecord, FourKSectorsStillReadOneKibibyteInTwoHalves) {
  test::TempDisk disk(DiskWithRecord(3, 4096, 3, 0x0042, 0x0042, 0x0042), 4096);
  MFT mft = Reader(4096);
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(3, record));
  EXPECT_EQ(std::memcmp(record.data(), "FILE", 4), 0);
  EXPECT_EQ(Word(record, layout::kRecSectorEnd2), 0x2222);
  mft.CloseHandles();
}

TEST(MftReadRecord, ReusesItsHandlesAndOpensTheVolumeHintFirst) {
  test::TempDisk disk(DiskWithRecord(2, 512, 3, 1, 1, 1), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  MFT mft = Reader(512);
  platform::Env::Default().CloseHandle(mft.m_hVolumeHint);
  mft.m_hVolumeHint = platform::InvalidHandle();
  RecordBuffer record{};
  // No volume C: on a disk without a partition table of NTFS: the hint cannot open.
  test::TraceCapture trace;
  EXPECT_FALSE(mft.ReadMftRecord(2, record));
  EXPECT_TRUE(trace.Has(L"[E]: MFT::SetVolumeHintHandle : Createfile() failed) : dwLastError = 2"));
  EXPECT_TRUE(trace.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetVolumeHintHandle() failed)"));
  // With a hint already set, two reads open the disk once.
  mft.m_hVolumeHint = platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                                           platform::kOpenExisting, 0);
  const int opens = env.Count(Call::CreateFileW);
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  EXPECT_EQ(env.Count(Call::CreateFileW) - opens, 1);
  trace.Reset();
  EXPECT_TRUE(mft.SetVolumeHintHandle());
  EXPECT_TRUE(trace.Has(L"[V]: MFT::SetVolumeHintHandle : ... ending(already set)"));
  mft.CloseHandles();
}

class MftReadFaults : public ::testing::Test {
 protected:
  MftReadFaults()
      : disk_(DiskWithRecord(2, 512, 3, 1, 1, 1), 512), env_(platform::Env::Default()), scoped_(env_),
        mft_(Reader(512)) {}
  ~MftReadFaults() override { mft_.CloseHandles(); }
  bool Read() {
    RecordBuffer record{};
    return mft_.ReadMftRecord(2, record);
  }
  test::TempDisk disk_;
  test::FaultEnv env_;
  platform::ScopedEnv scoped_;
  MFT mft_;
  test::TraceCapture trace_;
};

TEST_F(MftReadFaults, DiskOpenFailure) {
  env_.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(CreateFie() failed) : dwLastError = 5"));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : m_wszPhysicalDrive = \"\\\\.\\PhysicalDrive0\""));
}

TEST_F(MftReadFaults, SeekFailureAndWrongPosition) {
  env_.FailCall(Call::SetFilePointerEx, platform::kErrorSeek);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetFilePointerEx() failed) : dwLastError = 25"));
  env_.SeekOff(-1);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetFilePointerEx() failed to seek to requested offset)"));
}

TEST_F(MftReadFaults, ReadFailureAndShortRead) {
  env_.FailCall(Call::ReadFile, platform::kErrorReadFault);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(ReadFile() failed)"));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : dwLastError = 30"));
  env_.ShortRead(1023);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(Didn't read the whole MFT record)"));
  EXPECT_TRUE(Read());
}

TEST(MftReadRecord, RealRecordWithTornFixUpsIsReturnedAsRead) {
  // Its second half ends in 0x0018 but the first in 0x0046: not the sequence number.
  const auto bytes = test::ReadFileBytes(test::SharedImage("records/entry_102130_fixup_issue.bin"));
  std::vector<std::byte> image(8 * 512);
  std::copy(bytes.begin(), bytes.end(), image.begin() + 4 * 512);
  test::TempDisk disk(image, 512);
  MFT mft = Reader(512);
  test::TraceCapture trace;
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(4, record));
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), record.begin()));
  EXPECT_FALSE(trace.Contains(L"Found USN"));
  mft.CloseHandles();
}

// GetMftRanges on a disk whose record 0 sits at sector 16 of a volume said to start
// at 2048: the pairs come out shifted by the volume start.
class MftRanges : public ::testing::Test {
 protected:
  bool Ranges(const std::vector<std::byte>& record, SectorRanges& ranges, platform::DWORD spc = 8) {
    std::vector<std::byte> image(20 * 512);
    std::copy(record.begin(), record.end(), image.begin() + 16 * 512);
    test::TempDisk disk(image, 512);
    MFT mft = Reader(512);
    mft.m_dwSectorsPerCluster = spc;
    mft.m_uiVolumeStartSector = 2048;
    mft.m_uiMftSector = 16;
    const bool ok = mft.GetMftRanges(ranges);
    mft.CloseHandles();
    return ok;
  }
  test::TraceCapture trace_;
};

TEST_F(MftRanges, TheRunListExampleOnAVolumeAt2048) {
  test::RecordFixture r;
  r.Resident(layout::kStandardInformation, 0x48).NonResident(layout::kData, {0x31, 0x40, 0x00, 0x10, 0x0C}).End();
  SectorRanges ranges;
  ASSERT_TRUE(Ranges(r.OnDisk(), ranges));
  EXPECT_EQ(ranges, (SectorRanges{{0x0C1000u * 8 + 2048, (0x0C1000u + 0x40) * 8 + 2048}}));
  EXPECT_TRUE(trace_.Has(L"[I]: MFT::GetMftRanges : MftRange.second = " +
                         std::to_wstring((0x0C1000u + 0x40) * 8 + 2048)));
}

TEST_F(MftRanges, PreFilledPairsAreShiftedOnSuccessOnly) {
  test::RecordFixture good;
  good.NonResident(layout::kData, {0x11, 0x04, 0x10}).End();
  SectorRanges ranges{{1, 2}};
  ASSERT_TRUE(Ranges(good.OnDisk(), ranges));
  EXPECT_EQ(ranges, (SectorRanges{{2049, 2050}, {0x80 + 2048, 0xA0 + 2048}}));

  // A resident $DATA fails its attribute; the walk still decodes the ones after it.
  test::RecordFixture bad;
  bad.NonResident(layout::kData, {0x11, 0x04, 0x10})
      .Resident(layout::kData, 16)
      .NonResident(layout::kData, {0x11, 0x01, 0x20}, u"$Bad")
      .End();
  ranges = {{1, 2}};
  trace_.Reset();
  EXPECT_FALSE(Ranges(bad.OnDisk(), ranges));
  EXPECT_EQ(ranges, (SectorRanges{{1, 2}, {0x80, 0xA0}, {0x100, 0x108}}));
  EXPECT_TRUE(trace_.Has(L"[V]: DATA_Attribute::GetSectorRange : ... ending(Resident $DATA attribute)"));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::GetMftRanges : ... ending(DATA_Attribute::GetSectorRange() failed)"));
  EXPECT_FALSE(trace_.Contains(L"MftRange.first"));
}

TEST_F(MftRanges, AnUnknownTypeHidesTheDataAttributesAfterIt) {
  test::RecordFixture r;
  r.NonResident(layout::kData, {0x11, 0x04, 0x10}).Resident(0xF0, 8).NonResident(layout::kData, {0x11, 0x01, 0x20})
      .End();
  SectorRanges ranges;
  ASSERT_TRUE(Ranges(r.OnDisk(), ranges));
  EXPECT_EQ(ranges, (SectorRanges{{0x80 + 2048, 0xA0 + 2048}}));
}

TEST_F(MftRanges, AnUnreadableRecordAppendsNothing) {
  SectorRanges ranges{{1, 2}};
  std::vector<std::byte> image(4 * 512);  // sector 16 lies past the end
  test::TempDisk disk(image, 512);
  MFT mft = Reader(512);
  mft.m_dwSectorsPerCluster = 8;
  mft.m_uiMftSector = 16;
  EXPECT_FALSE(mft.GetMftRanges(ranges));
  EXPECT_EQ(ranges, (SectorRanges{{1, 2}}));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::GetMftRanges : ... ending(ReadMftRecord() failed)"));
  mft.CloseHandles();
}

TEST_F(MftRanges, HostileRecordsNeitherCrashNorHang) {
  const std::vector<std::uint8_t> runs = {0x11, 0x04, 0x10};
  const SectorRanges first_only{{0x80 + 2048, 0xA0 + 2048}};
  struct Case {
    const char* what;
    std::vector<std::byte> record;
    std::optional<SectorRanges> expected;  // none: whatever, as long as it ends
  };
  std::vector<Case> cases;
  // A good $DATA at 0x38 (0x48 bytes), then what `build` puts at 0x80.
  auto after_data = [&](const char* what, auto&& build) {
    test::RecordFixture r;
    r.NonResident(layout::kData, runs);
    build(r);
    cases.push_back({what, r.OnDisk(), first_only});
  };
  after_data("length 0", [](test::RecordFixture& r) { r.Raw(layout::kData, 0); });
  after_data("length 0xFFFF", [](test::RecordFixture& r) { r.Raw(layout::kData, 0xFFFF); });
  after_data("length past the buffer", [](test::RecordFixture& r) { r.Raw(layout::kFileName, 0x3C0); });
  after_data("32-bit length whose low half is 0", [](test::RecordFixture& r) { r.Raw(layout::kData, 0x10000); });
  after_data("header cut by the buffer", [](test::RecordFixture& r) {
    r.Raw(layout::kStandardInformation, 0x37E);  // the next type would start at 0x3FE
    test::Put16(r.bytes(), 0x3FE, 0x0080);
  });
  {
    test::RecordFixture r;
    r.NonResident(layout::kData, runs).End();
    test::Put16(r.bytes(), layout::kRecFirstAttribute, 0xFFF8);
    cases.push_back({"first attribute past the buffer", r.OnDisk(), SectorRanges{}});
  }
  {
    // The second run's offset field needs 4 bytes where the attribute has 3 left;
    // the zeros after the attribute must not complete it.
    test::RecordFixture r;
    r.NonResident(layout::kData, {0x11, 0x04, 0x10, 0x41, 0x04, 0x10, 0x20, 0x30});
    test::Put32(r.bytes(), 0x38 + layout::kAttrLength, 0x48);
    // The attribute's end cuts the second run's 4-byte offset after 3 bytes: it
    // moves by those, then decoding ends.
    const SectorRanges cut{first_only[0], {(0x10 + 0x302010) * 8 + 2048, (0x10 + 0x302010 + 4) * 8 + 2048}};
    cases.push_back({"run list longer than its attribute", r.OnDisk(), cut});
  }
  {
    // A run list never closed by a 0, running on to the end of the record.
    test::RecordFixture r;
    r.NonResident(layout::kData, runs);
    test::Put32(r.bytes(), 0x38 + layout::kAttrLength, static_cast<std::uint32_t>(layout::kRecordSize - 0x38));
    for (std::size_t i = 0x38 + 0x40; i < layout::kRecordSize; ++i) r.bytes()[i] = std::byte{0x77};
    cases.push_back({"run list filling the record", r.OnDisk(0x7777), std::nullopt});
  }
  {
    test::RecordFixture r;
    r.NonResident(layout::kData, runs).End();
    test::Put16(r.bytes(), 0x38 + layout::kAttrRunListOffset, 0xFFFF);
    cases.push_back({"run list offset past the attribute", r.OnDisk(), SectorRanges{}});
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    trace_.Reset();
    SectorRanges ranges;
    Ranges(c.record, ranges);
    if (c.expected) {
      EXPECT_EQ(ranges, *c.expected);
    }
  }
  // The walk names the record's sector when it stops on a hostile attribute.
  trace_.Reset();
  SectorRanges ranges;
  Ranges(cases[0].record, ranges);
  EXPECT_TRUE(trace_.Contains(L"[E]: AttributeWalk::Next : attribute walk stopped"));
  EXPECT_TRUE(trace_.Contains(L"record at sector 16, offset 128"));
}

TEST_F(MftRanges, RealFourKSectorRecordsReadAsOneKibibyte) {
  // Records 0-4 of a Windows volume on 4096-byte sectors, the MFT at sector 8533
  // (1 sector per cluster): $MFT's $DATA is the run 21 40 55 21.
  const auto records = test::ReadFileBytes(test::SharedImage("records/4kn-ntfs-mft-records0-4.bin"));
  std::vector<std::byte> image(4 * 4096);
  std::copy(records.begin(), records.end(), image.begin() + 2 * 4096);
  test::TempDisk disk(image, 4096);
  MFT mft = Reader(4096);
  mft.m_dwSectorsPerCluster = 1;
  mft.m_uiMftSector = 2;
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  // Both sector ends of record 0 carried the sequence number 2 and are now restored.
  EXPECT_EQ(Word(record, layout::kRecSectorEnd1), 0);
  EXPECT_EQ(Word(record, layout::kRecSectorEnd2), 0);
  EXPECT_TRUE(std::equal(records.begin(), records.begin() + 0x1FE, record.begin()));
  SectorRanges ranges;
  ASSERT_TRUE(mft.GetMftRanges(ranges));
  EXPECT_EQ(ranges, (SectorRanges{{8533, 8533 + 0x40}}));
  mft.CloseHandles();
}

}  // namespace
}  // namespace koru

#endif  // _WIN32
