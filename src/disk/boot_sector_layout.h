// NTFS boot sector fields the library reads (offsets from the sector's start).
#pragma once

#include <cstddef>

namespace koru::boot {

inline constexpr std::size_t kSize = 512;            // read whatever the disk's sector size
inline constexpr std::size_t kOemId = 0x03;          // 8 bytes: "NTFS    ", "-FVE-FS-" for BitLocker
inline constexpr std::size_t kOemIdLength = 8;
inline constexpr std::size_t kBytesPerSector = 0x0B;  // u16
inline constexpr std::size_t kSectorsPerCluster = 0x0D;  // u8; above 0x80 a negative power of two
inline constexpr std::size_t kMftCluster = 0x30;     // u64 logical cluster of $MFT

inline constexpr char kBitLockerOemId[] = "-FVE-FS-";
inline constexpr char kNtfsOemId[] = "NTFS    ";

}  // namespace koru::boot
