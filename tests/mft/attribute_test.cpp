#include "mft/attribute.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Body;
using test::DumpLast;
using test::Fields;
using test::Value;

// The factory's answer for a bare header of `type` (only ever none here).
bool NoneFor(std::uint32_t type) {
  return Attribute::Factory(Bytes(test::RecordFixture().NonResident(type, {}).bytes()).subspan(0x38), 8) == nullptr;
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

// record_tools.py checks every line of the common block on the real volumes' records;
// these are the values none of them holds.
TEST(AttributeDump, CommonBlockShowsTheLengthsHalvesAndTheSizesLow48Bits) {
  test::RecordFixture r;
  r.Resident(layout::kData, Value(3).bytes);
  test::Put32(r.bytes(), r.last() + layout::kAttrLength, 65608);  // the walks use the low half only
  EXPECT_NE(DumpLast(r).find(Fields({{L"Length", L"72"}, {L"Unknown", L"0x0001"}})), std::wstring::npos);
  r.NonResident(layout::kData, {});
  test::Put64(r.bytes(), r.last() + layout::kAttrAllocatedSize, 0xFFFF000000044000);
  EXPECT_NE(DumpLast(r).find(Fields({{L"Allocated Size Of The Attribute", L"278528 bytes"}})), std::wstring::npos);
}

TEST(AttributeDump, ResidentDataIsListedSixteenBytesALineWithItsTextColumn) {
  const std::string text("Hello, world!\0\x7F\xE9Z", 17);
  Value v(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) v.u8(i, static_cast<std::uint8_t>(text[i]));
  EXPECT_EQ(Body(layout::kLoggedUtilityStream, v.bytes),
            L"Data\n48 65 6c 6c 6f 2c 20 77 6f 72 6c 64 21 00 7f e9 \tHello, world!...\n"
            L"5a                                              \tZ\n");
  EXPECT_EQ(Body(layout::kLoggedUtilityStream, {}), L"Data\n");
  test::RecordFixture r;
  r.NonResident(layout::kData, {});
  test::TraceCapture trace;
  std::wostringstream os;
  Attribute::PrintResidentData(os, Bytes(r.bytes()).subspan(r.last()));
  EXPECT_EQ(os.str(), L"");
  EXPECT_TRUE(trace.Has(L"[E]: Attribute::PrintResidentData : Called in error - non-resident attribute!!"));
}

TEST(AttributeDump, TypedBodies) {
  // Times: a usual one, the last second before the garbled form, one the conversion
  // refuses (top bit), and the first second of the year 10000. The fields after the
  // flags are checked on real records (record_tools.py); the value ends before them.
  Value si(36);
  si.u64(0, 0x01D6292AD668BF40).u64(8, 0x24C85A5ED127AA00).u64(16, 0x8000000000000000).u64(24, 0x24C85A5ED1C04080);
  si.u32(32, 0xFA7);
  Value object_ids(64);
  for (std::size_t at = 0; at < 64; at += 16)
    object_ids.u32(at, 0xF5BB32F5).u16(at + 4, 0x1118).u16(at + 6, 0x11EE).u64(at + 8, 0x84900529'0C007C97);
  const std::wstring guid = L"{f5bb32f5-1118-11ee-977c-000c29059084}";
  // An entry of record length 0 ends the list; its type has no name.
  Value list(40);
  list.u32(0, 0xF0).u8(6, 4).u8(7, 26).u64(8, 5).u64(16, 0x0066'0000'0000'0027).u16(24, 7).text(26, u"$I30");
  const std::wstring flags = L"Read-Only Hidden System Archive Normal Temporary Sparse-File Reparse-Point";
  const std::wstring rule = L"--------------------------------------------------------\n";

  const struct {
    const char* what;
    std::uint32_t type;
    std::vector<std::byte> value;
    std::wstring body;
  } cases[] = {
      {"$STANDARD_INFORMATION", layout::kStandardInformation, si.bytes,
       Fields({{L"File Creation Time", L"13/05/2020 13:31:41"}, {L"File Altered Time", L"31/12/9999 23:59:59"},
               {L"MFT Changed Time", L"<invalid>"}, {L"File Read Time", L"Garbled date [01/01/10000 00:00:00]"},
               {L"DOS File Permissions", flags}})},
      // Times of 0, sizes with their top 16 bits set and an unknown name space; the
      // usual values are checked on real records by record_tools.py.
      {"$FILE_NAME", layout::kFileName, Value(66).u64(40, 0xFFFF'0000'0001'0000).u32(56, 0x10000FA7).u8(65, 7).bytes,
       Fields({{L"Reference To The Parent Directory", L"0/0"}, {L"File Creation Time", L"<invalid>"},
               {L"File Altered Time", L"<invalid>"}, {L"MFT Changed Time", L"<invalid>"},
               {L"File Read Time", L"<invalid>"}, {L"Allocated Size Of The File", L"65536 (0x10000)"},
               {L"Real Size Of The File", L"0"}, {L"Flags", flags + L" Compressed Directory"},
               {L"Used By EAs and Reparse", L"0x00000000"}, {L"File Name Length (wchar_t)", L"0"},
               {L"File Name Namespace", L"0x07"}, {L"File Name", L"[]"}})},
      {"$OBJECT_ID", layout::kObjectId, object_ids.bytes,
       Fields({{L"GUID Object Id", guid}, {L"GUID Birth Volume Id", guid}, {L"GUID Birth Object Id", guid},
               {L"GUID Domain Id", guid}})},
      {"$ATTRIBUTE_LIST", layout::kAttributeList, list.bytes,
       rule + Fields({{L"Type", L"000000f0"}, {L"Record Length", L"0"}, {L"Name Length", L"4"},
                      {L"Offset To Name", L"26"}, {L"StartingVCN", L"5"},
                      {L"Base File Reference Of Attribute", L"39/102"}, {L"Attribute Id", L"7"},
                      {L"Name", L"[$I30]"}})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Body(c.type, c.value), c.body);
  }

  // A value of the old 48-byte form ends before the fields it does not have.
  test::TraceCapture trace;
  Body(layout::kStandardInformation, Value(48).bytes);
  EXPECT_TRUE(trace.Has(L"[I]: STANDARD_INFORMATION_Attribute::Dump : ... ending(value of 48 bytes ends before Owner ID)"));
  Body(layout::kAttributeList, list.bytes);
  EXPECT_TRUE(trace.Has(L"[W]: ATTRIBUTE_LIST_Attribute::Dump : ... ending(attribute list entry of length 0)"));
}

// A non-resident attribute shows its common block; a body needs a resident value. The
// class and title of each type code are checked on real records by record_tools.py.
TEST(AttributeDump, ANonResidentFileNameShowsNoBody) {
  test::RecordFixture r;
  r.NonResident(layout::kFileName, {});
  test::TraceCapture trace;
  EXPECT_EQ(DumpLast(r).find(L"File Name"), std::wstring::npos);
  EXPECT_TRUE(trace.Has(L"[V]: FILE_NAME_Attribute::Dump : ... ending(Non-Resident $FILE_NAME attribute)"));
}

// A reparse buffer: tag, data length, and the four name fields of links.
Value Buffer(std::uint32_t tag, std::uint16_t data_length, std::size_t size = 64) {
  return std::move(Value(size).u32(0, tag).u16(4, data_length));
}
Value& Names(Value& v, std::uint16_t sub_at, std::uint16_t sub_len, std::uint16_t print_at, std::uint16_t print_len) {
  return v.u16(8, sub_at).u16(10, sub_len).u16(12, print_at).u16(14, print_len);
}

// The names of a real symbolic link (print name first) and mount point (substitute
// name first) are checked by integration.record_mft_files_test.
TEST(ReparseDump, TagsFlagsAndTheNamesOfLinks) {
  Value app = Buffer(0x8000001B, 60, 80).u32(8, 3);
  app.text(12, std::u16string(u"Pkg\0App!Main\0C:\\x.exe\0", 22) + u"0");

  const auto head = [](const wchar_t* type, const wchar_t* flags, const wchar_t* length) {
    return Fields({{L"Reparse Type", type}, {L"Reparse Flags", flags}, {L"Reparse Data Length", length}});
  };
  const struct {
    const char* what;
    std::vector<std::byte> value;
    std::wstring body;
  } cases[] = {
      {"application execution link", app.bytes,
       head(L"0x1b Apple Exec Link", L"Microsoft", L"60") +
           Fields({{L"Version", L"3"}, {L"Package Id", L"[Pkg]"}, {L"Entry Point", L"[App!Main]"},
                   {L"Executable", L"[C??x.exe"}, {L"Application Type", L"Desktop"}})},
      {"unknown Microsoft tag", Buffer(0x80000025, 0).bytes, head(L"0x25 0025", L"Microsoft", L"0")},
      // Only Microsoft tags are decoded further.
      {"symbolic-link number without bit 31", Buffer(0x2000000C, 52).bytes,
       head(L"0x0c Symbolic-Link", L"Name-Surrogate", L"52")},
      {"SIS", Buffer(0x80000007, 4).bytes, head(L"0x07 Single Instancve Storage (SIS)", L"Microsoft", L"4")},
      {"too short for a tag", Value(6).bytes, L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Body(layout::kReparsePoint, c.value), c.body);
  }
  // Any application type but "0" is shown as it stands.
  const std::wstring other = Body(layout::kReparsePoint, Value(app).u16(12 + 2 * 22, '1').bytes);
  EXPECT_NE(other.find(Fields({{L"Application Type", L"1"}})), std::wstring::npos);

  // Names are copied unit by unit; a surrogate pair still comes out as one character.
  Value emoji = Buffer(0xA000000C, 16);
  Names(emoji, 0, 4, 4, 0).text(20, u"\U0001F600");
  EXPECT_NE(Utf8FromWide(Body(layout::kReparsePoint, emoji.bytes)).find("Substitute Name                     : [\xF0\x9F\x98\x80]\n"),
            std::string::npos);
}

// Offsets and lengths from a broken buffer only shorten the names.
TEST(ReparseDump, NamesOutsideTheBufferAreCutNotRead) {
  const struct {
    const char* what;
    std::uint16_t data_length, sub_at, sub_len, print_at, print_len;
    const wchar_t* print;
    const wchar_t* substitute;
  } cases[] = {
      {"names far past the value", 0xFFFF, 0xFFF0, 0xFFFF, 0xFFFE, 0xFFFF, L"", L""},
      {"substitute name running off the end", 0xFFFF, 0, 0xFFFF, 0xFFFF, 2, L"", L"abcdefghij"},
      {"data length below the header", 0, 0, 6, 100, 6, L"", L"abc"},  // the hard end wraps around
      {"print name running into the substitute name", 52, 6, 4, 0, 10, L"abc", L"de"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Value v = Buffer(0xA000000C, c.data_length, 40);
    Names(v, c.sub_at, c.sub_len, c.print_at, c.print_len).text(20, u"abcdefghij");
    const std::wstring body = Body(layout::kReparsePoint, v.bytes);
    EXPECT_NE(body.find(Fields({{L"Print Name", L"[" + std::wstring(c.print) + L"]"},
                                {L"Substitute Name", L"[" + std::wstring(c.substitute) + L"]"}})),
              std::wstring::npos)
        << testing::PrintToString(body);
  }
}

}  // namespace
}  // namespace koru
