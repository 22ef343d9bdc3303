#include <gtest/gtest.h>

#include <clocale>
#include <cstring>

#include "koru_mft/varnel_string.h"
#include "base/format.h"

namespace {

TEST(VarnelString, SevenCharactersStayInlineEightGoToAHeapBufferThatGrowsExactlyAndNeverShrinks) {
  varnel::string s(L"1234567");
  EXPECT_TRUE(s.is_inline());
  EXPECT_EQ(s.capacity(), 0u);
  s = L"12345678";
  EXPECT_FALSE(s.is_inline());
  EXPECT_EQ(s.capacity(), 8u);
  s = L"abc";
  EXPECT_FALSE(s.is_inline());
  EXPECT_EQ(s.capacity(), 8u);
  s += L"012345678901234567890";
  EXPECT_EQ(s.capacity(), 24u);
  EXPECT_STREQ(s.c_str(), L"abc012345678901234567890");
}

TEST(VarnelString, CopiesAreIndependentAndSelfAppendWorks) {
  varnel::string a(L"path\\to\\file.log");
  varnel::string b = a;
  b.set_at(0, L'P');
  EXPECT_STREQ(a.c_str(), L"path\\to\\file.log");
  a += a;
  EXPECT_STREQ(a.c_str(), L"path\\to\\file.logpath\\to\\file.log");
  varnel::string moved(std::move(b));
  EXPECT_STREQ(moved.c_str(), L"Path\\to\\file.log");
}

TEST(VarnelString, RfindEraseCompareAndNullInputs) {
  varnel::string s(L"Z:\\usr\\bin\\vmft");
  const auto cut = s.rfind(L'\\');
  ASSERT_EQ(cut, 10u);
  s.erase(cut);
  EXPECT_STREQ(s.c_str(), L"Z:\\usr\\bin");
  EXPECT_EQ(varnel::string(L"none").rfind(L'\\'), varnel::string::npos);
  s.erase(100);  // past the end: nothing happens
  EXPECT_STREQ(s.c_str(), L"Z:\\usr\\bin");
  EXPECT_EQ(varnel::string(L"File Locations").compare_nocase(varnel::string(L"FILE locations")), 0);
  EXPECT_LT(varnel::string(L"abc").compare_nocase(varnel::string(L"ABD")), 0);
  EXPECT_TRUE(varnel::string(static_cast<const wchar_t*>(nullptr)).empty());
  EXPECT_TRUE(varnel::string(static_cast<const char*>(nullptr)).empty());
  EXPECT_TRUE(varnel::string("").empty());
}

TEST(VarnelString, UnconvertibleTextBecomesQuestionMarks) {
#if defined(_WIN32)
  GTEST_SKIP() << "the Windows CRT's \"C\" locale maps every byte to the code point of the same value, "
                  "so no text is unconvertible there";
#endif
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "C");
  EXPECT_STREQ(varnel::string("\xE4\xF6\xFC").c_str(), L"???");  // one per byte
  EXPECT_STREQ(varnel::string(L"ab\u00E9cd").narrow(), "ab?cd");  // one per character
  EXPECT_STREQ(varnel::string(L"plain text").narrow(), "plain text");
  EXPECT_STREQ(varnel::string("round trip").c_str(), L"round trip");
  std::setlocale(LC_ALL, saved.c_str());
}

TEST(FormatFixed, CutsAtTheBufferAndReportsMinusOne) {
  wchar_t buffer[8];
  EXPECT_EQ(varnel::FormatFixed(buffer, 8, L"%ls", L"0123456789"), -1);
  EXPECT_STREQ(buffer, L"0123456");
  EXPECT_EQ(varnel::FormatFixed(buffer, 8, L"%u", 42u), 2);
  EXPECT_STREQ(buffer, L"42");
}

}  // namespace
