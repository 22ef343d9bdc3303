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

// Attribute values (offsets from the start of a resident value).

// $STANDARD_INFORMATION.
inline constexpr std::size_t kSiCreationTime = 0;       // u64 FILETIME
inline constexpr std::size_t kSiAlteredTime = 8;        // u64
inline constexpr std::size_t kSiMftChangedTime = 16;    // u64
inline constexpr std::size_t kSiReadTime = 24;          // u64
inline constexpr std::size_t kSiFileAttributes = 32;    // u32, FILE_ATTRIBUTE_*
inline constexpr std::size_t kSiMaxVersions = 36;       // u32
inline constexpr std::size_t kSiVersion = 40;           // u32
inline constexpr std::size_t kSiClassId = 44;           // u32
inline constexpr std::size_t kSiOwnerId = 48;           // u32 (NTFS 3.0 on, as the rest)
inline constexpr std::size_t kSiSecurityId = 52;        // u32
inline constexpr std::size_t kSiQuotaCharged = 56;      // u64
inline constexpr std::size_t kSiUsn = 64;               // u64

// $FILE_NAME.
inline constexpr std::size_t kFnParent = 0;             // u64 file reference
inline constexpr std::size_t kFnParentSequence = 6;     // u16, the reference's top 16 bits
inline constexpr std::size_t kFnCreationTime = 8;       // u64, then altered, MFT changed, read
inline constexpr std::size_t kFnAllocatedSize = 40;     // u64
inline constexpr std::size_t kFnRealSize = 48;          // u64
inline constexpr std::size_t kFnFlags = 56;             // u32, FILE_ATTRIBUTE_*
inline constexpr std::size_t kFnReparseOrEa = 60;       // u32
inline constexpr std::size_t kFnNameLength = 64;        // u8, wide characters
inline constexpr std::size_t kFnNamespace = 65;         // u8: 0 POSIX, 1 Win32, 2 DOS, 3 Win32 & DOS
inline constexpr std::size_t kFnName = 66;              // UTF-16

// $ATTRIBUTE_LIST entry (entries follow each other by their record length).
inline constexpr std::size_t kAlType = 0;               // u32
inline constexpr std::size_t kAlRecordLength = 4;       // u16
inline constexpr std::size_t kAlNameLength = 6;         // u8, wide characters
inline constexpr std::size_t kAlNameOffset = 7;         // u8, from the entry's start
inline constexpr std::size_t kAlStartVcn = 8;           // u64
inline constexpr std::size_t kAlReference = 16;         // u64 file reference of the holding record
inline constexpr std::size_t kAlReferenceSequence = 22; // u16
inline constexpr std::size_t kAlAttributeId = 24;       // u16

// $OBJECT_ID: up to four GUIDs (object, birth volume, birth object, domain).
inline constexpr std::size_t kGuidSize = 16;            // u32, u16, u16, 8 bytes

// $SECURITY_DESCRIPTOR (self-relative).
inline constexpr std::size_t kSdRevision = 0;           // u8
inline constexpr std::size_t kSdControl = 2;            // u16
inline constexpr std::size_t kSdOwnerOffset = 4;        // u32
inline constexpr std::size_t kSdGroupOffset = 8;        // u32

// $VOLUME_INFORMATION.
inline constexpr std::size_t kViReserved = 0;           // u64
inline constexpr std::size_t kViMajorVersion = 8;       // u8
inline constexpr std::size_t kViMinorVersion = 9;       // u8
inline constexpr std::size_t kViFlags = 10;             // u16
inline constexpr std::size_t kViTrailing = 12;          // u32, past the usual 12-byte value

// $EA_INFORMATION.
inline constexpr std::size_t kEiPackedSize = 0;         // u16
inline constexpr std::size_t kEiNeedEaCount = 2;        // u16
inline constexpr std::size_t kEiUnpackedSize = 4;       // u32

// $REPARSE_POINT: a reparse data buffer.
inline constexpr std::size_t kRpTag = 0;                // u32: bits 0-15 number, 31 Microsoft, 29 name surrogate
inline constexpr std::size_t kRpDataLength = 4;         // u16, bytes after offset 8
inline constexpr std::size_t kRpSubstituteOffset = 8;   // u16, bytes into the path buffer
inline constexpr std::size_t kRpSubstituteLength = 10;  // u16, bytes
inline constexpr std::size_t kRpPrintOffset = 12;       // u16
inline constexpr std::size_t kRpPrintLength = 14;       // u16
inline constexpr std::size_t kRpSymlinkFlags = 16;      // u32, symbolic links only
inline constexpr std::size_t kRpMountPointPaths = 16;   // path buffer of a mount point
inline constexpr std::size_t kRpSymlinkPaths = 20;      // path buffer of a symbolic link
inline constexpr std::size_t kRpAppExecVersion = 8;     // u32, application execution links
// Windows Overlay Filter (CompactOS) files: the filter, present on every Windows 10 and
// later, hides this reparse point from directory listings and attribute queries.
inline constexpr std::uint32_t kReparseTagWof = 0x80000017u;
inline constexpr std::size_t kRpAppExecStrings = 12;    // zero-terminated UTF-16 strings
inline constexpr std::uint32_t kRpTagMicrosoft = 0x80000000u;
inline constexpr std::uint32_t kRpTagNameSurrogate = 0x20000000u;
inline constexpr std::uint32_t kRpMountPoint = 3;       // tag numbers (low 16 bits)
inline constexpr std::uint32_t kRpSymlink = 12;
inline constexpr std::uint32_t kRpAppExecLink = 27;

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
// i8: clusters per file record, or when negative a record of 2^-n bytes.
inline constexpr std::size_t kClustersPerFileRecord = 0x40;
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
