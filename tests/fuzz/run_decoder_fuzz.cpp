// Any bytes as a run list: the decoder must consume them and stop.
#include <cstddef>
#include <cstdint>
#include <deque>

#include "mft/attribute.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  koru::DATA_Attribute attribute(koru::Bytes{}, data[0]);
  std::deque<std::uint8_t> runs(data + 1, data + size);
  koru::SectorRanges ranges;
  attribute.ProcessDataRun(runs, ranges);
  return 0;
}
