#include "mft/attribute_walk.h"

#include <gtest/gtest.h>

#include "base/ntfs_layout.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

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
