// The directory walk through the real Win32 calls: under Wine, drive H: is a folder of
// the build tree whose files carry hard links made with ln (tests/hardlinks/wine_drive_h.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hardlinks/dir_walk.h"
#include "platform/device_io.h"
#include "platform/windows_env.h"

namespace koru {
namespace {

struct LinkedFile {
  bool found = false;  // by the walk
  std::uint32_t links = 0;
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
    for (std::string found, links, names; list >> found >> links && std::getline(list, names);) {
      LinkedFile file{found == "found", static_cast<std::uint32_t>(std::stoul(links)), {}};
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

  platform::WindowsEnv env_;
  std::vector<LinkedFile> files_;
};

TEST_F(WineDriveH, WalkFindsTheLinkedFilesUnderTheRootsByWinesFileIndex) {
  // Wine's answers first: without link counts and indexes that tell files apart
  // there is nothing to walk by.
  std::map<std::uint64_t, const LinkedFile*> by_index;
  for (const auto& file : files_) {
    std::set<std::uint64_t> indexes;
    for (const auto& name : file.names) {
      // Links and file index as GetFileInformationByHandle gives them.
      platform::ScopedHandle h(env_, env_.CreateFileW((L"H:" + name).c_str(), platform::kGenericRead,
                                                      platform::kFileShareRead, platform::kOpenExisting,
                                                      platform::kFileFlagBackupSemantics));
      platform::ByHandleFileInformation info{};
      ASSERT_TRUE(h.valid() && env_.GetFileInformationByHandle(h.get(), &info))
          << "H:" << testing::PrintToString(name) << ": " << env_.GetLastError();
      if (info.nNumberOfLinks != file.links)
        GTEST_SKIP() << "Wine " << platform::windows::WineVersion() << " counts " << info.nNumberOfLinks
                     << " link(s) of H:" << testing::PrintToString(name) << ", which has " << file.links;
      indexes.insert(std::uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow);
    }
    if (indexes.size() != 1 || *indexes.begin() == 0 || !by_index.emplace(*indexes.begin(), &file).second)
      GTEST_SKIP() << "Wine " << platform::windows::WineVersion() << " gives no file index that tells files apart";
  }

  HardLinkMap map;
  ASSERT_TRUE(HardLinkInfo::Create(14, L'H', map));
  std::set<std::uint64_t> expected, got;
  for (const auto& [index, file] : by_index)
    if (file->found) expected.insert(index);
  for (const auto& [index, name] : map) {
    got.insert(index);
    const auto file = by_index.find(index);
    ASSERT_NE(file, by_index.end()) << "a file the fixture did not make: " << testing::PrintToString(name.c_str());
    const auto& names = file->second->names;
    EXPECT_NE(std::find(names.begin(), names.end(), std::wstring(name.c_str())), names.end())
        << testing::PrintToString(name.c_str()) << " is no name of file " << index;
  }
  EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace koru
