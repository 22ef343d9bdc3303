// The directory walk through the real Win32 calls: under Wine, drive H: is a folder of
// the build tree whose files carry hard links made with ln (tests/hardlinks/wine_drive_h.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "hardlinks/dir_walk.h"
#include "platform/windows_env.h"

namespace koru {
namespace {

struct LinkedFile {
  bool found = false;  // by the walk
  std::vector<std::wstring> names;  // \... below the root of H:
};

class WineDriveH : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(KORU_WINE_DRIVE_H_DIR)
    if (platform::windows::WineVersion() == nullptr) GTEST_SKIP() << "drive H: holds the linked files only under Wine";
    const std::filesystem::path dir = KORU_WINE_DRIVE_H_DIR;
    std::string why;
    std::getline(std::ifstream(dir / "why-missing.txt"), why);
    if (!why.empty()) GTEST_SKIP() << "no linked files as H:: " << why;
    std::ifstream list(dir / "files.txt");
    for (std::string found, names; list >> found && std::getline(list, names);) {
      LinkedFile file{found == "found", {}};
      for (char c : names) {
        if (c == '\t') file.names.emplace_back(L"\\");
        else file.names.back() += c == '/' ? L'\\' : static_cast<wchar_t>(c);
      }
      files_.push_back(file);
    }
    ASSERT_FALSE(files_.empty()) << "files.txt lists no file";
    // The roots the walk reads from the environment; Wine's own give the Windows
    // folder and the profiles (C:\windows, C:\users), walked on H: as well. Not put
    // back: no other test here reads the real variables.
    _wputenv_s(L"ProgramData", L"H:\\ProgramData");
    _wputenv_s(L"ProgramFiles", L"H:\\Program Files");
    _wputenv_s(L"ProgramFiles(x86)", L"H:\\Program Files (x86)");
#else
    GTEST_SKIP() << "drive H: holds the linked files only in the Wine run of a cross build";
#endif
  }

  std::vector<LinkedFile> files_;
};

// Each file the walk must find once, by one of its names, and no other; its keys are
// checked through the same calls on a fake volume by DirWalk.
TEST_F(WineDriveH, WalkFindsTheLinkedFilesUnderTheRoots) {
  HardLinkMap map;
  ASSERT_TRUE(HardLinkInfo::Create(14, L'H', map));
  std::multiset<std::wstring> expected, got;  // by first name
  for (const auto& file : files_)
    if (file.found) expected.insert(file.names[0]);
  for (const auto& [index, name] : map) {
    const auto file = std::find_if(files_.begin(), files_.end(), [&](const LinkedFile& f) {
      return std::find(f.names.begin(), f.names.end(), std::wstring(name.c_str())) != f.names.end();
    });
    ASSERT_NE(file, files_.end()) << "a file the fixture did not make: " << testing::PrintToString(name.c_str());
    got.insert(file->names[0]);
  }
  EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace koru
