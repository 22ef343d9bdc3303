// Module identity on Linux: the library, linked in statically here, is not
// KORU_MFT.DLL. That the program answers with its Z:\ path, foundation_test.sh sees
// from the trace log beside a copy of vmft.
#include "platform/posix_version.h"

#include <gtest/gtest.h>

#include "platform/posix_env.h"

namespace {

TEST(PosixModule, AShortBufferIsReportedAndTheLibraryIsUnknown) {
  platform::PosixEnv env;
  // Too small: cut, terminated, the full size and ERROR_INSUFFICIENT_BUFFER.
  env.SetLastError(0);
  wchar_t small[5];
  EXPECT_EQ(env.GetModuleFileNameW(nullptr, small, 5), 5u);
  EXPECT_EQ(env.GetLastError(), platform::kErrorInsufficientBuffer);
  EXPECT_EQ(std::wstring(small).substr(0, 3) + L"|" + std::to_wstring(std::wcslen(small)), L"Z:\\|4");
  // A program without the shared object.
  EXPECT_EQ(env.GetModuleHandleW(L"KORU_MFT.DLL"), nullptr);
  EXPECT_NE(env.GetModuleHandleW(nullptr), nullptr);
}

}  // namespace
