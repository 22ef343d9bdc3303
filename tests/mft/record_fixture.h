// Builds MFT file records and small bare NTFS volumes byte by byte, for the record
// reader, walk and range tests. Offsets come from the library's own layout header,
// the expectations in the tests from NTFS itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mft/layout.h"
#include "support/temp_disk.h"

namespace koru::test {

class RecordFixture {
 public:
  explicit RecordFixture(std::uint16_t first_attribute = 0x38) : bytes_(layout::kRecordSize), next_(first_attribute) {
    PutText(bytes_, layout::kRecSignature, "FILE");
    Put16(bytes_, layout::kRecUsaOffset, 0x30);
    Put16(bytes_, layout::kRecUsaCount, 3);
    Put16(bytes_, layout::kRecSequence, 1);
    Put16(bytes_, layout::kRecLinkCount, 1);
    Put16(bytes_, layout::kRecFirstAttribute, first_attribute);
    Put16(bytes_, layout::kRecFlags, layout::kRecFlagInUse);
    Put32(bytes_, layout::kRecBytesAllocated, layout::kRecordSize);
  }

  // A resident attribute with a value of `value_length` zero bytes.
  RecordFixture& Resident(std::uint32_t type, std::uint32_t value_length = 8) {
    const std::uint32_t length = Align8(layout::kResidentHeaderSize + value_length);
    Put32(bytes_, next_ + layout::kAttrType, type);
    Put32(bytes_, next_ + layout::kAttrLength, length);
    Put32(bytes_, next_ + layout::kAttrValueLength, value_length);
    Put16(bytes_, next_ + layout::kAttrValueOffset, layout::kResidentHeaderSize);
    next_ += length;
    return *this;
  }

  // A non-resident attribute whose run list (given without its closing 0) follows
  // the header; `name` puts a stream name between them.
  RecordFixture& NonResident(std::uint32_t type, const std::vector<std::uint8_t>& runs,
                             const std::u16string& name = u"") {
    const std::size_t name_at = layout::kNonResidentHeaderSize;
    const std::size_t runs_at = Align8(static_cast<std::uint32_t>(name_at + 2 * name.size()));
    const std::uint32_t length = Align8(static_cast<std::uint32_t>(runs_at + runs.size() + 1));
    Put32(bytes_, next_ + layout::kAttrType, type);
    Put32(bytes_, next_ + layout::kAttrLength, length);
    bytes_[next_ + layout::kAttrNonResident] = std::byte{1};
    bytes_[next_ + layout::kAttrNameLength] = static_cast<std::byte>(name.size());
    Put16(bytes_, next_ + layout::kAttrNameOffset, static_cast<std::uint16_t>(name_at));
    Put16(bytes_, next_ + layout::kAttrRunListOffset, static_cast<std::uint16_t>(runs_at));
    for (std::size_t i = 0; i < name.size(); ++i) Put16(bytes_, next_ + name_at + 2 * i, name[i]);
    for (std::size_t i = 0; i < runs.size(); ++i) bytes_[next_ + runs_at + i] = std::byte{runs[i]};
    next_ += length;
    return *this;
  }

  // A bare header of `type` and `length` (for hostile records).
  RecordFixture& Raw(std::uint32_t type, std::uint32_t length) {
    Put32(bytes_, next_ + layout::kAttrType, type);
    Put32(bytes_, next_ + layout::kAttrLength, length);
    next_ += length & 0xFFFF;
    return *this;
  }

  RecordFixture& End() {
    Put32(bytes_, next_, layout::kEndOfAttributes);
    Put32(bytes_, layout::kRecBytesInUse, static_cast<std::uint32_t>(next_ + 8));
    return *this;
  }

  // The record as the disk holds it: the last word of each 512-byte half moved into
  // the update sequence array and replaced by the update sequence number.
  std::vector<std::byte> OnDisk(std::uint16_t usn = 0x0001) const {
    std::vector<std::byte> disk = bytes_;
    Put16(disk, layout::kRecUpdateSequenceNumber, usn);
    disk[layout::kRecFixUp1] = bytes_[layout::kRecSectorEnd1];
    disk[layout::kRecFixUp1 + 1] = bytes_[layout::kRecSectorEnd1 + 1];
    disk[layout::kRecFixUp2] = bytes_[layout::kRecSectorEnd2];
    disk[layout::kRecFixUp2 + 1] = bytes_[layout::kRecSectorEnd2 + 1];
    Put16(disk, layout::kRecSectorEnd1, usn);
    Put16(disk, layout::kRecSectorEnd2, usn);
    return disk;
  }

  std::vector<std::byte>& bytes() { return bytes_; }
  std::size_t next() const { return next_; }

 private:
  static std::uint32_t Align8(std::uint32_t n) { return (n + 7) & ~7u; }
  std::vector<std::byte> bytes_;
  std::size_t next_;
};

// A bare NTFS volume (boot sector at 0) of `total_sectors`, whose MFT begins at
// `mft_cluster` and holds `record0` there.
inline std::vector<std::byte> BareVolume(std::uint32_t bytes_per_sector, std::uint8_t sectors_per_cluster_byte,
                                         std::uint64_t mft_cluster, std::uint32_t sectors_per_cluster,
                                         const std::vector<std::byte>& record0, std::uint64_t total_sectors) {
  std::vector<std::byte> v(total_sectors * bytes_per_sector);
  PutText(v, 3, "NTFS    ");
  Put16(v, 0x0B, static_cast<std::uint16_t>(bytes_per_sector));
  v[0x0D] = std::byte{sectors_per_cluster_byte};
  Put64(v, 0x28, total_sectors - 1);
  Put64(v, 0x30, mft_cluster);
  Put64(v, 0x38, 2);
  v[0x40] = std::byte{0xF6};  // 1024-byte records
  v[510] = std::byte{0x55};
  v[511] = std::byte{0xAA};
  const std::size_t at = mft_cluster * sectors_per_cluster * bytes_per_sector;
  if (at + record0.size() <= v.size()) std::copy(record0.begin(), record0.end(), v.begin() + at);
  return v;
}

// `volume` placed at `start_lba` of a disk with one MBR partition of type 7.
inline std::vector<std::byte> MbrDisk(const std::vector<std::byte>& volume, std::uint32_t start_lba,
                                      std::uint32_t sector_size = 512) {
  std::vector<std::byte> disk(std::size_t{start_lba} * sector_size + volume.size());
  Put32(disk, 0x1B8, 0x4B4F5255);  // disk signature
  disk[0x1BE + 4] = std::byte{0x07};
  Put32(disk, 0x1BE + 8, start_lba);
  Put32(disk, 0x1BE + 12, static_cast<std::uint32_t>(volume.size() / sector_size));
  disk[510] = std::byte{0x55};
  disk[511] = std::byte{0xAA};
  std::copy(volume.begin(), volume.end(), disk.begin() + std::size_t{start_lba} * sector_size);
  return disk;
}

}  // namespace koru::test
