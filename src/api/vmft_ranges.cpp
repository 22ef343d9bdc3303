#include <vector>

#include "api/extent_chain.h"
#include "koru_mft/vmft.h"

using varnel::FnTrace;

bool VMFT::GetMFTSectorRanges(wchar_t wcDL, std::vector<std::pair<std::uint64_t, std::uint64_t>>& ranges) {
  FnTrace fn(L"VMFT::GetMFTSectorRanges");
  fn.Value(L"wcDL", wcDL);
  std::vector<koru::DISK_EXTENT> extents;
  if (!koru::GetVolumeDiskExtentList(wcDL, extents)) {
    fn.End(L"GetVolumeDiskExtentList() failed", varnel::kTraceError);
    return false;
  }
  for (const auto& extent : extents) {
    koru::ExtentPlace place;
    switch (koru::LocateExtent(fn, extent, place)) {
      case koru::ExtentStep::kOk: break;
      case koru::ExtentStep::kGeometryFailed:
        fn.End(L"GetDiskGeometryEx() failed", varnel::kTraceError);
        return false;
      case koru::ExtentStep::kBootSectorFailed:
        fn.End(L"BootSector::GetMftSector() failed", varnel::kTraceError);
        return false;
      case koru::ExtentStep::kNoClusterSize: continue;  // skipped silently by design
    }
    koru::MFT mft = koru::MakeReader(place, wcDL, place.mft_sector);
    mft.GetMftRanges(ranges);  // an extent without ranges does not fail the query
    mft.CloseHandles();
  }
  return true;
}
