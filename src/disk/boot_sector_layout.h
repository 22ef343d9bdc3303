// NTFS boot sector fields the library reads (offsets from the sector's start).
#pragma once

#include <cstddef>
#include <cstring>

#include "support/bytes.h"

namespace koru::boot {

inline constexpr std::size_t kSize = 512;            // read whatever the disk's sector size
inline constexpr std::size_t kOemId = 0x03;          // 8 bytes: "NTFS    ", "-FVE-FS-" for BitLocker
inline constexpr std::size_t kOemIdLength = 8;
inline constexpr std::size_t kBytesPerSector = 0x0B;  // u16
inline constexpr std::size_t kSectorsPerCluster = 0x0D;  // u8; above 0x80 a negative power of two
inline constexpr std::size_t kMftCluster = 0x30;     // u64 logical cluster of $MFT

inline constexpr char kBitLockerOemId[] = "-FVE-FS-";
inline constexpr char kNtfsOemId[] = "NTFS    ";

// Byte comparison of the OEM id with an 8-character signature; a sector too short to
// hold the field never matches.
inline bool HasOemId(Bytes sector, const char (&signature)[kOemIdLength + 1]) {
  const Bytes field = Sub(sector, kOemId, kOemIdLength);
  return field.size() == kOemIdLength && std::memcmp(field.data(), signature, kOemIdLength) == 0;
}

}  // namespace koru::boot
