// What the vmft command needs beyond the VMFT class: attaching disks on Linux,
// listing the volumes found, and trace control. Exported for the command only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
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
  std::wstring disk_path;    // the attached file or device (Linux); empty on Windows
  std::wstring disk_format;  // "raw", "split raw", "VHD", "VHDX", "VMDK", "E01" or "block device"
  std::uint32_t disk_files = 0;  // files the disk is read from: E01 segments, split raw parts
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
// When `letter` is a BitLocker volume, which Linux cannot read, its file-level answers
// (does a link name exist) come from then on from `copy`, a readable copy of the same
// volume (a decrypted clone, a snapshot). True when `letter` is a BitLocker volume.
KORU_MFT_API bool ReadBitLockerFilesThrough(wchar_t letter, wchar_t copy);

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

// --- Record numbers to sectors (vmft record --record N) --------------------------
// What it takes to find MFT record N on the disk: the disk's sector size, the
// volume's file-record size and where record 0 lies. Which sectors the MFT holds is
// VMFT::GetMFTSectorRanges.
struct MftGeometry {
  std::uint32_t bytes_per_sector = 0;
  std::uint32_t bytes_per_record = 0;  // 0: the boot sector gives no usable size
  std::uint64_t mft_sector = 0;        // absolute sector of record 0
};
// From the volume's first extent whose boot sector gives a cluster size, read as
// every service reads it. False when there is none (the reason is traced).
KORU_MFT_API bool GetMftGeometry(wchar_t letter, MftGeometry* geometry);

// --- Record dumps of a copied $MFT (vmft record --mft-file) ------------------------
// Writes the record dump of one file record the caller read itself (up to 1024
// bytes; missing ones read as 0), as VMFT::ReadMFTRecord writes it for a record read
// from a disk: `sector` is its place in 512-byte sectors, `sectors_per_cluster` the
// volume's, for the sectors of its data runs.
KORU_MFT_API void DumpRecordBytes(std::wostream& os, const void* record, std::size_t size, std::uint64_t sector,
                                  std::uint32_t sectors_per_cluster);

}  // namespace koru::tool
