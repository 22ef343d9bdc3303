#include <gtest/gtest.h>

#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "mft/record_fixture.h"

namespace koru {
namespace {

using test::Body;
using test::Fields;
using test::Value;

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
