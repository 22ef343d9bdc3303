// Paths and name order of NTFS files, over records made up in the test. ($FILE_NAME
// decoding meets broken values in the volume file tests and the fuzz target.)
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

TEST(UpCase, ComparesAndMatchesAsNtfsDoes) {
  const UpCase ascii;
  const std::tuple<const char16_t*, const char16_t*, bool> cases[] = {
      {u"*.*", u"noext", true}, {u"*.DLL", u"a.dll", true},      {u"a?c", u"ac", false},
      {u"*b*", u"aXbY", true},  {u"*.txt", u"a.txt.bak", false}, {u"a*a*a", u"aaaa", true},
  };
  for (const auto& [pattern, name, matches] : cases)
    EXPECT_EQ(ascii.Matches(pattern, name), matches) << static_cast<int>(pattern[0]);
  EXPECT_EQ(ascii.Key(u"é"), u"é");
  std::vector<std::byte> table(2 * 256);
  for (int c = 0; c < 256; ++c) table[2 * c] = static_cast<std::byte>(c == 0xE9 ? 0xC9 : c >= 'a' && c <= 'z' ? c - 32 : c);
  EXPECT_EQ(UpCase(table).Key(u"aé\x100"), u"AÉ\x100");  // past the table: unchanged
}

}  // namespace
}  // namespace platform::posix
