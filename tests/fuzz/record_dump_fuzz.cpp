// Any 1024 bytes as an MFT record, through both readers of one record: the dump of
// its header and every attribute (what MFT::Read writes), and the walk that maps each
// $DATA attribute's runs to sectors. Both must end, inside the buffer, whatever the
// record says.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "base/ntfs_layout.h"
#include "mft/attribute_walk.h"
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
  koru::AttributeWalk walk(koru::Bytes(record), 8, 0);
  koru::SectorRanges ranges;
  while (auto attribute = walk.Next()) {
    if (!attribute->IsData()) continue;
    if (auto* d = dynamic_cast<koru::DATA_Attribute*>(attribute.get())) d->GetSectorRange(walk.current(), ranges);
  }
  return 0;
}
