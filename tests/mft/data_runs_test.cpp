#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "mft/attribute.h"
#include "mft/layout.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

SectorRanges Decode(std::vector<std::uint8_t> runs, platform::DWORD sectors_per_cluster = 8) {
  DATA_Attribute attribute(Bytes{}, sectors_per_cluster);
  std::deque<std::uint8_t> queue(runs.begin(), runs.end());
  SectorRanges ranges;
  attribute.ProcessDataRun(queue, ranges);
  return ranges;
}

TEST(DataRuns, OneRunBecomesVolumeRelativeSectors) {
  const auto ranges = Decode({0x31, 0x40, 0x00, 0x10, 0x0C, 0x00});
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_EQ(ranges[0], SectorRange(0x0C1000u * 8, (0x0C1000u + 0x40) * 8));
}

TEST(DataRuns, NegativeOffsetMovesBackwards) {
  // 0x100 clusters at 0x1000, then 0x10 clusters 0x800 back (offset field F800).
  const auto r = Decode({0x22, 0x00, 0x01, 0x00, 0x10, 0x21, 0x10, 0x00, 0xF8, 0x00}, 1);
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0], SectorRange(0x1000, 0x1100));
  EXPECT_EQ(r[1], SectorRange(0x800, 0x810));  // 2^16 - 0xF800 = 0x800 back
}

TEST(DataRuns, SparseAndZeroOffsetRunsAddNothing) {
  // A sparse run (no offset field) between two real ones leaves the LCN alone.
  const auto r = Decode({0x11, 0x04, 0x20, 0x01, 0x08, 0x11, 0x02, 0x10, 0x00}, 2);
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0], SectorRange(0x40, 0x48));
  EXPECT_EQ(r[1], SectorRange(0x60, 0x64));
  // A relative offset of 0 is dropped too.
  EXPECT_TRUE(Decode({0x11, 0x04, 0x00, 0x00}).empty());
  // So is a zero length.
  EXPECT_TRUE(Decode({0x11, 0x00, 0x05, 0x00}).empty());
}

TEST(DataRuns, EightByteOffsetsUseTheDecodersOwnLimit) {
  // 2^(8*8) wraps to 2^0: a negative 8-byte offset moves back by 1 - raw.
  const auto r = Decode({0x81, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, 1);
  ASSERT_EQ(r.size(), 1u);
  const std::uint64_t lcn = 0 - (1 - 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(r[0].first, lcn);
}

TEST(DataRuns, TruncatedListsStopAtTheirEnd) {
  EXPECT_TRUE(Decode({}).empty());
  EXPECT_TRUE(Decode({0x31}).empty());              // no length bytes
  EXPECT_TRUE(Decode({0x31, 0x40, 0x00}).empty());  // offset cut short: 0 read, nothing moves
  // A cut offset field counts with the bytes it has, and nothing is read after it.
  const auto cut = Decode({0x31, 0x40, 0x00, 0x10}, 8);
  ASSERT_EQ(cut.size(), 1u);
  EXPECT_EQ(cut[0], SectorRange(0x1000 * 8, 0x1040 * 8));
  // A list that ends without its 0 byte keeps what it decoded.
  EXPECT_EQ(Decode({0x11, 0x04, 0x10}).size(), 1u);
  // Length fields wider than 8 bytes are consumed without overflowing.
  std::vector<std::uint8_t> wide = {0x1F};
  wide.insert(wide.end(), 15, 0x01);
  wide.push_back(0x05);
  EXPECT_EQ(Decode(wide).size(), 1u);
}

TEST(DataRuns, OffsetsAreRelativeToThePreviousRunAndTracedAsMagnitudes) {
  test::TraceCapture trace;
  // +0x10, then a 3-byte negative field FFFFF8: 2^24 - 0xFFFFF8 = 8 back.
  const auto r = Decode({0x11, 0x02, 0x10, 0x31, 0x01, 0xF8, 0xFF, 0xFF, 0x00}, 4);
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0], SectorRange(0x10 * 4, 0x12 * 4));
  EXPECT_EQ(r[1], SectorRange(0x08 * 4, 0x09 * 4));
  EXPECT_TRUE(trace.Contains(L"Attribute::ProcessDataRun : abs_offset = 8"));
  // A positive 8-byte field is taken as it is.
  const auto big = Decode({0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00}, 1);
  ASSERT_EQ(big.size(), 1u);
  EXPECT_EQ(big[0].first, 0x0100000000000000ull);
}

TEST(DataRuns, AnOffsetFieldCutByTheEndOfTheBytesCountsAsReadAndEndsTheDecoding) {
  // The second run wants 2 offset bytes and finds 1: it moves by that byte, and
  // the decoder takes no header from beyond the list.
  EXPECT_EQ(Decode({0x11, 0x04, 0x10, 0x21, 0x04, 0x10}), (SectorRanges{{0x80, 0xA0}, {0x100, 0x120}}));
  // A list that ends right after a complete run needs no closing 0.
  EXPECT_EQ(Decode({0x11, 0x04, 0x10, 0x11, 0x01, 0x01}), (SectorRanges{{0x80, 0xA0}, {0x88, 0x90}}));
}

// A non-resident $DATA attribute of `length` bytes whose run list starts at 0x40.
std::vector<std::byte> DataAttribute(std::vector<std::uint8_t> runs, std::uint32_t length) {
  std::vector<std::byte> a(std::max<std::size_t>(length, 0x40 + runs.size()));
  test::Put32(a, layout::kAttrType, layout::kData);
  test::Put32(a, layout::kAttrLength, length);
  a[layout::kAttrNonResident] = std::byte{1};
  test::Put16(a, layout::kAttrRunListOffset, 0x40);
  for (std::size_t i = 0; i < runs.size(); ++i) a[0x40 + i] = std::byte{runs[i]};
  return a;
}

TEST(DataRuns, GetSectorRangeReadsTheRunListWithinTheAttribute) {
  auto bytes = DataAttribute({0x11, 0x04, 0x10, 0x00}, 0x48);
  DATA_Attribute data(Bytes(bytes), 1);
  SectorRanges ranges{{1, 2}};
  ASSERT_TRUE(data.GetSectorRange(Bytes(bytes), ranges));
  ASSERT_EQ(ranges.size(), 2u);
  EXPECT_EQ(ranges[1], SectorRange(0x10, 0x14));
  // A length field larger than the attribute's bytes is clipped to them.
  auto lying = DataAttribute({0x11, 0x04, 0x10, 0x00}, 0xFFFF);
  lying.resize(0x44);
  SectorRanges clipped;
  EXPECT_TRUE(data.GetSectorRange(Bytes(lying), clipped));
  EXPECT_EQ(clipped.size(), 1u);
  // An empty run list (offset equal to the length) decodes to nothing.
  auto empty = DataAttribute({}, 0x40);
  SectorRanges none;
  EXPECT_TRUE(data.GetSectorRange(Bytes(empty), none));
  EXPECT_TRUE(none.empty());
}

TEST(DataRuns, ResidentOrMissingDataFails) {
  auto bytes = DataAttribute({0x11, 0x04, 0x10, 0x00}, 0x48);
  bytes[layout::kAttrNonResident] = std::byte{0};
  DATA_Attribute data(Bytes(bytes), 1);
  SectorRanges ranges;
  EXPECT_FALSE(data.GetSectorRange(Bytes(bytes), ranges));
  EXPECT_FALSE(data.GetSectorRange(Bytes{}, ranges));
  EXPECT_TRUE(ranges.empty());
}

}  // namespace
}  // namespace koru
