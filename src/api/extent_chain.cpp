#include "api/extent_chain.h"

#include <algorithm>

#include "disk/boot_sector.h"

namespace koru {

ExtentStep LocateExtent(varnel::FnTrace& fn, const DISK_EXTENT& extent, ExtentPlace& place) {
  place = ExtentPlace{};
  place.extent = extent;
  fn.Value(L"uiPhysicalDriveNum", extent.DiskNumber);
  fn.Value(L"DiskExtent.StartingOffset", extent.StartingOffset);
  fn.Value(L"DiskExtent.ExtentLength", extent.ExtentLength);
  DISK_GEOMETRY_EX geometry{};
  if (!GetDiskGeometryEx(extent.DiskNumber, geometry) || geometry.Geometry.BytesPerSector == 0)
    return ExtentStep::kGeometryFailed;
  place.bytes_per_sector = geometry.Geometry.BytesPerSector;
  place.disk_sectors = static_cast<std::uint64_t>(std::max<std::int64_t>(geometry.DiskSize, 0)) / place.bytes_per_sector;
  fn.Value(L"DiskGeometry.Geometry.BytesPerSector", place.bytes_per_sector);

  BootSector boot;
  boot.m_dwBytesPerSector = place.bytes_per_sector;
  boot.m_dwSectorsPerCluster = 0;
  place.start_sector =
      static_cast<std::uint64_t>(extent.StartingOffset / static_cast<std::int64_t>(place.bytes_per_sector));
  if (!boot.GetMftSector(VolumeStart{extent.DiskNumber, place.start_sector}, place.mft_sector))
    return ExtentStep::kBootSectorFailed;
  place.bytes_per_record = boot.m_dwBytesPerFileRecord;
  if (!boot.GetSectorsPerCluster(place.sectors_per_cluster)) return ExtentStep::kNoClusterSize;
  return ExtentStep::kOk;
}

MFT MakeReader(const ExtentPlace& place, wchar_t letter, std::uint64_t sector) {
  MFT mft;
  mft.SetPhysicalDrive(place.extent.DiskNumber);
  mft.m_wcDriveLetter = letter;
  mft.m_dwBytesPerSector = place.bytes_per_sector;
  mft.m_dwSectorsPerCluster = place.sectors_per_cluster;
  mft.m_uiVolumeStartSector = place.start_sector;
  mft.m_uiMftSector = sector;
  mft.m_dwBytesPerFileRecord = place.bytes_per_record;
  return mft;
}

}  // namespace koru
