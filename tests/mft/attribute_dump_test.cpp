#include <gtest/gtest.h>

#include <sstream>

#include "base/ntfs_layout.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Put16;
using test::Put32;
using test::Put64;

using test::Body;
using test::DumpLast;
using test::Value;

TEST(AttributeDump, CommonBlockOfAResidentNamedAttribute) {
  test::RecordFixture r;
  r.Resident(layout::kData, Value(3).bytes, u"my stream", 0x0A);
  Put32(r.bytes(), r.last() + layout::kAttrLength, 65608);  // shown as its two halves
  Put16(r.bytes(), r.last() + layout::kAttrFlags, 0x8001);
  EXPECT_EQ(DumpLast(r),
            L"\n$DATA\n-----\n"
            L"Length                              : 72\n"
            L"Unknown                             : 0x0001\n"
            L"Non-Resident?                       : false\n"
            L"Name Length                         : 9\n"
            L"Offset To Name                      : 24\n"
            L"Attribute Flags                     : Compressed Sparse\n"
            L"Attribute ID                        : 0x000a\n"
            L"Attribute Length                    : 3\n"
            L"Offset To Attribute                 : 48\n"
            L"Indexed Flag                        : false\n"
            L"Name                                : [my?stream]\n");
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
  test::TraceCapture trace;
  EXPECT_EQ(DumpLast(r),
            L"\n$DATA\n-----\n"
            L"Length                              : 88\n"
            L"Unknown                             : 0x0000\n"
            L"Non-Resident?                       : true\n"
            L"Name Length                         : 4\n"
            L"Offset To Name                      : 64\n"
            L"Attribute Flags                     : Encrypted\n"
            L"Attribute ID                        : 0x0000\n"
            L"Starting VCN                        : 0\n"
            L"Last VCN                            : 67\n"
            L"Offset to the Data Runs             : 72\n"
            L"Compression Unit Size               : 4\n"
            L"Allocated Size Of The Attribute     : 278528 bytes\n"
            L"Real Size Of The Attribute          : 274433 bytes\n"
            L"Initialized Data Size Of The Stream : 4096 bytes\n"
            L"Name                                : [$Bad]\n"
            L"\nData Runs ...\n"
            L"Sector# 6324224 to 6324736\n"
            L"Sector# 6324096 to 6324128\n"
            L"\n");
  EXPECT_TRUE(trace.Has(L"[V]: Attribute::Dump : DataRunLength = 16"));
}

TEST(AttributeDump, ResidentDataIsListedSixteenBytesALineWithItsTextColumn) {
  const struct {
    std::vector<std::uint8_t> bytes;
    const wchar_t* listing;
  } cases[] = {
      {{}, L""},
      {{'H', 'e', 'l', 'l', 'o', ',', ' ', 'w', 'o', 'r', 'l', 'd', '!', 0x00, 0x7F, 0xE9, 'Z'},
       L"48 65 6c 6c 6f 2c 20 77 6f 72 6c 64 21 00 7f e9 \tHello, world!...\n"
       L"5a                                              \tZ\n"},
  };
  for (const auto& c : cases) {
    Value v(c.bytes.size());
    for (std::size_t i = 0; i < c.bytes.size(); ++i) v.u8(i, c.bytes[i]);
    test::RecordFixture r;
    r.Resident(layout::kLoggedUtilityStream, v.bytes);
    const Bytes header = Bytes(r.bytes()).subspan(r.last());
    std::wostringstream os;
    Attribute::PrintResidentData(os, header);
    EXPECT_EQ(os.str(), c.listing);
    EXPECT_EQ(Body(layout::kLoggedUtilityStream, v.bytes), std::wstring(L"Data\n") + c.listing);
  }
  test::RecordFixture r;
  r.NonResident(layout::kData, {});
  test::TraceCapture trace;
  std::wostringstream os;
  Attribute::PrintResidentData(os, Bytes(r.bytes()).subspan(r.last()));
  EXPECT_EQ(os.str(), L"");
  EXPECT_TRUE(trace.Has(L"[E]: Attribute::PrintResidentData : Called in error - non-resident attribute!!"));
}

TEST(AttributeDump, TypedBodies) {
  const auto guid = [](Value& v, std::size_t at) {
    v.u32(at, 0xF5BB32F5).u16(at + 4, 0x1118).u16(at + 6, 0x11EE).u64(at + 8, 0x84900529'0C007C97);
  };
  Value si(72);
  // Times: a usual one, the last second before the garbled form, one the conversion
  // refuses (top bit), and the first second of the year 10000.
  si.u64(0, 0x01D6292AD668BF40).u64(8, 0x24C85A5ED127AA00).u64(16, 0x8000000000000000).u64(24, 0x24C85A5ED1C04080);
  si.u32(32, 0xFA7).u32(36, 1).u32(40, 2).u32(44, 3).u32(48, 4).u32(52, 264).u64(56, 0x1234).u64(64, 0xABCDEF);
  Value short_si(48);
  short_si.u32(32, 0x80);
  Value fn(66 + 2 * 9);
  fn.u64(0, 0x0003'0000'1234'5678).u64(40, 0xFFFF'0000'0001'0000).u64(48, 4097).u32(56, 0x10000FA7);
  fn.u32(60, 0x80000017).u8(64, 9).u8(65, 3).text(66, u"a b.txt~1");
  Value object_ids(64);
  for (std::size_t at = 0; at < 64; at += 16) guid(object_ids, at);
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

  const struct {
    const char* what;
    std::uint32_t type;
    std::vector<std::byte> value;
    std::wstring body;
  } cases[] = {
      {"$STANDARD_INFORMATION", layout::kStandardInformation, si.bytes,
       L"File Creation Time                  : 13/05/2020 13:31:41\n"
       L"File Altered Time                   : 31/12/9999 23:59:59\n"
       L"MFT Changed Time                    : <invalid>\n"
       L"File Read Time                      : Garbled date [01/01/10000 00:00:00]\n"
       L"DOS File Permissions                : Read-Only Hidden System Archive Normal Temporary Sparse-File "
       L"Reparse-Point\n"
       L"Maximum Number Of Versions          : 1\n"
       L"Version Number                      : 2\n"
       L"Class ID                            : 3\n"
       L"Owner ID                            : 4\n"
       L"Security ID                         : 264\n"
       L"Quota Charged                       : 0x0000000000001234\n"
       L"Update Sequence Number              : 0x0000000000abcdef\n"},
      {"$FILE_NAME", layout::kFileName, fn.bytes,
       L"Reference To The Parent Directory   : 305419896/3\n"
       L"File Creation Time                  : <invalid>\n"
       L"File Altered Time                   : <invalid>\n"
       L"MFT Changed Time                    : <invalid>\n"
       L"File Read Time                      : <invalid>\n"
       L"Allocated Size Of The File          : 65536 (0x10000)\n"
       L"Real Size Of The File               : 4097\n"
       L"Flags                               : Read-Only Hidden System Archive Normal Temporary Sparse-File "
       L"Reparse-Point Compressed Directory\n"
       L"Used By EAs and Reparse             : 0x80000017\n"
       L"File Name Length (wchar_t)          : 9\n"
       L"File Name Namespace                 : Win32 & DOS\n"
       L"File Name                           : [a?b.txt?1]\n"},
      {"$OBJECT_ID", layout::kObjectId, object_ids.bytes,
       L"GUID Object Id                      : {f5bb32f5-1118-11ee-977c-000c29059084}\n"
       L"GUID Birth Volume Id                : {f5bb32f5-1118-11ee-977c-000c29059084}\n"
       L"GUID Birth Object Id                : {f5bb32f5-1118-11ee-977c-000c29059084}\n"
       L"GUID Domain Id                      : {f5bb32f5-1118-11ee-977c-000c29059084}\n"},
      // Its usual 12 bytes hold no second "Unknown".
      {"$VOLUME_INFORMATION", layout::kVolumeInformation, volume.bytes,
       L"Unknown                             : 0x0000000000000000\n"
       L"Major Version Number                : 3\n"
       L"Minor Version Number                : 1\n"
       L"Flags                               : 0x0080\n"},
      {"$SECURITY_DESCRIPTOR", layout::kSecurityDescriptor, security.bytes,
       L"Revision                            : 1\n"
       L"Control Flags                       : 0x8004\n"
       L"Offset to User SID                  : 20\n"
       L"Offset to Group SID                 : 48\n"
       L"Data\n"
       L"01 00 04 80 14 00 00 00 30 00 00 00 00 00 00 00 \t........0.......\n"
       L"00 00 00 00                                     \t....\n"},
      {"$EA_INFORMATION", layout::kEaInformation, ea_information.bytes,
       L"Size Of Packed EAs                  : 32\n"
       L"Number of EAs with NEED_EA set      : 1\n"
       L"Size Of Unpacked EAs                : 48\n"},
      {"$VOLUME_NAME", layout::kVolumeName, Value(14).text(0, u"My Disk").bytes,
       L"Volume Name                         : [My?Disk]\n"},
      {"$ATTRIBUTE_LIST", layout::kAttributeList, list.bytes,
       L"--------------------------------------------------------\n"
       L"Type                                : $STANDARD_INFORMATION\n"
       L"Record Length                       : 32\n"
       L"Name Length                         : 0\n"
       L"Offset To Name                      : 26\n"
       L"StartingVCN                         : 0\n"
       L"Base File Reference Of Attribute    : 38/2\n"
       L"Attribute Id                        : 0\n"
       L"--------------------------------------------------------\n"
       L"Type                                : 000000f0\n"
       L"Record Length                       : 0\n"
       L"Name Length                         : 4\n"
       L"Offset To Name                      : 26\n"
       L"StartingVCN                         : 5\n"
       L"Base File Reference Of Attribute    : 39/102\n"
       L"Attribute Id                        : 7\n"
       L"Name                                : [$I30]\n"},
      {"$DATA", layout::kData, Value(8).bytes, L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Body(c.type, c.value), c.body);
  }

  // A value of the old 48-byte form ends before the fields it does not have.
  test::TraceCapture trace;
  const std::wstring short_body = Body(layout::kStandardInformation, short_si.bytes);
  EXPECT_EQ(short_body.substr(short_body.find(L"DOS")),
            L"DOS File Permissions                : Normal\n"
            L"Maximum Number Of Versions          : 0\n"
            L"Version Number                      : 0\n"
            L"Class ID                            : 0\n");
  EXPECT_TRUE(trace.Has(L"[I]: STANDARD_INFORMATION_Attribute::Dump : ... ending(value of 48 bytes ends before Owner ID)"));
  Body(layout::kAttributeList, list.bytes);
  EXPECT_TRUE(trace.Has(L"[W]: ATTRIBUTE_LIST_Attribute::Dump : ... ending(attribute list entry of length 0)"));
  EXPECT_NE(Body(layout::kFileName, fn.u8(65, 7).bytes).find(L"File Name Namespace                 : 0x07\n"),
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
