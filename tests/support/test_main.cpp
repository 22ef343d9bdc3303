// main() of every test program: GoogleTest, with the process-wide trace log moved
// first into a directory of this process's own. CTest runs many processes of one
// program at once; beside the program, one's start (keeping the old log as .old)
// made another's append fail with a sharing violation under Windows, losing the
// entry a test looked for. The directory goes when all tests pass and stays, named,
// when one fails.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <memory>

#include "support/temp_dir.h"
#include "support/trace.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const std::string program = argc > 0 ? std::filesystem::path(argv[0]).stem().string() : "tests";
  auto logs = std::make_unique<koru::test::TempDir>("trace-" + program);
  if (!varnel::Trace().SetLogDir(varnel::string(logs->win().c_str()))) {
    std::cerr << "cannot log in " << logs->path() << "\n";
    return 1;
  }
  const int result = RUN_ALL_TESTS();
  if (result != 0) {
    std::cout << "trace log: " << (logs->path() / "VMFT_trace.log").string() << "\n";
    logs.release();  // kept for the one who reads the failure
  }
  return result;
}
