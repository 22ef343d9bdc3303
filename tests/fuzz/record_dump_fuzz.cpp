// Any 1024 bytes as the record MFT::Read has just read: the dump of its header and
// every attribute must end, inside the buffer, whatever the record says.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "base/ntfs_layout.h"
#include "mft/mft.h"
#include "support/trace.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  varnel::Trace().SetLevel(0);  // the log file would be the bottleneck
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  koru::layout::RecordBuffer record{};
  std::memcpy(record.data(), data, size < record.size() ? size : record.size());
  std::wostringstream os;
  koru::WriteRecordDump(os, koru::Bytes(record), 0, 8);
  return 0;
}
