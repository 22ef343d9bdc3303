// PosixEnv's private-profile calls on INI files, as the core makes them: names in
// any case, the first match, values trimmed and cut to the caller's buffer.
#include "platform/posix_ini.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "platform/posix_env.h"
#include "support/temp_dir.h"

namespace {

using koru::test::TempDir;
using platform::PosixEnv;

class PosixIni : public ::testing::Test {
 protected:
  std::wstring Get(const wchar_t* section, const wchar_t* key, const wchar_t* fallback, const std::wstring& file,
                   platform::DWORD size = 64) {
    std::vector<wchar_t> buffer(size + 1, L'#');
    const platform::DWORD n = env_.GetPrivateProfileStringW(section, key, fallback, buffer.data(), size, file.c_str());
    EXPECT_EQ(n, std::wcslen(buffer.data()));
    return buffer.data();
  }

  TempDir dir_;
  PosixEnv env_;
};

TEST_F(PosixIni, ReadingStringsAndIntegers) {
  dir_.Write("test.ini",
             "[File Locations]\r\nLogfiles = Z:\\logs\\here \r\n"
             "[Main]\nLevel=1\nlevel=2\n[Other]\nLevel=9\n[MAIN]\nLevel=3\nOnlyLater=4\n"
             "[S]\nlong=0123456789\nquoted=\"a b\"\nempty=\na=42\nb=7 levels\nc=none\nd=-1\n");
  const std::wstring file = dir_.win("test.ini"), absent = dir_.win("absent.ini");
  const std::wstring host = std::filesystem::path(dir_ / "test.ini").wstring();
  const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const std::wstring&, platform::DWORD, const wchar_t*>
      texts[] = {
      {L"file locations", L"LOGFILES", L"d", file, 64, L"Z:\\logs\\here"},  // no case, trimmed
      {L"Main", L"Level", L"d", file, 64, L"1"},                             // the first match wins
      {L"Main", L"OnlyLater", L"d", file, 64, L"d"},                         // only the first [Main] counts
      {L"Main", L"Missing", L".\\Logfiles", file, 64, L".\\Logfiles"},
      {L"Main", L"Level", L"d", absent, 64, L"d"},
      {L"S", L"long", L"", file, 5, L"0123"},                                // cut to the buffer
      {L"S", L"quoted", L"d", file, 64, L"a b"},
      {L"S", L"empty", L"d", file, 64, L""},
      {L"S", L"a", L"", host, 64, L"42"},                                    // a host path works too
  };
  for (const auto& [section, key, fallback, in, size, expected] : texts)
    EXPECT_EQ(Get(section, key, fallback, in, size), expected) << section << "/" << key;

  const std::tuple<const wchar_t*, const wchar_t*, const std::wstring&, platform::UINT> ints[] = {
      {L"Main", L"Missing", file, 5u}, {L"S", L"a", file, 42u}, {L"S", L"b", file, 7u},
      {L"S", L"c", file, 0u},          {L"S", L"d", file, 0xFFFFFFFFu},
  };
  for (const auto& [section, key, in, expected] : ints)
    EXPECT_EQ(env_.GetPrivateProfileIntW(section, key, 5, in.c_str()), expected) << section << "/" << key;
}

TEST_F(PosixIni, WritingReplacesOrAddsTheKeyKeepsTheRestAndMakesNoDirectory) {
  dir_.Write("keep.ini", "; comment\r\n[A]\r\nx=1\r\nVERSION=old\r\ny=2\r\n\r\n[B]\r\nz=3\r\n");
  const std::wstring file = dir_.win("keep.ini"), created = dir_.win("new.ini");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"a", L"Version", L"new", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"A", L"added", L"4", file.c_str()));
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"C", L"k", L"v", file.c_str()));
  EXPECT_EQ(dir_.Read("keep.ini"),
            "; comment\r\n[A]\r\nx=1\r\nVersion=new\r\ny=2\r\nadded=4\r\n\r\n[B]\r\nz=3\r\n[C]\r\nk=v\r\n");
  ASSERT_TRUE(env_.WritePrivateProfileStringW(L"KORU_MFT.DLL", L"Version", L"1.0.0.0", created.c_str()));
  EXPECT_EQ(dir_.Read("new.ini"), "[KORU_MFT.DLL]\r\nVersion=1.0.0.0\r\n");
  EXPECT_FALSE(env_.WritePrivateProfileStringW(L"A", L"k", L"v", dir_.win("no/such/dir.ini").c_str()));
}

}  // namespace
