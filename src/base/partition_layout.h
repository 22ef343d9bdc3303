// On-disk layout of the partition tables the disk map reads (little-endian; offsets
// in bytes from the start of the structure; LBAs in the disk's sectors).
#pragma once

#include <cstddef>
#include <cstdint>

namespace koru::partition {

// Master boot record, and each extended boot record (EBR) of a logical-partition
// chain, which has the same shape. Read as one 512-byte unit whatever the sector size.
inline constexpr std::size_t kBootRecordSize = 512;
inline constexpr std::size_t kMbrDiskSignature = 0x1B8;  // u32; also read from a bare volume's boot code
inline constexpr std::size_t kMbrEntries = 0x1BE;        // four 16-byte partition entries
inline constexpr std::size_t kMbrEntrySize = 16;
inline constexpr std::size_t kMbrEntryCount = 4;
inline constexpr std::size_t kMbrBootSignature = 0x1FE;  // u16
inline constexpr std::uint16_t kBootSignature = 0xAA55;

// Partition entry.
inline constexpr std::size_t kEntryType = 0x04;      // u8
inline constexpr std::size_t kEntryFirstLba = 0x08;  // u32; MBR: from the disk's start
inline constexpr std::size_t kEntrySectors = 0x0C;   // u32

// An EBR holds the logical partition in entry 0, its first LBA relative to that EBR,
// and the link to the next EBR in entry 1, relative to the extended partition's start.
inline constexpr std::size_t kEbrLogicalEntry = 0;
inline constexpr std::size_t kEbrNextEntry = 1;

inline constexpr std::uint8_t kTypeEmpty = 0x00;
inline constexpr std::uint8_t kTypeExtendedChs = 0x05;
inline constexpr std::uint8_t kTypeExtendedLba = 0x0F;
inline constexpr std::uint8_t kTypeExtendedLinux = 0x85;
inline constexpr std::uint8_t kTypeGptProtective = 0xEE;

// GPT header, at LBA 1.
inline constexpr std::size_t kGptHeaderLba = 1;
inline constexpr std::size_t kGptSignature = 0x00;   // 8 bytes, "EFI PART"
inline constexpr std::size_t kGptEntriesLba = 0x48;  // u64
inline constexpr std::size_t kGptEntryCount = 0x50;  // u32
inline constexpr std::size_t kGptEntrySize = 0x54;   // u32, 128 x 2^n
inline constexpr std::size_t kGptHeaderSize = 0x5C;
inline constexpr char kGptSignatureText[] = "EFI PART";
inline constexpr std::size_t kGptSignatureLength = 8;

// GPT partition entry. A type GUID of zero marks an unused entry.
inline constexpr std::size_t kGptTypeGuid = 0x00;       // 16 bytes
inline constexpr std::size_t kGptPartitionGuid = 0x10;  // 16 bytes: the volume's name on Windows
inline constexpr std::size_t kGptFirstLba = 0x20;       // u64
inline constexpr std::size_t kGptLastLba = 0x28;        // u64, inclusive
inline constexpr std::size_t kGptMinEntrySize = 128;

inline constexpr std::size_t kGuidSize = 16;

}  // namespace koru::partition
