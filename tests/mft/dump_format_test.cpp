#include "mft/dump_format.h"

#include <gtest/gtest.h>

namespace koru {
namespace {

// GUIDs and flag words are seen in the attribute dumps.
TEST(DumpFormat, FileTimes) {
  const struct {
    std::uint64_t file_time;
    const wchar_t* text;
  } cases[] = {
      {0, L"<invalid>"},
      {0x989680, L"01/01/1601 00:00:01"},
      {0x01D6292AD668BF40, L"13/05/2020 13:31:41"},  // UTC, whatever the local zone
      {0x24C85A5ED127AA00, L"31/12/9999 23:59:59"},
      {0x24C85A5ED1C04080, L"Garbled date [01/01/10000 00:00:00]"},
      {0x7FFFFFFFFFFFFFFF, L"Garbled date [14/09/30828 02:48:05]"},
      {0x8000000000000000, L"<invalid>"},  // refused by the conversion
  };
  for (const auto& c : cases) EXPECT_EQ(dump::FileTimeText(c.file_time), c.text) << c.file_time;
}

}  // namespace
}  // namespace koru
