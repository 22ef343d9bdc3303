#include "mft/attribute_walk.h"

#include <gtest/gtest.h>

#include "mft/layout.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Put16;
using test::Put32;

// A record whose attributes start at 0x38: a resident $STANDARD_INFORMATION of
// 0x60 bytes, a non-resident $DATA of 0x48 bytes, then the end marker.
std::vector<std::byte> Record() {
  std::vector<std::byte> r(layout::kRecordSize);
  test::PutText(r, 0, "FILE");
  Put16(r, layout::kRecFirstAttribute, 0x38);
  Put32(r, 0x38 + layout::kAttrType, layout::kStandardInformation);
  Put32(r, 0x38 + layout::kAttrLength, 0x60);
  Put32(r, 0x98 + layout::kAttrType, layout::kData);
  Put32(r, 0x98 + layout::kAttrLength, 0x48);
  r[0x98 + layout::kAttrNonResident] = std::byte{1};
  Put16(r, 0x98 + layout::kAttrRunListOffset, 0x40);
  Put32(r, 0xE0, layout::kEndOfAttributes);
  return r;
}

std::vector<std::uint32_t> Walk(const std::vector<std::byte>& record, bool* bounds = nullptr) {
  AttributeWalk walk(Bytes(record), 8, 1234);
  std::vector<std::uint32_t> types;
  while (auto a = walk.Next()) types.push_back(le32Or0(a->header(), 0));
  if (bounds) *bounds = walk.stopped_on_bounds();
  return types;
}

TEST(AttributeWalk, VisitsEveryAttributeUpToTheEndMarker) {
  bool bounds = true;
  EXPECT_EQ(Walk(Record(), &bounds), (std::vector<std::uint32_t>{layout::kStandardInformation, layout::kData}));
  EXPECT_FALSE(bounds);
}

TEST(AttributeWalk, TypeZeroAndUnknownTypesEndTheWalk) {
  auto r = Record();
  Put32(r, 0x98, 0);
  EXPECT_EQ(Walk(r).size(), 1u);
  r = Record();
  Put32(r, 0x98, 0xF0);
  test::TraceCapture trace;
  EXPECT_EQ(Walk(r).size(), 1u);
  EXPECT_TRUE(trace.Has(L"[E]: Attribute::Factory : Unknown Atribute Type : pAttrHdr->AttributeType = 240"));
}

TEST(AttributeWalk, HostileLengthsStopWithATraceInsteadOfLeavingTheRecord) {
  struct Case {
    const char* what;
    std::size_t at;
    std::uint32_t value;
  } cases[] = {
      {"length 0 would not advance", 0x38 + layout::kAttrLength, 0},
      {"length shorter than a header", 0x38 + layout::kAttrLength, 0x10},
      {"length 0xFFFF", 0x38 + layout::kAttrLength, 0xFFFF},
      {"non-resident length shorter than its header", 0x98 + layout::kAttrLength, 0x30},
      {"length past the buffer", 0x98 + layout::kAttrLength, 0x400},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto r = Record();
    Put32(r, c.at, c.value);
    test::TraceCapture trace;
    bool bounds = false;
    Walk(r, &bounds);
    EXPECT_TRUE(bounds);
    EXPECT_TRUE(trace.Contains(L"record at sector 1234"));
  }
}

TEST(AttributeWalk, FirstAttributeOffsetPastTheBufferStops) {
  for (std::uint16_t offset : {0x3FE, 0x400, 0xFFFF}) {
    auto r = Record();
    Put16(r, layout::kRecFirstAttribute, offset);
    bool bounds = false;
    EXPECT_TRUE(Walk(r, &bounds).empty());
    EXPECT_TRUE(bounds);
  }
  // An attribute header cut by the buffer's end.
  auto r = Record();
  Put16(r, layout::kRecFirstAttribute, 0x3FC);
  Put32(r, 0x3FC, layout::kData);
  bool bounds = false;
  EXPECT_TRUE(Walk(r, &bounds).empty());
  EXPECT_TRUE(bounds);
}

TEST(AttributeWalk, EveryRecordOfRealMftFilesWalksWithinBounds) {
  // Real records, torn and BAAD ones included: the walk must end on its own.
  for (const char* file : {"mft-files/xw.MFT", "mft-files/nist-dfr16.MFT", "mft-files/4k-large.mft",
                           "mft-files/compressed_sparse.mft", "fuzz-seeds/tsk-fls-ntfs-crash-5124116049166336"}) {
    SCOPED_TRACE(file);
    const auto bytes = test::ReadFileBytes(test::SharedImage(file));
    std::size_t walked = 0;
    for (std::size_t at = 0; at + layout::kRecordSize <= bytes.size(); at += layout::kRecordSize) {
      AttributeWalk walk(Bytes(bytes).subspan(at, layout::kRecordSize), 8, at / 512);
      for (int guard = 0; walk.Next(); ++guard) ASSERT_LT(guard, 512);
      ++walked;
    }
    EXPECT_GT(walked, 0u);
  }
}

}  // namespace
}  // namespace koru
