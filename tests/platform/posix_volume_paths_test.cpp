// Names, paths and name order of NTFS files, over records made up in the test.
#include "platform/posix_volume_paths.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>

namespace platform::posix {
namespace {

class Records : public RecordSource {
 public:
  Records() { Dir(5, 5, 5, 5, u"."); }
  FileRecord& Dir(std::uint64_t record, std::uint16_t seq, std::uint64_t parent, std::uint16_t parent_seq,
                  std::u16string name) {
    FileRecord& r = records_[record];
    r = FileRecord{record, seq, true, true, 0, kFileAttributeDirectory, 0, {{parent, parent_seq, 1, std::move(name)}}};
    return r;
  }
  bool Load(std::uint64_t record, FileRecord* out, DWORD* error) override {
    const auto it = records_.find(record);
    if (it == records_.end()) return (*error = kErrorInvalidParameter), false;
    *out = it->second;
    return true;
  }
  std::map<std::uint64_t, FileRecord> records_;
};

// The path of a name in folder (record, seq), or the error that ended it.
std::tuple<std::u16string, DWORD> PathOf(PathBuilder& paths, std::uint64_t record, std::uint16_t seq,
                                         std::u16string name = u"f") {
  std::u16string path;
  DWORD error = 0;
  paths.NamePath({record, seq, 1, std::move(name)}, &path, &error);
  return {path, error};
}

TEST(PathBuilder, WalksParentsToTheRootAndStopsOnBrokenOnes) {
  Records r;
  PathBuilder paths(r);
  r.Dir(64, 1, 5, 5, u"a");
  r.Dir(65, 2, 64, 1, u"b");
  r.Dir(66, 1, 67, 1, u"loop1");  // 66 and 67 name each other
  r.Dir(67, 1, 66, 1, u"loop2");
  r.Dir(68, 1, 68, 1, u"self");
  r.Dir(69, 1, 64, 9, u"stale-parent");
  r.Dir(70, 1, 999, 1, u"missing-parent");
  r.Dir(71, 1, 5, 5, u"free").in_use = false;
  r.Dir(72, 1, 5, 5, u"plain-file").directory = false;
  r.Dir(73, 1, 5, 5, u"extension").base_record = 64;
  const std::tuple<std::uint64_t, std::uint16_t, std::u16string, DWORD> cases[] = {
      {5, 5, u"\\f", 0},         {65, 2, u"\\a\\b\\f", 0}, {65, 1, u"", kErrorFileCorrupt},
      {66, 1, u"", kErrorFileCorrupt}, {68, 1, u"", kErrorFileCorrupt}, {69, 1, u"", kErrorFileCorrupt},
      {70, 1, u"", kErrorFileCorrupt}, {71, 1, u"", kErrorFileCorrupt}, {72, 1, u"", kErrorFileCorrupt},
      {73, 1, u"", kErrorFileCorrupt},
  };
  for (const auto& [record, seq, path, error] : cases)
    EXPECT_EQ(PathOf(paths, record, seq), std::make_tuple(path, error)) << record;
  // A record used again under a new sequence number is not the folder that was cached.
  r.Dir(64, 3, 5, 5, u"again");
  r.Dir(65, 4, 64, 3, u"b");
  EXPECT_EQ(PathOf(paths, 65, 4), std::make_tuple(std::u16string(u"\\again\\b\\f"), DWORD{0}));
}

TEST(PathBuilder, NoPathIsLongerThanWin32Allows) {
  Records r;
  PathBuilder paths(r);
  const std::u16string name(255, u'n');
  for (std::uint64_t i = 0; i < 127; ++i) r.Dir(100 + i, 1, i == 0 ? 5 : 99 + i, i == 0 ? 5 : 1, name);
  // 127 folders of 256 units each and a name of 254: exactly 32767.
  EXPECT_EQ(std::get<0>(PathOf(paths, 226, 1, std::u16string(254, u'f'))).size(), kMaxPathUnits);
  EXPECT_EQ(std::get<1>(PathOf(paths, 226, 1, std::u16string(255, u'f'))), kErrorFilenameExcedRange);
  r.Dir(227, 1, 226, 1, name);
  EXPECT_EQ(std::get<1>(PathOf(paths, 227, 1)), kErrorFilenameExcedRange);
}

TEST(PathBuilder, LinksLeaveOutDosAliases) {
  Records r;
  PathBuilder paths(r);
  r.Dir(64, 1, 5, 5, u"dir");
  FileRecord file{80, 1, true, false, 0, 0x20, 3, {{64, 1, 1, u"Long Name.txt"}, {64, 1, 2, u"LONGNA~1.TXT"},
                                                   {5, 5, 0, u"posix"}}};
  std::vector<std::u16string> links;
  DWORD error = 0;
  ASSERT_TRUE(paths.LinkPaths(file, &links, &error));
  EXPECT_EQ(links, (std::vector<std::u16string>{u"\\dir\\Long Name.txt", u"\\posix"}));
  EXPECT_EQ(file.LinkCount(), 2u);
  ASSERT_TRUE(paths.LinkPaths(r.records_[5], &links, &error));
  EXPECT_EQ(links, std::vector<std::u16string>{u"\\"});
}

TEST(FileNames, DecodeOnlyWhatTheValueHolds) {
  std::vector<std::byte> value(0x42 + 4);
  const std::uint64_t parent = 0x0003000000000040ull;
  for (int i = 0; i < 8; ++i) value[i] = static_cast<std::byte>(parent >> (8 * i));
  value[0x40] = std::byte{2};
  value[0x41] = std::byte{2};
  value[0x42] = std::byte{'A'};
  value[0x44] = std::byte{0x3D};
  value[0x45] = std::byte{0xD8};  // a lone high surrogate is kept as it is
  const auto name = DecodeFileName(value);
  ASSERT_TRUE(name);
  EXPECT_EQ(std::make_tuple(name->parent, name->parent_seq, name->DosOnly(), name->name),
            std::make_tuple(std::uint64_t{0x40}, std::uint16_t{3}, true, std::u16string(u"A\xD83D")));
  value[0x40] = std::byte{3};  // one unit past the value
  EXPECT_FALSE(DecodeFileName(value));
  EXPECT_FALSE(DecodeFileName(koru::Bytes(value).first(0x41)));
}

TEST(FileNames, Win32AttributesComeFromTheRecord) {
  const std::tuple<std::uint32_t, bool, bool, DWORD> cases[] = {
      {0, false, false, kFileAttributeNormal},
      {0x80 | 0x20, false, false, 0x20},             // "normal" stands alone
      {0x10000000 | 0x06, true, false, 0x16},        // NTFS's index flag, the directory bit from the record
      {0x10, false, false, kFileAttributeNormal},    // ... and not from the flags
      {0x4000, false, true, 0x4400},
  };
  for (const auto& [flags, directory, reparse, expected] : cases)
    EXPECT_EQ(Win32Attributes(flags, directory, reparse), expected) << std::hex << flags;
}

TEST(UpCase, ComparesAndMatchesAsNtfsDoes) {
  const UpCase ascii;
  const std::tuple<const char16_t*, const char16_t*, bool> cases[] = {
      {u"*", u"x", true},          {u"*.*", u"noext", true},   {u"*.DLL", u"a.dll", true},
      {u"a?c", u"abc", true},      {u"a?c", u"ac", false},     {u"*b*", u"aXbY", true},
      {u"*.txt", u"a.txt.bak", false}, {u"abc", u"ab", false}, {u"a*a*a", u"aaaa", true},
  };
  for (const auto& [pattern, name, matches] : cases)
    EXPECT_EQ(ascii.Matches(pattern, name), matches) << static_cast<int>(pattern[0]);
  EXPECT_EQ(ascii.Key(u"é"), u"é");
  std::vector<std::byte> table(2 * 256);
  for (int c = 0; c < 256; ++c) table[2 * c] = static_cast<std::byte>(c == 0xE9 ? 0xC9 : c >= 'a' && c <= 'z' ? c - 32 : c);
  EXPECT_EQ(UpCase(table).Key(u"aé\x100"), u"AÉ\x100");  // past the table: unchanged
}

TEST(UpCase, Utf16AndWideRoundTrip) {
  const std::u16string text = u"a\xD83D\xDE00z\xDC00";  // U+1F600, then a lone low surrogate
  EXPECT_EQ(WideFromUtf16(text), (std::wstring{L'a', static_cast<wchar_t>(0x1F600), L'z', static_cast<wchar_t>(0xDC00)}));
  EXPECT_EQ(Utf16FromWide(WideFromUtf16(text)), text);
}

}  // namespace
}  // namespace platform::posix
