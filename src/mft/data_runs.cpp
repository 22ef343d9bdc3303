#include <algorithm>
#include <string>

#include "mft/attribute.h"
#include "base/ntfs_layout.h"
#include "support/fn_trace.h"

namespace koru {

using varnel::FnTrace;

bool DATA_Attribute::GetSectorRange(Bytes header, SectorRanges& ranges) {
  FnTrace fn(L"DATA_Attribute::GetSectorRange");
  if (header.empty()) {
    fn.End(L"null $DATA attribute header pointer");
    return false;
  }
  if (le8Or0(header, layout::kAttrNonResident) == 0) {
    fn.End(L"Resident $DATA attribute");
    return false;
  }
  // The run list runs from its offset to the attribute's length, never past the
  // bytes this attribute has in the record.
  const std::size_t length = le32Or0(header, layout::kAttrLength);
  const std::size_t end = std::min(length, header.size());
  const std::size_t start = le16Or0(header, layout::kAttrRunListOffset);
  std::deque<std::uint8_t> runs;
  for (std::size_t i = start; i < end; ++i) runs.push_back(std::to_integer<std::uint8_t>(header[i]));
  // A list that breaks off inside a run, or that runs on past the bytes the
  // attribute has, maps only part of the data: never a complete answer.
  const RunListEnd how = ProcessDataRun(runs, ranges);
  if (how == RunListEnd::kCut || (how == RunListEnd::kUsedUp && end < length)) {
    fn.End(L"run list cut short by the attribute's bounds", varnel::kTraceError);
    return false;
  }
  return true;
}

Attribute::RunListEnd Attribute::ProcessDataRun(std::deque<std::uint8_t>& runs, SectorRanges& ranges) {
  FnTrace fn(L"Attribute::ProcessDataRun");
  auto trace_value = [&fn](const wchar_t* name, std::uint64_t value) { fn.Value(name, value, varnel::kTraceVerbose); };
  std::int64_t remaining = static_cast<std::int64_t>(runs.size());
  std::uint64_t lcn = 0;  // modular, as the cluster arithmetic of the run list is
  if (runs.empty()) return RunListEnd::kUsedUp;
  std::uint8_t header = runs.front();
  runs.pop_front();
  --remaining;
  for (;;) {
    const unsigned length_size = header & 0x0F;
    const unsigned offset_size = header >> 4;
    trace_value(L"HighNibble", offset_size);
    trace_value(L"LowNibble", length_size);
    if (header == 0) return RunListEnd::kTerminated;

    remaining -= length_size;
    if (remaining < 0) {
      fn.End(L"run length field past the end of the run list", varnel::kTraceError);
      return RunListEnd::kCut;
    }
    std::uint64_t length = 0;
    for (unsigned i = 0; i < length_size; ++i) {
      const std::uint64_t byte = runs.front();
      runs.pop_front();
      if (i < 8) length |= byte << (8 * i);
    }
    trace_value(L"length", length);

    // An offset field cut by the end of the list is used as far as it was read;
    // decoding ends after that run, as there is no header byte left to take.
    std::uint64_t rel_offset = 0;
    std::uint8_t last = 0;
    for (unsigned i = 0; i < offset_size; ++i) {
      if (--remaining < 0) break;
      last = runs.front();
      runs.pop_front();
      if (i < 8) rel_offset |= std::uint64_t{last} << (8 * i);
    }
    trace_value(L"rel_offset", rel_offset);

    // The offset's magnitude: the raw value, or for a negative field 2^(8n) - raw
    // with the shift taken modulo 64 (an 8-byte field gives 1 - raw, a limit of
    // the decoder kept on purpose).
    std::uint64_t abs_offset = rel_offset;
    if (offset_size > 0 && (last & 0x80) != 0) {
      abs_offset = (std::uint64_t{1} << ((8u * offset_size) % 64u)) - rel_offset;
      lcn -= abs_offset;
    } else {
      lcn += rel_offset;
    }
    trace_value(L"abs_offset", abs_offset);

    // Sparse runs and runs that do not move carry no clusters of their own here.
    if (abs_offset != 0 && length != 0) {
      const std::uint64_t uiStart = lcn * m_dwSectorsPerCluster;
      const std::uint64_t uiEnd = (lcn + length) * m_dwSectorsPerCluster;
      trace_value(L"uiStart", uiStart);
      trace_value(L"uiEnd", uiEnd);
      ranges.emplace_back(uiStart, uiEnd);
    }
    if (remaining < 0) {
      fn.End(L"run offset field past the end of the run list", varnel::kTraceError);
      return RunListEnd::kCut;
    }
    if (remaining == 0) return RunListEnd::kUsedUp;
    header = runs.front();
    runs.pop_front();
    --remaining;
  }
}

}  // namespace koru
