#include "disk/volume.h"

#include <cstring>

#include "base/bytes.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

namespace {

using platform::kPathChars;
constexpr std::size_t kExtentSize = sizeof(DISK_EXTENT);
// Header plus two extents: the first call's buffer.
constexpr std::size_t kFirstExtentBuffer = platform::kVolumeDiskExtentsHeader + 2 * kExtentSize;
// No volume spans this many disks; a platform that keeps asking for more is broken.
constexpr std::size_t kMaxExtentBuffer = platform::kVolumeDiskExtentsHeader + 65536 * kExtentSize;

}  // namespace

bool GetVolumeNameFromDL(wchar_t wcDL, varnel::string& sVolumeName) {
  FnTrace fn(L"GetVolumeNameFromDL");
  platform::Env& env = platform::Env::Default();
  const wchar_t mount_point[4] = {wcDL, L':', L'\\', 0};
  wchar_t buffer[kPathChars] = {};
  if (!env.GetVolumeNameForVolumeMountPointW(mount_point, buffer, kPathChars)) {
    // kept as written (no closing parenthesis): the recovery tools match on it
    fn.Failed(L"... ending(GetVolumeNameForVolumeMountPoint() failed", env.GetLastError());
    return false;
  }
  buffer[kPathChars - 1] = 0;
  sVolumeName = buffer;
  // The platform ends the name with a backslash; the last character goes unconditionally.
  if (!sVolumeName.empty()) sVolumeName.erase(sVolumeName.length() - 1);
  fn.Value(L"sVolumeName", sVolumeName);
  return true;
}

bool GetVolumeDiskExtentList(wchar_t wcDL, std::vector<DISK_EXTENT>& extents) {
  FnTrace fn(L"GetVolumeDiskExtentList");
  varnel::string sVolumeName;
  if (!GetVolumeNameFromDL(wcDL, sVolumeName)) {
    fn.Value(L"wcDL", wcDL);
    fn.End(L"GetVolumeNameFromDL() failed");
    return false;
  }
  fn.Value(L"sVolumeName", sVolumeName);
  const bool bRc = GetVolumeDiskExtentList(sVolumeName, extents);
  fn.Value(L"bRc", bRc);
  fn.Ended();
  return bRc;
}

bool GetVolumeDiskExtentList(const varnel::string& sVolumeName, std::vector<DISK_EXTENT>& extents) {
  FnTrace fn(L"GetVolumeDiskExtentList");
  if (sVolumeName.empty()) {
    fn.End(L"Invalid volume name");
    return false;
  }
  fn.Value(L"sVolumeName", sVolumeName);
  extents.clear();
  platform::Env& env = platform::Env::Default();
  platform::ScopedHandle volume(env, platform::OpenForRead(env, sVolumeName.c_str()));
  if (!volume.valid()) {
    const DWORD error = env.GetLastError();
    fn.Value(L"sVolumeName", sVolumeName);
    fn.Failed(L"... ending(CreateFile() failed)", error);
    return false;
  }

  std::vector<std::byte> buffer(kFirstExtentBuffer, std::byte{0});
  for (;;) {
    DWORD returned = 0;
    if (env.DeviceIoControl(volume.get(), platform::kIoctlVolumeGetVolumeDiskExtents, nullptr, 0, buffer.data(),
                            static_cast<DWORD>(buffer.size()), &returned))
      break;
    const DWORD error = env.GetLastError();
    if ((error != platform::kErrorInsufficientBuffer && error != platform::kErrorMoreData) ||
        buffer.size() + kExtentSize > kMaxExtentBuffer) {
      // kept as written (blank before the inner parenthesis): the recovery tools match on it
      fn.Failed(L"... ending(DeviceIoControl(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS ) failed)", error);
      return false;
    }
    buffer.resize(buffer.size() + kExtentSize, std::byte{0});
  }

  const Bytes view(buffer);
  const std::uint32_t count = le32Or0(view, 0);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t at = platform::kVolumeDiskExtentsHeader + std::size_t{i} * kExtentSize;
    if (!Fits(view.size(), at, kExtentSize)) break;  // a count larger than what was delivered
    DISK_EXTENT extent{};
    extent.DiskNumber = le32Or0(view, at);
    extent.StartingOffset = static_cast<std::int64_t>(le64Or0(view, at + 8));
    extent.ExtentLength = static_cast<std::int64_t>(le64Or0(view, at + 16));
    extents.push_back(extent);
  }
  fn.Ended();
  return true;
}

bool GetDiskGeometryEx(DWORD uiPhysicalDriveNum, DISK_GEOMETRY_EX& geometry) {
  FnTrace fn(L"GetDiskGeometryEx");
  platform::Env& env = platform::Env::Default();
  const platform::DrivePath wszDriveName = platform::PhysicalDrivePath(uiPhysicalDriveNum);
  fn.Value(L"wszDriveName", wszDriveName.text);
  platform::ScopedHandle disk(env, platform::OpenForRead(env, wszDriveName.text));
  if (!disk.valid()) {
    fn.Failed(L"... ending(CreateFile() failed)", env.GetLastError());
    return false;
  }
  DWORD returned = 0;
  if (!env.DeviceIoControl(disk.get(), platform::kIoctlDiskGetDriveGeometryEx, nullptr, 0, &geometry, sizeof geometry,
                           &returned)) {
    fn.Failed(L"... ending(DeviceIoControl(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX) failed)", env.GetLastError());
    return false;
  }
  fn.Ended();
  return true;
}

}  // namespace koru
