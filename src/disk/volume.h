// Drive letter -> volume name -> disk extents, and the geometry of a physical disk.
#pragma once

#include <vector>

#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace koru {

using platform::DISK_EXTENT;
using platform::DISK_GEOMETRY_EX;

bool GetVolumeNameFromDL(wchar_t wcDL, varnel::string& sVolumeName);
bool GetVolumeDiskExtentList(wchar_t wcDL, std::vector<DISK_EXTENT>& extents);
bool GetVolumeDiskExtentList(const varnel::string& sVolumeName, std::vector<DISK_EXTENT>& extents);
bool GetDiskGeometryEx(platform::DWORD uiPhysicalDriveNum, DISK_GEOMETRY_EX& geometry);

}  // namespace koru
