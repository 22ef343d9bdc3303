// A fresh directory under the build tree for one test, removed afterwards. Paths come
// in both forms: the host path for reading results back, and the Windows form
// (Z:\... on Linux) that the core is given.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <iterator>
#include <string>

namespace koru::test {

class TempDir {
 public:
  // Named after the running test unless given a name.
  explicit TempDir(std::string name = "") {
    static std::atomic<unsigned> counter{0};
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    if (name.empty()) name = info ? std::string(info->test_suite_name()) + "." + info->name() : "test";
    std::replace(name.begin(), name.end(), '/', '_');
    path_ = std::filesystem::path(KORU_TEST_TMP) /
            (name + "-" + std::to_string(std::random_device{}()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  // The directory (or a name in it) as the core spells paths.
  std::wstring win(const std::string& name = "") const {
    std::wstring text = (name.empty() ? path_ : path_ / name).wstring();
    std::replace(text.begin(), text.end(), L'/', L'\\');
#ifdef _WIN32
    return text;
#else
    return L"Z:" + text;
#endif
  }

  void Write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories((path_ / name).parent_path());
    std::ofstream(path_ / name, std::ios::binary) << text;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }

 private:
  std::filesystem::path path_;
};

}  // namespace koru::test
