#include <gtest/gtest.h>

#include <sstream>

#include "base/ntfs_layout.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Body;
using test::DumpLast;
using test::Fields;
using test::Value;

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

}  // namespace
}  // namespace koru
