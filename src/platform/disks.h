// What a backend tells the command-line tool about disks: attaching images or block
// devices (Linux), pinning letters, and listing the lettered volumes. The public
// tool API (include/koru_mft/tool.h) forwards here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/env.h"

namespace platform {

struct ListedVolume {
  wchar_t letter = 0;
  std::wstring volume_name;  // \\?\Volume{GUID}\ as the system names it
  DWORD disk = 0;
  std::int64_t offset = 0;  // bytes from the start of the disk
  std::int64_t length = 0;  // bytes
  DWORD bytes_per_sector = 0;
  std::wstring kind;  // "NTFS" or "BitLocker"
  // The disk it is on, where the backend names one (Linux: the attached file or device).
  std::wstring disk_path;
  std::wstring disk_format;  // "raw", "VHDX", "E01", "block device", ...
  DWORD disk_files = 0;      // files of the image: segments of an E01, parts of a split raw
};

// "PATH[:SECTOR_SIZE]": the next \\.\PhysicalDriveN. False with a reason when refused.
bool AttachDisk(const std::string& arg, std::string* error);
// "L=DISK:PARTITION": pins a drive letter to a partition (1-based, table order).
bool PinVolume(const std::string& arg, std::string* error);
// Every NTFS or BitLocker volume with a letter, in letter order.
std::vector<ListedVolume> ListVolumes();
// Why the file-level calls (names and links of files, directory searches) cannot
// answer on the volume with this letter, in words a person can act on; empty when
// they can. Linux reads them through The Sleuth Kit, which refuses some volumes.
std::string FileLevelProblem(wchar_t letter);
// The file-level calls on `letter` are answered from the volume `copy` (Linux: a
// readable copy of a BitLocker volume; Windows reads that volume itself).
void ReadFilesThrough(wchar_t letter, wchar_t copy);

}  // namespace platform
