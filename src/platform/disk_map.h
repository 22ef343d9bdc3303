// The disk personality of the Linux backend and of the test environment, written
// once: the partition scan of each disk (MBR with logical partitions, GPT, or a bare
// volume), the NTFS and BitLocker volumes found lettered from C:, their volume GUIDs,
// what a device path names, and the answers to the two IOCTLs the core asks of a
// device. OS-free: a disk is read through a callback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/env.h"

namespace platform {

// Reads out.size() bytes at byte `offset` of a disk; false unless every byte was read.
using ReadAtFn = std::function<bool(std::uint64_t offset, std::span<std::byte> out)>;

struct DiskSource {
  ReadAtFn read_at;         // none: a disk that could not be opened
  std::int64_t size = 0;    // bytes; nothing past it is read
  DWORD sector_size = 0;    // given, or the kernel's: believed; 0: found on the disk
};

// What a pin can name: \\.\PhysicalDrive0 to 999999, and partitions up to the last
// GPT entry read (logical partitions end well below).
inline constexpr DWORD kMaxDiskNumber = 999999;
inline constexpr DWORD kMaxPartitionNumber = 4096;

// A power of two from 512 to 65536.
bool IsSectorSize(std::uint64_t bytes);

struct MappedVolume {
  wchar_t letter = 0;  // 0 when no letter was left
  int disk = 0;
  int partition = 0;        // 1-based: primaries 1-4 and logicals from 5, or the GPT entry
  std::int64_t offset = 0;  // bytes from the start of the disk
  std::int64_t length = 0;  // bytes
  std::wstring guid;        // {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}
  std::wstring kind;        // NTFS or BitLocker
};

struct LetterPin {
  wchar_t letter;  // C to Z
  int disk;
  int partition;
};

// The part of a disk a device path reads: [base, base + length) of disk `disk`, for
// the lettered volume `volume`, or -1 for the whole disk.
struct DeviceWindow {
  int disk = -1;
  int volume = -1;
  std::int64_t base = 0;
  std::int64_t length = 0;
};

// One disk's NTFS and BitLocker volumes in table order (no letters; disk 0), and the
// sector size in use: the one given, else a GPT header at 512 or 4096, the bytes per
// sector of a bare volume, an MBR whose volumes are found only at 4096, else 512.
struct ScannedDisk {
  DWORD sector_size = 512;
  std::vector<MappedVolume> volumes;
};
ScannedDisk ScanDisk(const DiskSource& disk);

class DiskMap {
 public:
  DiskMap() = default;
  // Scans the disks in order and letters their volumes: pinned ones first, the rest
  // from C: in disk and table order. A volume whose GUID an earlier one already has
  // (a disk and its clone) gets a new one, as Windows gives a clashing disk a new
  // signature; the same disks in the same order always get the same names. The
  // sources are not kept.
  DiskMap(const std::vector<DiskSource>& disks, const std::vector<LetterPin>& pins);

  const std::vector<MappedVolume>& volumes() const { return volumes_; }
  std::size_t disk_count() const { return disks_.size(); }
  DWORD sector_size(int disk) const;

  // \\.\PhysicalDriveN, \\.\C:, or \\?\Volume{GUID} (\\.\ too; trailing backslash
  // optional). False with the Win32 error.
  bool Resolve(std::wstring_view path, DeviceWindow* device, DWORD* error) const;
  // "C:\" -> "\\?\Volume{GUID}\".
  bool VolumeNameForMountPoint(std::wstring_view mount_point, std::wstring* name, DWORD* error) const;
  // The extents of a volume, and the geometry of the disk under either.
  bool DeviceIoControl(const DeviceWindow& device, DWORD code, void* out, DWORD out_size, DWORD* returned,
                       DWORD* error) const;

 private:
  struct Disk {
    std::int64_t size;
    DWORD sector_size;
  };
  std::vector<Disk> disks_;
  std::vector<MappedVolume> volumes_;
};

// IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS as the volume manager answers it: a buffer
// smaller than the header and one extent is ERROR_INVALID_PARAMETER (nothing written);
// one too small for every extent is ERROR_MORE_DATA with the count filled in and
// *returned the size of that minimum; else every extent, in order.
bool AnswerVolumeDiskExtents(const std::vector<DISK_EXTENT>& extents, void* out, DWORD out_size, DWORD* returned,
                             DWORD* error);

}  // namespace platform
