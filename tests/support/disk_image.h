// Disk images built field by field for the disk, platform and API tests: NTFS and
// BitLocker boot sectors, MBR and EBR entries, a GPT header and its entries.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/ntfs_layout.h"
#include "base/partition_layout.h"
#include "support/temp_disk.h"

namespace koru::test {

class DiskImage {
 public:
  explicit DiskImage(std::uint64_t sectors, std::uint32_t sector_size = 512)
      : bytes_(sectors * sector_size), sector_(sector_size) {}

  // A boot sector at `lba`; its bytes per sector are the disk's unless given.
  DiskImage& Boot(std::uint64_t lba, const char* oem = boot::kNtfsOemId, std::uint8_t sectors_per_cluster = 8,
                  std::uint64_t mft_cluster = 4, std::uint16_t bytes_per_sector = 0) {
    const std::size_t at = lba * sector_;
    PutText(bytes_, at + boot::kOemId, oem);
    Put16(bytes_, at + boot::kBytesPerSector, bytes_per_sector ? bytes_per_sector : static_cast<std::uint16_t>(sector_));
    bytes_.at(at + boot::kSectorsPerCluster) = std::byte{sectors_per_cluster};
    Put64(bytes_, at + boot::kMftCluster, mft_cluster);
    Put16(bytes_, at + partition::kMbrBootSignature, partition::kBootSignature);
    return *this;
  }
  // Up to one sector of `sector` (a real boot sector, say) at `lba`.
  DiskImage& Place(std::uint64_t lba, const std::vector<std::byte>& sector) {
    std::copy_n(sector.begin(), std::min<std::size_t>(sector.size(), sector_), bytes_.begin() + lba * sector_);
    return *this;
  }
  // Entry `slot` of the MBR (`table_lba` 0) or of the EBR at `table_lba`.
  DiskImage& Entry(std::uint64_t table_lba, std::size_t slot, std::uint8_t type, std::uint32_t first,
                   std::uint32_t count) {
    const std::size_t table = table_lba * sector_, at = table + partition::kMbrEntries + slot * partition::kMbrEntrySize;
    bytes_.at(at + partition::kEntryType) = std::byte{type};
    Put32(bytes_, at + partition::kEntryFirstLba, first);
    Put32(bytes_, at + partition::kEntrySectors, count);
    Put16(bytes_, table + partition::kMbrBootSignature, partition::kBootSignature);
    return *this;
  }
  // A protective MBR and a GPT header listing `count` entries of `entry_size` bytes
  // from `entries_lba`. Checksums stay zero: nothing here reads them.
  DiskImage& Gpt(std::uint32_t count = 128, std::uint32_t entry_size = 128, std::uint64_t entries_lba = 2) {
    Entry(0, 0, partition::kTypeGptProtective, 1, static_cast<std::uint32_t>(bytes_.size() / sector_ - 1));
    const std::size_t header = partition::kGptHeaderLba * sector_;
    PutText(bytes_, header + partition::kGptSignature, partition::kGptSignatureText);
    Put64(bytes_, header + partition::kGptEntriesLba, entries_lba);
    Put32(bytes_, header + partition::kGptEntryCount, count);
    Put32(bytes_, header + partition::kGptEntrySize, entry_size);
    entries_ = entries_lba * sector_;
    entry_size_ = entry_size;
    return *this;
  }
  // Entry `index` of the GPT: sectors [first, last]; its partition GUID's bytes count
  // up from `guid_seed`.
  DiskImage& GptEntry(std::size_t index, std::uint64_t first, std::uint64_t last, std::uint8_t guid_seed) {
    const std::size_t at = entries_ + index * entry_size_;
    for (std::size_t b = 0; b < partition::kGuidSize; ++b) {
      bytes_.at(at + partition::kGptTypeGuid + b) = std::byte{0xA2};
      bytes_.at(at + partition::kGptPartitionGuid + b) = static_cast<std::byte>(guid_seed + b);
    }
    Put64(bytes_, at + partition::kGptFirstLba, first);
    Put64(bytes_, at + partition::kGptLastLba, last);
    return *this;
  }
  // Any other field, at a byte offset.
  DiskImage& Put(std::size_t at, std::uint64_t value, int bytes) {
    PutLe(bytes_, at, value, bytes);
    return *this;
  }

  const std::vector<std::byte>& bytes() const { return bytes_; }
  operator const std::vector<std::byte>&() const { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
  std::size_t sector_;
  std::size_t entries_ = 0;
  std::size_t entry_size_ = 128;
};

}  // namespace koru::test
