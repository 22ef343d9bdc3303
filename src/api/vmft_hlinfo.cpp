#include <vector>

#include "api/extent_chain.h"
#include "hardlinks/dir_walk.h"
#include "hardlinks/info_file.h"
#include "koru_mft/vmft.h"
#include "support/system_environment.h"

using varnel::FnTrace;

bool VMFT::CreateHLInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive) {
  FnTrace fn(L"VMFT::CreateHLInfo");
  fn.Value(L"sHLInfoFile", sHLInfoFile);
  fn.Value(L"wcWindows", wcWindows);
  std::vector<koru::DISK_EXTENT> extents;
  if (!koru::GetVolumeDiskExtentList(wcWindows, extents)) {
    fn.End(L"GetVolumeDiskExtentList() failed", varnel::kTraceError);
    return false;
  }
  HardLinkMap map;
  bool walk = false;
  for (const auto& extent : extents) {
    koru::ExtentPlace place;
    const koru::ExtentStep step = koru::LocateExtent(fn, extent, place);
    if (step == koru::ExtentStep::kGeometryFailed) {
      fn.End(L"GetDiskGeometryEx() failed", varnel::kTraceError);
      return false;
    }
    // A boot sector that cannot be used (BitLocker) turns the rest over to the walk.
    if (step != koru::ExtentStep::kOk) {
      walk = true;
      break;
    }
    fn.Value(L"dwSectorsPerCluster", place.sectors_per_cluster);
    FnTrace::ValueOf(fn.trace(), varnel::kTraceInfo, L"VMFT::CreateHLInfo : MFT starts at sector", L"MftSector",
                     place.mft_sector);
    koru::MFT mft = koru::MakeReader(place, wcWindows, place.mft_sector);
    mft.GetHardLinkList(map, m_os);  // a failed scan adds what it found and does not turn to the walk
    mft.CloseHandles();
  }
  if (walk && !koru::HardLinkInfo::Create(varnel::SystemEnvironment::Get().m_dwEnvironment, wcVssDrive, map)) {
    fn.End(L"HardLinkInfo::Create() failed", varnel::kTraceError);
    return false;
  }
  if (map.empty()) return true;
  if (!WriteHLInfo(sHLInfoFile, wcWindows, wcVssDrive, map)) {
    fn.End(L"WriteHLInfo() failed", varnel::kTraceError);
    return false;
  }
  return true;
}

bool VMFT::WriteHLInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive,
                       const HardLinkMap& map) {
  return koru::WriteHardLinkInfo(sHLInfoFile, wcWindows, wcVssDrive, map);
}
