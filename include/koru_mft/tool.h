// What the vmft command needs beyond the VMFT class: attaching disks on Linux,
// listing the volumes found, and trace control. Exported for the command only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "koru_mft/export.h"

namespace koru::tool {

struct VolumeInfo {
  wchar_t letter = 0;
  std::wstring volume_name;  // \\?\Volume{GUID}\ as the system names it
  std::uint32_t disk = 0;
  std::int64_t offset = 0;  // bytes from the start of the disk
  std::int64_t length = 0;  // bytes
  std::uint32_t bytes_per_sector = 0;
  std::wstring kind;  // "NTFS" or "BitLocker"
};

// "PATH[:SECTOR_SIZE]": the next \\.\PhysicalDriveN. False with a reason when refused.
KORU_MFT_API bool AttachDisk(const std::string& arg, std::string* error);
// "L=DISK:PARTITION": pins a drive letter to a partition (1-based, table order).
KORU_MFT_API bool PinVolume(const std::string& arg, std::string* error);
// Every NTFS or BitLocker volume with a letter, in letter order.
KORU_MFT_API std::vector<VolumeInfo> ListVolumes();
// Why names, links and directories of files cannot be read on the volume with this
// letter (on Linux: a volume The Sleuth Kit refuses); empty when they can.
KORU_MFT_API std::string FileLevelProblem(wchar_t letter);

// Trace level number 0..4 for this process, as trace.ini would set it.
KORU_MFT_API void SetTraceLevel(unsigned level);
// Where the trace log is written.
KORU_MFT_API std::wstring TraceLogPath();
// The calling thread's most recent error or warning trace entry.
KORU_MFT_API std::wstring LastTraceProblem();

}  // namespace koru::tool
