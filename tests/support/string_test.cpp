#include <gtest/gtest.h>

#include <clocale>
#include <cstring>

#include "koru_mft/varnel_string.h"
#include "base/format.h"

namespace {

TEST(VarnelString, UnconvertibleTextBecomesQuestionMarks) {
#if defined(_WIN32)
  GTEST_SKIP() << "the Windows CRT's \"C\" locale maps every byte to the code point of the same value, "
                  "so no text is unconvertible there";
#endif
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  std::setlocale(LC_ALL, "C");
  EXPECT_STREQ(varnel::string("\xE4\xF6\xFC").c_str(), L"???");  // one per byte
  EXPECT_STREQ(varnel::string(L"ab\u00E9cd").narrow(), "ab?cd");  // one per character
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
