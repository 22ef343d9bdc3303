#include "platform/posix_paths.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(PosixPaths, ZColonIsTheRoot) {
  const struct {
    const wchar_t* windows;
    const char* host;
  } cases[] = {{L"Z:\\usr\\local\\bin\\vmft", "/usr/local/bin/vmft"}, {L"z:\\", "/"}, {L"z:", "/"},
               {L"/usr/bin", "/usr/bin"}, {L"C:\\Windows", ""}, {L".\\Logfiles", "./Logfiles"},
               {L"Z:\\caf\u00e9", "/caf\xC3\xA9"}};
  for (const auto& c : cases) EXPECT_EQ(HostPath(c.windows), c.host) << c.host;
  EXPECT_EQ(WindowsPath("/usr/local/bin/vmft"), L"Z:\\usr\\local\\bin\\vmft");
}

}  // namespace
}  // namespace platform
