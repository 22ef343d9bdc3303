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
using test::Put16;
using test::Put64;
using test::Value;

TEST(AttributeDump, CommonBlockOfAResidentNamedAttribute) {
  test::RecordFixture r;
  r.Resident(layout::kData, Value(3).bytes, u"my stream", 0x0A);
  test::Put32(r.bytes(), r.last() + layout::kAttrLength, 65608);  // shown as its two halves
  Put16(r.bytes(), r.last() + layout::kAttrFlags, 0x8001);
  EXPECT_EQ(DumpLast(r), L"\n$DATA\n-----\n" +
                             Fields({{L"Length", L"72"}, {L"Unknown", L"0x0001"}, {L"Non-Resident?", L"false"},
                                     {L"Name Length", L"9"}, {L"Offset To Name", L"24"},
                                     {L"Attribute Flags", L"Compressed Sparse"}, {L"Attribute ID", L"0x000a"},
                                     {L"Attribute Length", L"3"}, {L"Offset To Attribute", L"48"},
                                     {L"Indexed Flag", L"false"}, {L"Name", L"[my?stream]"}}));
}

TEST(AttributeDump, CommonBlockOfANonResidentAttributeListsItsRunsInVolumeSectors) {
  test::RecordFixture r;
  // 0x40 clusters at 0x0C1000, then 4 clusters 16 clusters back.
  r.NonResident(layout::kData, {0x31, 0x40, 0x00, 0x10, 0x0C, 0x11, 0x04, 0xF0}, u"$Bad");
  std::vector<std::byte>& b = r.bytes();
  Put16(b, r.last() + layout::kAttrFlags, layout::kAttrFlagEncrypted);
  Put64(b, r.last() + layout::kAttrLastVcn, 0x43);
  Put16(b, r.last() + layout::kAttrCompressionUnit, 4);
  Put64(b, r.last() + layout::kAttrAllocatedSize, 0xFFFF000000044000);  // sizes keep their low 48 bits
  Put64(b, r.last() + layout::kAttrRealSize, 0x43001);
  Put64(b, r.last() + layout::kAttrInitializedSize, 0x1000);
  EXPECT_EQ(DumpLast(r),
            L"\n$DATA\n-----\n" +
                Fields({{L"Length", L"88"}, {L"Unknown", L"0x0000"}, {L"Non-Resident?", L"true"}, {L"Name Length", L"4"},
                        {L"Offset To Name", L"64"}, {L"Attribute Flags", L"Encrypted"}, {L"Attribute ID", L"0x0000"},
                        {L"Starting VCN", L"0"}, {L"Last VCN", L"67"}, {L"Offset to the Data Runs", L"72"},
                        {L"Compression Unit Size", L"4"}, {L"Allocated Size Of The Attribute", L"278528 bytes"},
                        {L"Real Size Of The Attribute", L"274433 bytes"},
                        {L"Initialized Data Size Of The Stream", L"4096 bytes"}, {L"Name", L"[$Bad]"}}) +
                L"\nData Runs ...\nSector# 6324224 to 6324736\nSector# 6324096 to 6324128\n\n");
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
  Value si(72);
  // Times: a usual one, the last second before the garbled form, one the conversion
  // refuses (top bit), and the first second of the year 10000.
  si.u64(0, 0x01D6292AD668BF40).u64(8, 0x24C85A5ED127AA00).u64(16, 0x8000000000000000).u64(24, 0x24C85A5ED1C04080);
  si.u32(32, 0xFA7).u32(36, 1).u32(40, 2).u32(44, 3).u32(48, 4).u32(52, 264).u64(56, 0x1234).u64(64, 0xABCDEF);
  Value fn(66 + 2 * 9);
  fn.u64(0, 0x0003'0000'1234'5678).u64(40, 0xFFFF'0000'0001'0000).u64(48, 4097).u32(56, 0x10000FA7);
  fn.u32(60, 0x80000017).u8(64, 9).u8(65, 3).text(66, u"a b.txt~1");
  Value object_ids(64);
  for (std::size_t at = 0; at < 64; at += 16)
    object_ids.u32(at, 0xF5BB32F5).u16(at + 4, 0x1118).u16(at + 6, 0x11EE).u64(at + 8, 0x84900529'0C007C97);
  const std::wstring guid = L"{f5bb32f5-1118-11ee-977c-000c29059084}";
  Value volume(12);
  volume.u8(8, 3).u8(9, 1).u16(10, 0x80);
  Value security(20);
  security.u8(0, 1).u16(2, 0x8004).u32(4, 0x14).u32(8, 0x30);
  Value ea_information(8);
  ea_information.u16(0, 0x20).u16(2, 1).u32(4, 0x30);
  // The second entry's record length is 0: the list ends after it.
  Value list(32 + 40);
  list.u32(0, layout::kStandardInformation).u16(4, 32).u8(7, 26).u64(16, 0x0002'0000'0000'0026);
  list.u32(32, 0xF0).u8(38, 4).u8(39, 26).u64(40, 5).u64(48, 0x0066'0000'0000'0027).u16(56, 7);
  list.text(32 + 26, u"$I30");
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
               {L"DOS File Permissions", flags}, {L"Maximum Number Of Versions", L"1"}, {L"Version Number", L"2"},
               {L"Class ID", L"3"}, {L"Owner ID", L"4"}, {L"Security ID", L"264"},
               {L"Quota Charged", L"0x0000000000001234"}, {L"Update Sequence Number", L"0x0000000000abcdef"}})},
      {"$FILE_NAME", layout::kFileName, fn.bytes,
       Fields({{L"Reference To The Parent Directory", L"305419896/3"}, {L"File Creation Time", L"<invalid>"},
               {L"File Altered Time", L"<invalid>"}, {L"MFT Changed Time", L"<invalid>"},
               {L"File Read Time", L"<invalid>"}, {L"Allocated Size Of The File", L"65536 (0x10000)"},
               {L"Real Size Of The File", L"4097"}, {L"Flags", flags + L" Compressed Directory"},
               {L"Used By EAs and Reparse", L"0x80000017"}, {L"File Name Length (wchar_t)", L"9"},
               {L"File Name Namespace", L"Win32 & DOS"}, {L"File Name", L"[a?b.txt?1]"}})},
      {"$OBJECT_ID", layout::kObjectId, object_ids.bytes,
       Fields({{L"GUID Object Id", guid}, {L"GUID Birth Volume Id", guid}, {L"GUID Birth Object Id", guid},
               {L"GUID Domain Id", guid}})},
      // Its usual 12 bytes hold no second "Unknown".
      {"$VOLUME_INFORMATION", layout::kVolumeInformation, volume.bytes,
       Fields({{L"Unknown", L"0x0000000000000000"}, {L"Major Version Number", L"3"}, {L"Minor Version Number", L"1"},
               {L"Flags", L"0x0080"}})},
      {"$SECURITY_DESCRIPTOR", layout::kSecurityDescriptor, security.bytes,
       Fields({{L"Revision", L"1"}, {L"Control Flags", L"0x8004"}, {L"Offset to User SID", L"20"},
               {L"Offset to Group SID", L"48"}}) +
           L"Data\n01 00 04 80 14 00 00 00 30 00 00 00 00 00 00 00 \t........0.......\n"
           L"00 00 00 00                                     \t....\n"},
      {"$EA_INFORMATION", layout::kEaInformation, ea_information.bytes,
       Fields({{L"Size Of Packed EAs", L"32"}, {L"Number of EAs with NEED_EA set", L"1"},
               {L"Size Of Unpacked EAs", L"48"}})},
      {"$VOLUME_NAME", layout::kVolumeName, Value(14).text(0, u"My Disk").bytes,
       Fields({{L"Volume Name", L"[My?Disk]"}})},
      {"$ATTRIBUTE_LIST", layout::kAttributeList, list.bytes,
       rule +
           Fields({{L"Type", L"$STANDARD_INFORMATION"}, {L"Record Length", L"32"}, {L"Name Length", L"0"},
                   {L"Offset To Name", L"26"}, {L"StartingVCN", L"0"}, {L"Base File Reference Of Attribute", L"38/2"},
                   {L"Attribute Id", L"0"}}) +
           rule +
           Fields({{L"Type", L"000000f0"}, {L"Record Length", L"0"}, {L"Name Length", L"4"}, {L"Offset To Name", L"26"},
                   {L"StartingVCN", L"5"}, {L"Base File Reference Of Attribute", L"39/102"},
                   {L"Attribute Id", L"7"}, {L"Name", L"[$I30]"}})},
      {"$DATA", layout::kData, Value(8).bytes, L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Body(c.type, c.value), c.body);
  }

  // A value of the old 48-byte form ends before the fields it does not have.
  test::TraceCapture trace;
  const std::wstring short_body = Body(layout::kStandardInformation, Value(48).u32(32, 0x80).bytes);
  EXPECT_EQ(short_body.substr(short_body.find(L"DOS")),
            Fields({{L"DOS File Permissions", L"Normal"}, {L"Maximum Number Of Versions", L"0"},
                    {L"Version Number", L"0"}, {L"Class ID", L"0"}}));
  EXPECT_TRUE(trace.Has(L"[I]: STANDARD_INFORMATION_Attribute::Dump : ... ending(value of 48 bytes ends before Owner ID)"));
  Body(layout::kAttributeList, list.bytes);
  EXPECT_TRUE(trace.Has(L"[W]: ATTRIBUTE_LIST_Attribute::Dump : ... ending(attribute list entry of length 0)"));
  EXPECT_NE(Body(layout::kFileName, fn.u8(65, 7).bytes).find(Fields({{L"File Name Namespace", L"0x07"}})),
            std::wstring::npos);
}

// Each type code gets its own class, seen by the title its dump carries.
TEST(AttributeDump, EachKnownTypeDumpsUnderItsOwnTitle) {
  for (std::uint32_t code = 0x10; code <= 0x100; code += 0x10) {
    if (!IsKnownAttributeType(code)) continue;
    SCOPED_TRACE(code);
    test::RecordFixture r;
    r.NonResident(code, {});
    test::TraceCapture trace;
    const std::wstring dump = DumpLast(r), name = AttributeTypeName(code);
    EXPECT_EQ(dump.substr(0, 2 * name.size() + 3), L"\n" + name + L"\n" + std::wstring(name.size(), L'-') + L"\n");
    // A non-resident attribute shows its common block; a body needs a resident value.
    EXPECT_EQ(trace.Has(L"[V]: FILE_NAME_Attribute::Dump : ... ending(Non-Resident $FILE_NAME attribute)"),
              code == layout::kFileName);
  }
}

}  // namespace
}  // namespace koru
