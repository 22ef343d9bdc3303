// On-disk layout of NTFS as the library reads it: the boot sector, file records and
// attribute headers (little-endian; offsets in bytes). One place for every offset.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/bytes.h"

namespace koru::layout {

// A file record is read as one 1024-byte unit of two 512-byte halves.
inline constexpr std::size_t kRecordSize = 1024;
using RecordBuffer = std::array<std::byte, kRecordSize>;

// File record header.
inline constexpr std::size_t kRecSignature = 0x00;       // 4 bytes, "FILE"
inline constexpr std::size_t kRecUsaOffset = 0x04;       // u16, printed only
inline constexpr std::size_t kRecUsaCount = 0x06;        // u16, words; 3 for fix-ups to apply
inline constexpr std::size_t kRecLsn = 0x08;             // u64
inline constexpr std::size_t kRecSequence = 0x10;        // u16
inline constexpr std::size_t kRecLinkCount = 0x12;       // u16
inline constexpr std::size_t kRecFirstAttribute = 0x14;  // u16
inline constexpr std::size_t kRecFlags = 0x16;           // u16
inline constexpr std::size_t kRecBytesInUse = 0x18;      // u32
inline constexpr std::size_t kRecBytesAllocated = 0x1C;  // u32
inline constexpr std::size_t kRecBaseRecordLo = 0x20;    // u32
inline constexpr std::size_t kRecBaseRecordHi = 0x24;    // u16
inline constexpr std::size_t kRecBaseSequence = 0x26;    // u16
inline constexpr std::size_t kRecNextAttributeId = 0x28; // u16
inline constexpr std::size_t kRecNumber = 0x2C;          // u32
// The update sequence array is always taken from here, never from kRecUsaOffset.
inline constexpr std::size_t kRecUpdateSequenceNumber = 0x30;  // u16
inline constexpr std::size_t kRecFixUp1 = 0x32;                // u16, true last word of the first half
inline constexpr std::size_t kRecFixUp2 = 0x34;                // u16, true last word of the second half
inline constexpr std::size_t kRecSectorEnd1 = 0x1FE;
inline constexpr std::size_t kRecSectorEnd2 = 0x3FE;

inline constexpr std::uint16_t kRecFlagInUse = 0x0001;
inline constexpr std::uint16_t kRecFlagDirectory = 0x0002;
inline constexpr std::uint16_t kRecFlagExtension = 0x0004;
inline constexpr std::uint16_t kRecFlagSpecialIndex = 0x0008;

// Attribute header, common part.
inline constexpr std::size_t kAttrType = 0x00;         // u32
inline constexpr std::size_t kAttrLength = 0x04;       // u32; walks advance by its low 16 bits
inline constexpr std::size_t kAttrNonResident = 0x08;  // u8
inline constexpr std::size_t kAttrNameLength = 0x09;   // u8, wide characters
inline constexpr std::size_t kAttrNameOffset = 0x0A;   // u16
inline constexpr std::size_t kAttrFlags = 0x0C;        // u16
inline constexpr std::size_t kAttrId = 0x0E;           // u16
// Resident form.
inline constexpr std::size_t kAttrValueLength = 0x10;  // u32
inline constexpr std::size_t kAttrValueOffset = 0x14;  // u16
inline constexpr std::size_t kAttrIndexed = 0x16;      // u8
inline constexpr std::size_t kResidentHeaderSize = 0x18;
// Non-resident form.
inline constexpr std::size_t kAttrStartVcn = 0x10;          // u64
inline constexpr std::size_t kAttrLastVcn = 0x18;           // u64
inline constexpr std::size_t kAttrRunListOffset = 0x20;     // u16
inline constexpr std::size_t kAttrCompressionUnit = 0x22;   // u16
inline constexpr std::size_t kAttrAllocatedSize = 0x28;     // u64
inline constexpr std::size_t kAttrRealSize = 0x30;          // u64
inline constexpr std::size_t kAttrInitializedSize = 0x38;   // u64
inline constexpr std::size_t kNonResidentHeaderSize = 0x40;

inline constexpr std::uint16_t kAttrFlagCompressed = 0x0001;
inline constexpr std::uint16_t kAttrFlagEncrypted = 0x4000;
inline constexpr std::uint16_t kAttrFlagSparse = 0x8000;

// Attribute type codes.
inline constexpr std::uint32_t kStandardInformation = 0x10;
inline constexpr std::uint32_t kAttributeList = 0x20;
inline constexpr std::uint32_t kFileName = 0x30;
inline constexpr std::uint32_t kObjectId = 0x40;
inline constexpr std::uint32_t kSecurityDescriptor = 0x50;
inline constexpr std::uint32_t kVolumeName = 0x60;
inline constexpr std::uint32_t kVolumeInformation = 0x70;
inline constexpr std::uint32_t kData = 0x80;
inline constexpr std::uint32_t kIndexRoot = 0x90;
inline constexpr std::uint32_t kIndexAllocation = 0xA0;
inline constexpr std::uint32_t kBitmap = 0xB0;
inline constexpr std::uint32_t kReparsePoint = 0xC0;
inline constexpr std::uint32_t kEaInformation = 0xD0;
inline constexpr std::uint32_t kEa = 0xE0;
inline constexpr std::uint32_t kLoggedUtilityStream = 0x100;
inline constexpr std::uint32_t kEndOfAttributes = 0xFFFFFFFF;


// $STANDARD_INFORMATION value: the Win32 attribute bits of the file.
inline constexpr std::size_t kSiFileAttributes = 0x20;  // u32

// $FILE_NAME value (the same bytes are the key of a directory index entry).
inline constexpr std::size_t kFnParentReference = 0x00;  // u64: record number (48 bits), sequence (16)
inline constexpr std::size_t kFnNameLength = 0x40;       // u8, UTF-16 units
inline constexpr std::size_t kFnNamespace = 0x41;        // u8
inline constexpr std::size_t kFnName = 0x42;             // UTF-16LE, no terminator

// $FILE_NAME namespaces: a DOS-only name is the 8.3 alias of a longer Win32 name.
inline constexpr std::uint8_t kFnNamespacePosix = 0;
inline constexpr std::uint8_t kFnNamespaceWin32 = 1;
inline constexpr std::uint8_t kFnNamespaceDos = 2;
inline constexpr std::uint8_t kFnNamespaceWin32AndDos = 3;

// File references: the record number in the low 48 bits, the sequence number above.
inline constexpr std::uint64_t kRefRecordMask = 0x0000FFFFFFFFFFFFull;
inline constexpr int kRefSequenceShift = 48;
inline constexpr std::uint64_t kRootDirectoryRecord = 5;
inline constexpr std::uint64_t kUpCaseRecord = 10;

}  // namespace koru::layout

// NTFS boot sector fields the library reads (offsets from the sector's start).
namespace koru::boot {

inline constexpr std::size_t kSize = 512;            // read whatever the disk's sector size
inline constexpr std::size_t kOemId = 0x03;          // 8 bytes: "NTFS    ", "-FVE-FS-" for BitLocker
inline constexpr std::size_t kOemIdLength = 8;
inline constexpr std::size_t kBytesPerSector = 0x0B;  // u16
inline constexpr std::size_t kSectorsPerCluster = 0x0D;  // u8; above 0x80 a negative power of two
inline constexpr std::size_t kMftCluster = 0x30;     // u64 logical cluster of $MFT
inline constexpr std::size_t kClustersPerRecord = 0x40;  // s8; negative: a record is 2^-n bytes
inline constexpr std::size_t kSerialNumber = 0x48;   // u64; Win32 shows its low 32 bits

inline constexpr char kBitLockerOemId[] = "-FVE-FS-";
inline constexpr char kNtfsOemId[] = "NTFS    ";

// Byte comparison of the OEM id with an 8-character signature; a sector too short to
// hold the field never matches.
inline bool HasOemId(Bytes sector, const char (&signature)[kOemIdLength + 1]) {
  const Bytes field = Sub(sector, kOemId, kOemIdLength);
  return field.size() == kOemIdLength && std::memcmp(field.data(), signature, kOemIdLength) == 0;
}

}  // namespace koru::boot
