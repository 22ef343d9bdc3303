// The record reader and GetMftRanges read through attached disk images (PosixEnv).
#ifndef _WIN32

#include "mft/mft.h"

#include <gtest/gtest.h>

#include <functional>

#include "mft/record_fixture.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

// A disk with one record at `sector`, update sequence number 7, fix-ups 0x1111 and
// 0x2222, whose array size and sector ends are as the test sets them.
std::vector<std::byte> DiskWithRecord(std::uint64_t sector, std::uint32_t sector_size, std::uint16_t usa_count,
                                      std::uint16_t end1 = 7, std::uint16_t end2 = 7) {
  test::RecordFixture r;
  test::Put16(r.bytes(), layout::kRecSectorEnd1, 0x1111);
  test::Put16(r.bytes(), layout::kRecSectorEnd2, 0x2222);
  std::vector<std::byte> record = r.OnDisk(7);
  // The array offset 0x28 is ignored: the array is always read at 0x30.
  for (const auto& [at, word] : {std::pair<std::size_t, std::uint16_t>{layout::kRecUsaOffset, 0x28},
                                 {layout::kRecUsaCount, usa_count}, {layout::kRecSectorEnd1, end1}, {layout::kRecSectorEnd2, end2}})
    test::Put16(record, at, word);
  return test::DiskWith(record, sector, sector + 4, sector_size);
}

using test::DiskReader;

TEST(MftReadRecord, FixUpsApplyOnlyForSizeThreeWithBothSectorEndsMatching) {
  struct Case {
    std::uint32_t sector_size;
    std::uint16_t usa_count, end1, end2, want1, want2;
    const wchar_t* trace;
  } cases[] = {
      {512, 3, 7, 7, 0x1111, 0x2222, L"[V]: MFT::ReadMftRecord : Found USN : mft.header.UpdateSequenceNumber = 7"},
      // 4096-byte sectors: still 1024 bytes, fixed up as two 512-byte halves.
      {4096, 3, 7, 7, 0x1111, 0x2222, L"[V]: MFT::ReadMftRecord : Found FixUp2 : mft.header.FixUp2 = 8738"},
      {512, 3, 7, 8, 7, 8, nullptr},
      {512, 3, 9, 7, 9, 7, nullptr},
      {512, 0, 7, 7, 7, 7, L"[V]: MFT::ReadMftRecord : Update Sequence Array Size zero"},
      {512, 9, 7, 7, 7, 7,
       L"[W]: MFT::ReadMftRecord : Unexpected Update Sequence Array Size : "
       L"mft.header.MultiSectorHeader.UpdateSequenceArraySize = 9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sector_size << " " << c.usa_count << " " << c.end1 << " " << c.end2);
    test::TempDisk disk(DiskWithRecord(3, c.sector_size, c.usa_count, c.end1, c.end2), c.sector_size);
    MFT mft = DiskReader(c.sector_size);
    test::TraceCapture trace;
    RecordBuffer record{};
    ASSERT_TRUE(mft.ReadMftRecord(3, record));
    std::vector<std::uint16_t> words;
    for (const std::size_t at : {layout::kRecSectorEnd1, layout::kRecSectorEnd2, layout::kRecUpdateSequenceNumber,
                                 layout::kRecFixUp1, layout::kRecFixUp2})
      words.push_back(le16Or0(Bytes(record), at));
    // The array itself is left as read.
    EXPECT_EQ(words, (std::vector<std::uint16_t>{c.want1, c.want2, 7, 0x1111, 0x2222}));
    EXPECT_TRUE(c.trace == nullptr || trace.Has(c.trace));
    EXPECT_EQ(trace.Contains(L"Found USN"), c.want1 == 0x1111);
    mft.CloseHandles();
  }
}

// Its second half ends in 0x0018 but the first in 0x0046: not the sequence number.
TEST(MftReadRecord, ARealTornRecordIsLeftAsRead) {
  const auto torn = test::ReadFileBytes(test::SharedImage("records/entry_102130_fixup_issue.bin"));
  test::TempDisk disk(test::DiskWith(torn, 2, 6), 512);
  MFT mft = DiskReader(512);
  test::TraceCapture trace;
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  mft.CloseHandles();
  EXPECT_TRUE(std::equal(torn.begin(), torn.end(), record.begin()));
  EXPECT_FALSE(trace.Contains(L"Found USN"));
}

TEST(MftReadRecord, ReusesTheDiskAndTheVolumeHint) {
  test::TempDisk disk(DiskWithRecord(2, 512, 3), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  // A failed hint: MftRead.EveryReadFailureOfEitherReaderWritesNothingAndTracesItsEnding.
  // With a hint already set, two reads open the disk once.
  MFT mft = DiskReader(512);
  RecordBuffer record{};
  test::TraceCapture trace;
  const int opens = env.Count(test::Call::CreateFileW);
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  EXPECT_EQ(env.Count(test::Call::CreateFileW) - opens, 1);
  EXPECT_TRUE(mft.SetVolumeHintHandle());
  EXPECT_TRUE(trace.Has(L"[V]: MFT::SetVolumeHintHandle : ... ending(already set)"));
  mft.CloseHandles();
}

// A good $DATA at 0x38 (0x48 bytes, its runs from 0x78), then what each case does.
// Success shifts every pair, the caller's earlier one included; a failure leaves
// them volume-relative. Bounds breaches are each tested with the walk and decoder.
TEST(MftRanges, FailuresAndBoundsBreachesLeaveThePairsUnshifted) {
  // The record at sector 16 of a volume said to start at 2048.
  const auto ranges_of = [](const std::vector<std::byte>& record, SectorRanges& ranges) {
    test::TempDisk disk(test::DiskWith(record, 16, 18), 512);
    MFT mft = DiskReader(512, 16);
    mft.m_uiVolumeStartSector = 2048;
    const bool ok = mft.GetMftRanges(ranges);
    mft.CloseHandles();
    return ok;
  };
  using R = test::RecordFixture&;
  const SectorRange first{0x80, 0xA0};
  const struct {
    const char* what;
    std::function<void(R)> build;
    bool ok;
    SectorRanges ranges;
    const wchar_t* trace;
  } cases[] = {
      {"intact", [](R r) { r.End(); }, true, {{1 + 2048, 2 + 2048}, {0x80 + 2048, 0xA0 + 2048}}, nullptr},
      {"resident $DATA between good ones",
       [](R r) { r.Resident(layout::kData, 16).NonResident(layout::kData, {0x11, 0x01, 0x20}, u"$Bad").End(); },
       false, {{1, 2}, first, {0x100, 0x108}}, L"[V]: DATA_Attribute::GetSectorRange : ... ending(Resident $DATA attribute)"},
      {"attribute of length 0", [](R r) { test::Put32(r.bytes(), 0x80, layout::kData); }, false, {{1, 2}, first},
       L"[E]: MFT::GetMftRanges : ... ending(attribute walk stopped on the record's bounds)"},
      // The attribute's end cuts a second run's 4-byte offset after 3 bytes: it moves
      // by those, then decoding ends; the zeros after the attribute must not complete it.
      {"run offset cut by the attribute's end",
       [](R r) {
         const std::uint8_t second[] = {0x41, 0x04, 0x10, 0x20, 0x30};
         for (std::size_t i = 0; i < 5; ++i) r.bytes()[0x7B + i] = std::byte{second[i]};
       },
       false, {{1, 2}, first, {(0x10 + 0x302010) * 8, (0x10 + 0x302010 + 4) * 8}},
       L"[E]: MFT::GetMftRanges : ... ending(DATA_Attribute::GetSectorRange() failed)"},
      {"run list outside its attribute", [](R r) { test::Put16(r.End().bytes(), 0x38 + layout::kAttrRunListOffset, 0xFFFF); },
       true, {{1 + 2048, 2 + 2048}}, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::TraceCapture trace;
    test::RecordFixture r;
    r.NonResident(layout::kData, {0x11, 0x04, 0x10});
    c.build(r);
    SectorRanges ranges{{1, 2}};
    EXPECT_EQ(ranges_of(r.OnDisk(), ranges), c.ok);
    EXPECT_EQ(ranges, c.ranges);
    EXPECT_TRUE(c.trace == nullptr || trace.Has(c.trace)) << testing::Message() << c.trace;
    EXPECT_EQ(trace.Contains(L"MftRange.first"), c.ok);
  }
  // A run list never closed, filling the record: whatever it decodes to, it ends.
  test::RecordFixture r;
  r.NonResident(layout::kData, {0x11, 0x04, 0x10});
  test::Put32(r.bytes(), 0x38 + layout::kAttrLength, static_cast<std::uint32_t>(layout::kRecordSize - 0x38));
  for (std::size_t i = 0x7B; i < layout::kRecordSize; ++i) r.bytes()[i] = std::byte{0x77};
  SectorRanges ranges;
  ranges_of(r.OnDisk(), ranges);
}

}  // namespace
}  // namespace koru

#endif  // _WIN32
