// The host side of PosixEnv's disks: the images and block devices attached (or the
// machine's own disks), read for the disk map, the pinned letters, and what a device
// path opens on the host. Everything here is behind one lock.
#pragma once

#include <string>
#include <vector>

#include "platform/disk_map.h"
#include "platform/env.h"
#include "platform/posix_image.h"

namespace platform {

// Where a device path reads from: a window of a host file, or of the container
// image opened for it (shared with the file-level services).
struct DeviceBinding : DeviceWindow {
  std::string host_path;
  std::shared_ptr<posix::ContainerImage> image;  // null: the host file is read directly
};

namespace posix {

bool ResolveDevice(const std::wstring& path, DeviceBinding* binding, DWORD* error);
bool DeviceControl(const DeviceBinding& binding, DWORD code, void* out, DWORD out_size, DWORD* returned,
                   DWORD* error);
bool VolumeNameForMountPoint(const std::wstring& mount_point, std::wstring* volume_name, DWORD* error);
// Forgets attached disks, pins and the scan (tests); the environment is read again.
void ResetDisks();

// Whole-disk names from /sys/block in PhysicalDrive order: sd/hd/vd/xvd, then nvme,
// then mmcblk, then anything else; within each, shorter names first (sdz before sdaa).
std::vector<std::string> OrderMachineDisks(std::vector<std::string> names);

}  // namespace posix
}  // namespace platform
