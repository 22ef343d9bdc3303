#include <gtest/gtest.h>

#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "mft/record_fixture.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Body;
using test::Value;

// A reparse buffer: tag, data length, and the four name fields of links.
Value Buffer(std::uint32_t tag, std::uint16_t data_length, std::size_t size = 64) {
  return std::move(Value(size).u32(0, tag).u16(4, data_length));
}
Value& Names(Value& v, std::uint16_t sub_at, std::uint16_t sub_len, std::uint16_t print_at, std::uint16_t print_len) {
  return v.u16(8, sub_at).u16(10, sub_len).u16(12, print_at).u16(14, print_len);
}

const std::wstring kSymlinkHead =
    L"Reparse Type                        : 0x0c Symbolic-Link\n"
    L"Reparse Flags                       : Microsoft Name-Surrogate\n";

TEST(ReparseDump, TagsFlagsAndTheNamesOfLinks) {
  // Substitute name first, as Windows writes it: the print name comes out empty.
  Value symlink = Buffer(0xA000000C, 52);
  Names(symlink, 0, 20, 20, 20).u32(16, 1).text(20, u"target.txttarget.txt");
  // Print name first: it is taken up to where the substitute name starts.
  Value mount = Buffer(0xA0000003, 8 + 2 * 11);
  Names(mount, 8, 14, 0, 6).text(16, std::u16string_view(u"C:\\\0\\??\\C:\\", 11));
  Value app = Buffer(0x8000001B, 60, 80).u32(8, 3);
  app.text(12, std::u16string(u"Pkg\0App!Main\0C:\\x.exe\0", 22) + u"0");
  Value app_other = app;
  app_other.u16(12 + 2 * 22, '1');

  const struct {
    const char* what;
    std::vector<std::byte> value;
    std::wstring body;
  } cases[] = {
      {"symbolic link", symlink.bytes,
       kSymlinkHead +
           L"Reparse Data Length                 : 52\n"
           L"Print Name                          : []\n"
           L"Substitute Name                     : [target.txt]\n"
           L"Flags                               : 0x1\n"},
      {"mount point", mount.bytes,
       L"Reparse Type                        : 0x03 Mount-Point\n"
       L"Reparse Flags                       : Microsoft Name-Surrogate\n"
       L"Reparse Data Length                 : 30\n"
       L"Print Name                          : [C:\\]\n"
       L"Substitute Name                     : [\\??\\C:\\]\n"},
      {"application execution link", app.bytes,
       L"Reparse Type                        : 0x1b Apple Exec Link\n"
       L"Reparse Flags                       : Microsoft\n"
       L"Reparse Data Length                 : 60\n"
       L"Version                             : 3\n"
       L"Package Id                          : [Pkg]\n"
       L"Entry Point                         : [App!Main]\n"
       L"Executable                          : [C??x.exe\n"
       L"Application Type                    : Desktop\n"},
      {"unknown Microsoft tag", Buffer(0x80000025, 0).bytes,
       L"Reparse Type                        : 0x25 0025\n"
       L"Reparse Flags                       : Microsoft\n"
       L"Reparse Data Length                 : 0\n"},
      // Only Microsoft tags are decoded further.
      {"symbolic-link number without bit 31", Buffer(0x2000000C, 52).bytes,
       L"Reparse Type                        : 0x0c Symbolic-Link\n"
       L"Reparse Flags                       : Name-Surrogate\n"
       L"Reparse Data Length                 : 52\n"},
      {"SIS", Buffer(0x80000007, 4).bytes,
       L"Reparse Type                        : 0x07 Single Instancve Storage (SIS)\n"
       L"Reparse Flags                       : Microsoft\n"
       L"Reparse Data Length                 : 4\n"},
      {"too short for a tag", Value(6).bytes, L""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Body(layout::kReparsePoint, c.value), c.body);
  }
  EXPECT_NE(Body(layout::kReparsePoint, app_other.bytes).find(L"Application Type                    : 1\n"),
            std::wstring::npos);

  // Names are copied unit by unit; a surrogate pair still comes out as one character.
  Value emoji = Buffer(0xA000000C, 16);
  Names(emoji, 0, 4, 4, 0).text(20, u"\U0001F600");
  EXPECT_NE(Utf8FromWide(Body(layout::kReparsePoint, emoji.bytes)).find("Substitute Name                     : [\xF0\x9F\x98\x80]\n"),
            std::string::npos);

  test::TraceCapture trace;
  Body(layout::kReparsePoint, symlink.bytes);
  for (const wchar_t* line : {L"[V]: REPARSE_POINT_Attribute::Dump : pReparsePoint->ReparseDataLength = 52",
                              L"[V]: REPARSE_POINT_Attribute::Dump : uiHardEnd = 40",
                              L"[V]: REPARSE_POINT_Attribute::Dump : pSymLink->Paths[i] = 't'"})
    EXPECT_TRUE(trace.Has(line)) << testing::PrintToString(std::wstring(line));
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
    EXPECT_NE(body.find(L"Print Name                          : [" + std::wstring(c.print) + L"]\n"), std::wstring::npos)
        << testing::PrintToString(body);
    EXPECT_NE(body.find(L"Substitute Name                     : [" + std::wstring(c.substitute) + L"]\n"),
              std::wstring::npos);
  }
}

}  // namespace
}  // namespace koru
