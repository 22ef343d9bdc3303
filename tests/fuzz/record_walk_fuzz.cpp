// Any 1024 bytes as an MFT record: the walk and the $DATA decoding must end, inside
// the buffer, whatever the record says.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "mft/attribute_walk.h"
#include "base/ntfs_layout.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  koru::layout::RecordBuffer record{};
  std::memcpy(record.data(), data, size < record.size() ? size : record.size());
  koru::AttributeWalk walk(koru::Bytes(record), 8, 0);
  koru::SectorRanges ranges;
  while (auto attribute = walk.Next()) {
    if (!attribute->IsData()) continue;
    if (auto* d = dynamic_cast<koru::DATA_Attribute*>(attribute.get())) d->GetSectorRange(walk.current(), ranges);
  }
  return 0;
}
