// What tells the disk image containers apart: their signatures, and the few fields of
// an EnCase (EWF) segment file read to find every segment of a set. The libraries
// behind The Sleuth Kit (libewf, libvhdi, libvmdk) read everything else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/bytes.h"

namespace koru::image {

// The bytes read from each end of a file to recognise it.
inline constexpr std::size_t kProbeSize = 512;

// VHD: a 512-byte footer at the end of the file (a dynamic disk keeps a copy at 0);
// "conectix" at its start.
inline constexpr char kVhdCookie[] = "conectix";
// VHDX: the file type identifier at 0.
inline constexpr char kVhdxSignature[] = "vhdxfile";
// VMDK: a sparse extent header, an ESX COW disk, or a descriptor text file.
inline constexpr char kVmdkSparseMagic[] = "KDMV";
inline constexpr char kVmdkCowdMagic[] = "COWD";
inline constexpr char kVmdkDescriptor[] = "# Disk DescriptorFile";

// EWF version 1 segment file (E01): an 8-byte signature, a 1, the segment number.
inline constexpr char kEwfSignature[] = "EVF\x09\x0D\x0A\xFF";  // and a NUL: 8 bytes
inline constexpr char kEwfLogicalSignature[] = "LVF\x09\x0D\x0A\xFF";  // L01: files, not a disk
inline constexpr char kEwf2Signature[] = "EVF2\x0D\x0A\x81";  // Ex01, and a NUL
inline constexpr std::size_t kEwfSignatureLength = 8;
inline constexpr std::size_t kEwfSegmentNumber = 9;  // u16, from 1
// Each segment ends with a section descriptor whose next-section offset is its own:
// "next" when another segment follows, "done" in the last.
inline constexpr std::size_t kEwfSectionSize = 76;
inline constexpr std::size_t kEwfSectionType = 0;  // 16 bytes, NUL-padded
inline constexpr std::size_t kEwfSectionTypeLength = 16;
inline constexpr std::size_t kEwfSectionNext = 16;  // u64, from the start of the file
inline constexpr char kEwfSectionDone[] = "done";
inline constexpr char kEwfSectionNextSegment[] = "next";

// Formats recognised only to be refused.
inline constexpr char kQcowMagic[] = "QFI\xFB";
inline constexpr std::size_t kVdiSignature = 0x40;  // u32
inline constexpr std::uint32_t kVdiSignatureValue = 0xBEDA107F;

// `text`'s bytes (no terminator) at `offset` of `view`.
template <std::size_t N>
bool HasText(Bytes view, std::size_t offset, const char (&text)[N], std::size_t length = N - 1) {
  const Bytes field = Sub(view, offset, length);
  return field.size() == length && std::memcmp(field.data(), text, length) == 0;
}

}  // namespace koru::image
