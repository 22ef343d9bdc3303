#include "base/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Each invalid sequence gives one U+FFFD per maximal subpart (the longest start of a
// well-formed sequence), so overlong forms and surrogates never become characters.
TEST(Utf8, DecodesStrictlyWithOneReplacementPerMaximalSubpart) {
  const struct {
    const char* what;
    std::string bytes;
    std::wstring wide;
  } cases[] = {
      // A character of each length is at an edge; ASCII is in every path the tests give.
      {"edges of the ranges", "\xC2\x80\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF", L"\u0080\uD7FF\uE000\U0010FFFF"},
      {"overlong slash", "a\xC0\xAF" "b", L"a\uFFFD\uFFFDb"},
      {"overlong three-byte slash", "\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},
      {"overlong four-byte", "\xF0\x8F\xBF\xBF", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"encoded surrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
      {"above U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"bytes that never start a character", "\x80\xBF\xC1\xF5\xFF", L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"cut three-byte sequence is one subpart", "\xE2\x82" "A", L"\uFFFDA"},
      {"cut four-byte sequence is one subpart", "\xF0\x9F\x98" "A", L"\uFFFDA"},
      {"cut at the end", "a\xF0\x9F", L"a\uFFFD"},
      {"lead followed by a lead", "\xC3\xC3\xA9", L"\uFFFD\u00E9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(koru::WideFromUtf8(c.bytes), c.wide);
  }
}

TEST(Utf8, EncodesCharactersAndReplacesWhatIsNoCharacter) {
  EXPECT_EQ(koru::Utf8FromWide(L"a\u00E9\u20AC\U0001F600\U0010FFFF"),
            "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF");
  // Lone surrogates (either half, at the end or before another character).
  const std::wstring lone = {wchar_t(0xD800), L'x', wchar_t(0xDC00), wchar_t(0xD83D)};
  EXPECT_EQ(koru::Utf8FromWide(lone), "\xEF\xBF\xBDx\xEF\xBF\xBD\xEF\xBF\xBD");
  if constexpr (sizeof(wchar_t) == 4) {
    EXPECT_EQ(koru::Utf8FromWide(std::wstring(1, static_cast<wchar_t>(0x110000))), "\xEF\xBF\xBD");
  }
}

}  // namespace
