// Pieces of PosixEnv's disk personality that tests reach directly: how the extents
// IOCTL fills a caller's buffer, and the order in which the machine's disks are numbered.
#pragma once

#include <string>
#include <vector>

#include "platform/env.h"

namespace platform::posix {

// IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS as the volume manager answers it: a buffer
// smaller than the header and one extent is ERROR_INVALID_PARAMETER (nothing written);
// one too small for every extent is ERROR_MORE_DATA with the count filled in and
// *returned the size of that minimum; else every extent, in order.
bool AnswerVolumeDiskExtents(const std::vector<DISK_EXTENT>& extents, void* out, DWORD out_size, DWORD* returned,
                             DWORD* error);

// Whole-disk names from /sys/block in PhysicalDrive order: sd/hd/vd/xvd, then nvme,
// then mmcblk, then anything else; within each, shorter names first (sdz before sdaa).
std::vector<std::string> OrderMachineDisks(std::vector<std::string> names);

}  // namespace platform::posix
