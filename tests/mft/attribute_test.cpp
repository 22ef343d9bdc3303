#include "mft/attribute.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "base/ntfs_layout.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

// The factory's answer for a bare header of `type` (only ever none here).
bool NoneFor(std::uint32_t type) {
  std::vector<std::byte> h(layout::kNonResidentHeaderSize);
  test::Put32(h, layout::kAttrType, type);
  test::Put32(h, layout::kAttrLength, static_cast<std::uint32_t>(h.size()));
  return Attribute::Factory(Bytes(h), 8) == nullptr;
}

// Which class each code gets is seen by the title each prints, on real records
// (record_tools.py).
TEST(AttributeFactory, TheEndMarkerUnknownTypesAndShortHeadersGiveNone) {
  test::TraceCapture trace;
  EXPECT_TRUE(NoneFor(layout::kEndOfAttributes));
  EXPECT_TRUE(trace.Has(L"[V]: Attribute::Factory : End of attributes marker"));
  EXPECT_FALSE(trace.Contains(L"Unknown"));
  // 0xF0 sits between known codes but has no class.
  for (std::uint32_t code : {0xF0u, 0x0u, 0x81u, 0xFFFFFFFEu}) {
    SCOPED_TRACE(code);
    EXPECT_TRUE(NoneFor(code));
    EXPECT_TRUE(trace.Has(L"[E]: Attribute::Factory : Unknown Atribute Type : pAttrHdr->AttributeType = " +
                          std::to_wstring(code)));
    EXPECT_FALSE(IsKnownAttributeType(code));
  }
  EXPECT_EQ(Attribute::Factory(Bytes{}, 8), nullptr);
  EXPECT_TRUE(trace.Has(L"[V]: Attribute::Factory : ... ending(null attribute header pointer)"));
  const std::byte three[3] = {std::byte{0x80}, {}, {}};  // fewer bytes than a type code
  EXPECT_EQ(Attribute::Factory(Bytes(three), 8), nullptr);
}

// Known names are seen as titles on real records (record_tools.py), a short unknown
// code in AttributeDump.TypedBodies.
TEST(AttributeTypeName, UnknownCodesInHexThenDecimalAgain) {
  std::wostringstream os;
  WriteAttributeTypeName(os, 0xFFFFFFFF);
  os << L" " << 16;
  EXPECT_EQ(os.str(), L"ffffffff 16");

  // The case of the digits and the fill are the stream's own.
  std::wostringstream upper;
  WriteAttributeTypeName(upper << std::uppercase << std::setfill(L'*'), 0xAB);
  upper << std::setw(3) << 7;
  EXPECT_EQ(upper.str(), L"000000AB**7");
}

// SanitizeAttributeName also turns a name one character away from a system name
// into that name.
TEST(AttributeSanitizers, BothReplaceUnacceptableCharactersAndOnlyOneRestoresSystemNames) {
  struct Case { std::wstring in, name, attribute_name; } cases[] = {
      {L"$I30", L"?I30", L"$I30"},
      {L"", L"", L""},
      {L"a/b\\c:\u00e9", L"a?b?c??", L"a?b?c??"},
      {L"$SDS", L"?SDS", L"$SDS"},  // not taken for $SDH, two positions away
      {L"CscBitmapStreaX", L"CscBitmapStreaX", L"CscBitmapStream"},  // no bad character, still one away
      {L"$Txx", L"?Txx", L"?Txx"},  // two away from everything
      {L"#Bad", L"?Bad", L"$Bad"},
      {std::wstring(L"a\0b", 3), L"a?b", L"a?b"},  // an embedded NUL is a character like any other
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.in));
    varnel::string name(c.in.c_str(), c.in.size()), attribute_name(c.in.c_str(), c.in.size());
    Attribute::SanitizeName(name);
    Attribute::SanitizeAttributeName(attribute_name);
    EXPECT_EQ(std::wstring(name.c_str(), name.length()), c.name);
    EXPECT_EQ(std::wstring(attribute_name.c_str(), attribute_name.length()), c.attribute_name);
  }
}

}  // namespace
}  // namespace koru
