#include <vector>

#include "disk/boot_sector.h"
#include "disk/volume.h"
#include "koru_mft/vmft.h"
#include "mft/mft.h"
#include "support/fn_trace.h"
#include "support/format.h"

using platform::DWORD;
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
    fn.Value(L"uiPhysicalDriveNum", extent.DiskNumber);
    fn.Value(L"DiskExtent.StartingOffset", extent.StartingOffset);
    fn.Value(L"DiskExtent.ExtentLength", extent.ExtentLength);
    koru::DISK_GEOMETRY_EX geometry{};
    // A disk that reports 0 bytes per sector cannot place the volume: a geometry failure.
    if (!koru::GetDiskGeometryEx(extent.DiskNumber, geometry) || geometry.Geometry.BytesPerSector == 0) {
      fn.End(L"GetDiskGeometryEx() failed", varnel::kTraceError);
      return false;
    }
    const DWORD bytes_per_sector = geometry.Geometry.BytesPerSector;
    fn.Value(L"DiskGeometry.Geometry.BytesPerSector", bytes_per_sector);

    koru::BootSector boot;
    boot.m_dwBytesPerSector = bytes_per_sector;
    boot.m_dwSectorsPerCluster = 0;
    const koru::VolumeStart start{extent.DiskNumber,
                                  static_cast<std::uint64_t>(extent.StartingOffset /
                                                             static_cast<std::int64_t>(bytes_per_sector))};
    std::uint64_t uiMftSector = 0;
    if (!boot.GetMftSector(start, uiMftSector)) {
      fn.End(L"BootSector::GetMftSector() failed", varnel::kTraceError);
      return false;
    }
    DWORD sectors_per_cluster = 0;
    if (!boot.GetSectorsPerCluster(sectors_per_cluster)) continue;  // skipped silently by design

    koru::MFT mft;
    varnel::FormatFixed(mft.m_wszPhysicalDrive, 260, L"\\\\.\\PhysicalDrive%u", unsigned{extent.DiskNumber});
    mft.m_wcDriveLetter = wcDL;
    mft.m_dwBytesPerSector = bytes_per_sector;
    mft.m_dwSectorsPerCluster = sectors_per_cluster;
    mft.m_uiVolumeStartSector = start.uiStartSector;
    mft.m_uiMftSector = uiMftSector;
    mft.GetMftRanges(ranges);  // an extent without ranges does not fail the query
    mft.CloseHandles();
  }
  return true;
}
