#include <gtest/gtest.h>

#include <deque>
#include <vector>

#include "mft/attribute.h"
#include "mft/attribute_walk.h"
#include "base/ntfs_layout.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using End = Attribute::RunListEnd;

TEST(DataRuns, RunListsBecomeVolumeRelativeSectorRanges) {
  struct Case {
    const char* what;
    std::vector<std::uint8_t> runs;
    platform::DWORD spc;
    SectorRanges expected;
    End end = End::kTerminated;
  } cases[] = {
      {"one run", {0x31, 0x40, 0x00, 0x10, 0x0C, 0x00}, 8, {{0x0C1000u * 8, (0x0C1000u + 0x40) * 8}}},
      // 0x100 clusters at 0x1000, then 0x10 clusters 2^16 - 0xF800 = 0x800 back.
      {"negative offset", {0x22, 0x00, 0x01, 0x00, 0x10, 0x21, 0x10, 0x00, 0xF8, 0x00}, 1,
       {{0x1000, 0x1100}, {0x800, 0x810}}},
      // The decoder's own limit: 2^(8*8) wraps to 2^0, so FF..FF moves 1 - raw = 2 back.
      {"8-byte negative offset", {0x81, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, 1,
       {{0xFFFFFFFFFFFFFFFEull, 0xFFFFFFFFFFFFFFFFull}}},
      {"8-byte positive offset", {0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00}, 1,
       {{0x0100000000000000ull, 0x0100000000000001ull}}},
      // A sparse run (no offset field) between two real ones leaves the LCN alone.
      {"sparse run", {0x11, 0x04, 0x20, 0x01, 0x08, 0x11, 0x02, 0x10, 0x00}, 2, {{0x40, 0x48}, {0x60, 0x64}}},
      {"zero offset", {0x11, 0x04, 0x00, 0x00}, 8, {}},
      {"zero length", {0x11, 0x00, 0x05, 0x00}, 8, {}},
      // A list used up at the end of a run ends there, as if closed.
      {"empty list", {}, 8, {}, End::kUsedUp},
      {"no closing 0", {0x11, 0x04, 0x10, 0x11, 0x01, 0x01}, 8, {{0x80, 0xA0}, {0x88, 0x90}}, End::kUsedUp},
      // Length fields wider than 8 bytes are consumed without overflowing.
      {"16-byte length", {0x1F, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0x05}, 8,
       {{0x28, 0x28 + 0x0101010101010101ull * 8}}, End::kUsedUp},
      // Cut inside a run: a cut offset field counts with the bytes it has, nothing is
      // read after it, and the list is reported cut.
      {"no length bytes", {0x31}, 8, {}, End::kCut},
      {"offset cut to nothing", {0x31, 0x40, 0x00}, 8, {}, End::kCut},
      {"offset cut to one byte", {0x31, 0x40, 0x00, 0x10}, 8, {{0x1000 * 8, 0x1040 * 8}}, End::kCut},
      {"second offset cut", {0x11, 0x04, 0x10, 0x21, 0x04, 0x10}, 8, {{0x80, 0xA0}, {0x100, 0x120}}, End::kCut},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::deque<std::uint8_t> queue(c.runs.begin(), c.runs.end());
    SectorRanges ranges;
    EXPECT_EQ(DATA_Attribute(Bytes{}, c.spc).ProcessDataRun(queue, ranges), c.end);
    EXPECT_EQ(ranges, c.expected);
  }
}

TEST(DataRuns, GetSectorRangeReadsTheRunListWithinTheAttributeAndRefusesOthers) {
  test::RecordFixture r;
  r.NonResident(layout::kData, {0x11, 0x04, 0x10});  // 0x48 bytes at 0x38, runs from 0x40
  const Bytes attribute = Bytes(r.bytes()).subspan(0x38);
  DATA_Attribute data(attribute, 1);
  // The whole attribute is read in MftRanges.FailuresAndBoundsBreachesLeaveThePairsUnshifted.
  // A length field larger than the attribute's bytes is clipped to them: fine when
  // the list closes within them, a cut list when it would run on.
  test::Put32(r.bytes(), 0x38 + layout::kAttrLength, 0xFFFF);
  SectorRanges ranges;
  EXPECT_TRUE(data.GetSectorRange(attribute.first(0x44), ranges));
  EXPECT_FALSE(data.GetSectorRange(attribute.first(0x43), ranges));
  EXPECT_EQ(ranges.size(), 2u);
  // An empty run list (offset equal to the length) decodes to nothing.
  test::Put32(r.bytes(), 0x38 + layout::kAttrLength, 0x40);
  ranges.clear();
  EXPECT_TRUE(data.GetSectorRange(attribute, ranges));
  EXPECT_TRUE(ranges.empty());

  // A resident $DATA is refused in MftRanges.FailuresAndBoundsBreachesLeaveThePairsUnshifted.
  test::TraceCapture trace;
  EXPECT_FALSE(data.GetSectorRange(Bytes{}, ranges));
  EXPECT_TRUE(trace.Contains(L"DATA_Attribute::GetSectorRange : ... ending(null $DATA attribute header pointer)"));
  EXPECT_TRUE(ranges.empty());
}

TEST(AttributeWalk, EndsAtTheEndMarkerTypeZeroAnUnknownTypeOrAnyBoundsBreach) {
  struct Case {
    const char* what;
    std::size_t at;
    std::uint32_t value;
    std::size_t visited;  // how many of the two attributes come out
    bool bounds, unknown;  // ended on a bounds breach; the factory saw an unknown type
  } cases[] = {
      {"intact record", 0x3F0, 0, 2, false, false},  // writes into unused space
      {"type 0", 0x98, 0, 1, false, false},
      {"unknown type", 0x98, 0xF0, 1, false, true},
      {"length 0 would not advance", 0x38 + layout::kAttrLength, 0, 0, true, false},
      {"length shorter than a header", 0x38 + layout::kAttrLength, 0x10, 0, true, false},
      {"length 0xFFFF", 0x38 + layout::kAttrLength, 0xFFFF, 0, true, false},
      {"non-resident length shorter than its header", 0x98 + layout::kAttrLength, 0x30, 1, true, false},
      {"length past the buffer", 0x98 + layout::kAttrLength, 0x400, 1, true, false},
      {"32-bit length whose low half is 0", 0x98 + layout::kAttrLength, 0x10000, 1, true, false},
      // The first-attribute offset is 16 bits; the flags after it do not matter here.
      {"first attribute at 0x3FE", layout::kRecFirstAttribute, 0x3FE, 0, true, false},
      {"first attribute at 0x400", layout::kRecFirstAttribute, 0x400, 0, true, false},
      {"header cut by the buffer", layout::kRecFirstAttribute, 0x3FC, 0, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    // A resident $STANDARD_INFORMATION at 0x38 (0x60 bytes), a non-resident $DATA at
    // 0x98 (0x48 bytes), then the end marker at 0xE0.
    test::RecordFixture f;
    auto& r = f.Resident(layout::kStandardInformation, 0x48).NonResident(layout::kData, {}).End().bytes();
    test::Put32(r, c.at, c.value);
    test::Put32(r, 0x3FC, layout::kData);  // what a cut header at 0x3FC would start with
    test::TraceCapture trace;
    AttributeWalk walk(Bytes(r), 8, 1234);
    std::vector<std::uint32_t> types;
    while (auto a = walk.Next()) types.push_back(le32Or0(a->header(), 0));
    const std::uint32_t all[] = {layout::kStandardInformation, layout::kData};
    EXPECT_EQ(types, std::vector<std::uint32_t>(all, all + c.visited));
    EXPECT_EQ(walk.stopped_on_bounds(), c.bounds);
    EXPECT_EQ(trace.Contains(L"record at sector 1234"), c.bounds);
    EXPECT_EQ(trace.Contains(L"[E]: Attribute::Factory : Unknown Atribute Type"), c.unknown);
  }
}

}  // namespace
}  // namespace koru
