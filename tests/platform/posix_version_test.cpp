// Module identity on Linux: the program answers with its Z:\ path; the library,
// linked in statically here, is not KORU_MFT.DLL.
#include "platform/posix_version.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/posix_env.h"
#include "platform/posix_paths.h"

namespace {

using platform::PosixEnv;

TEST(PosixModule, TheProgramAnswersAsZColonPathAndTheLibraryIsUnknown) {
  PosixEnv env;
  wchar_t buffer[4096];
  const platform::DWORD n = env.GetModuleFileNameW(nullptr, buffer, 4096);
  ASSERT_GT(n, 0u);
  const std::wstring expected = platform::WindowsPath(std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(std::wstring(buffer, n), expected);
  EXPECT_EQ(expected.rfind(L"Z:\\", 0), 0u);
  EXPECT_EQ(expected.find(L'/'), std::wstring::npos);

  // Too small: cut, terminated, the full size and ERROR_INSUFFICIENT_BUFFER.
  env.SetLastError(0);
  wchar_t small[5];
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 5), 5u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);
  EXPECT_EQ(std::wstring(small), expected.substr(0, 4));

  // A program without the shared object.
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);
  EXPECT_NE(env.GetModuleHandleW(nullptr), nullptr);
}

}  // namespace
