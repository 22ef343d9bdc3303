// What the vmft command needs beyond the VMFT class: attaching disks on Linux,
// listing the volumes found, and trace control. Exported for the command only.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
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

// Checks a range list that VMFT::GetMFTSectorRanges gave for the volume behind
// `letter` against the volume itself, read again through the library: MFT record 0
// reads, is signed "FILE" and maps the whole MFT (no attribute walk or run list cut
// short, no resident $DATA); there is at least one range; every range has first <
// end and lies inside the volume's extent on its disk. The library's own answer
// stays as documented (pairs left volume-relative when a $DATA fails, nothing from
// an extent without a cluster size, wrapped run offsets as they decode), so a caller
// that hands the sectors to a backup checks them here first. A failed query can be
// checked too: the reason then names the step that fails. False with a sentence
// that names the volume in `why`.
KORU_MFT_API bool CheckMftRanges(wchar_t letter, const std::vector<std::pair<std::uint64_t, std::uint64_t>>& ranges,
                                 std::wstring* why);

// Trace level number 0..4 for this process, as trace.ini would set it.
KORU_MFT_API void SetTraceLevel(unsigned level);
// Where the trace log is written.
KORU_MFT_API std::wstring TraceLogPath();
// The calling thread's most recent error or warning trace entry.
KORU_MFT_API std::wstring LastTraceProblem();

}  // namespace koru::tool
