#include <vector>

#include "api/extent_chain.h"
#include "koru_mft/vmft.h"

using varnel::FnTrace;

bool VMFT::ReadMFTRecord(std::wostream& os, wchar_t wcDL, std::uint64_t uiSectorNo) {
  FnTrace fn(L"VMFT::ReadMFTRecord");
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
    fn.Value(L"dwSectorsPerCluster", place.sectors_per_cluster);
    varnel::CTrace& trace = fn.trace();
    trace.Trace(varnel::kTraceInfo, L"VMFT::ReadMFTRecord : MFT starts at sector", L"uiMftSector", place.mft_sector);
    // The argument as passed is traced, 0 included; 0 asks for the MFT's own first record.
    trace.Trace(varnel::kTraceInfo, L"VMFT::ReadMFTRecord : Requested sector", L"uiSectorNo", uiSectorNo);
    koru::MFT mft = koru::MakeReader(place, wcDL, uiSectorNo != 0 ? uiSectorNo : place.mft_sector);
    mft.Read(os);  // what it could not read it has traced; the call goes on
    mft.CloseHandles();
  }
  return true;
}
