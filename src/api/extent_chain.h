// The chain every service runs for each extent of a volume: the disk's sector size,
// the volume's start sector, and from its boot sector the MFT's sector and the
// cluster size. Each service reports a failed step with its own texts.
#pragma once

#include <cstdint>

#include "disk/volume.h"
#include "mft/mft.h"
#include "support/fn_trace.h"

namespace koru {

struct ExtentPlace {
  DISK_EXTENT extent{};
  platform::DWORD bytes_per_sector = 0;
  std::uint64_t disk_sectors = 0;  // the whole disk, as its geometry reports it
  std::uint64_t start_sector = 0;
  std::uint64_t mft_sector = 0;
  platform::DWORD sectors_per_cluster = 0;
  platform::DWORD bytes_per_record = 0;  // the volume's file-record size; 0 when unknown
};

enum class ExtentStep { kOk, kGeometryFailed, kBootSectorFailed, kNoClusterSize };

// Traces the extent and the sector size under the caller's name. A disk that reports
// 0 bytes per sector cannot place a volume: a geometry failure.
ExtentStep LocateExtent(varnel::FnTrace& fn, const DISK_EXTENT& extent, ExtentPlace& place);

// The MFT reader of a located extent, aimed at `sector` (handles not yet open).
MFT MakeReader(const ExtentPlace& place, wchar_t letter, std::uint64_t sector);

}  // namespace koru
