// A bare NTFS volume for the hard-link tests, built byte by byte: a boot sector (one
// sector per cluster, the MFT at the first run's cluster, the file-record size),
// record 0 whose $DATA maps the runs given, and file records where a test puts them.
#pragma once

#include <bit>
#include <cstdint>
#include <utility>
#include <vector>

#include "mft/record_fixture.h"
#include "support/disk_image.h"

namespace koru::test {

class ScanVolume {
 public:
  using Runs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // (first cluster, clusters)

  ScanVolume(std::uint32_t sector, std::uint32_t record, std::uint64_t sectors, const Runs& runs)
      : record_(record),
        mft_(std::uint64_t{runs.at(0).first} * sector),
        image_(DiskImage(sectors, sector)
                   .Boot(0, boot::kNtfsOemId, 1, runs[0].first)
                   .Put(boot::kClustersPerFileRecord, 256 - std::countr_zero(record), 1)  // 2^-n bytes
                   .bytes()) {
    std::vector<std::uint8_t> list;
    std::int64_t previous = 0;
    for (const auto& [first, clusters] : runs) {
      list.push_back(0x33);
      for (int i = 0; i < 3; ++i) list.push_back(static_cast<std::uint8_t>(clusters >> (8 * i)));
      const std::int64_t delta = std::int64_t{first} - previous;
      for (int i = 0; i < 3; ++i) list.push_back(static_cast<std::uint8_t>(delta >> (8 * i)));
      previous = first;
    }
    Place(mft_, Header(RecordFixture().NonResident(layout::kData, list).End(), 0, layout::kRecFlagInUse, 1, 0, 1));
  }

  // File record `number` at the byte `offset` of the volume; its header says `number`
  // unless `stated` gives another.
  void Put(std::uint64_t offset, std::uint32_t number, std::uint16_t flags, std::uint16_t links,
           std::uint64_t base = 0, std::uint16_t sequence = 1, std::int64_t stated = -1) {
    Place(offset, Header(RecordFixture().End(), stated < 0 ? number : static_cast<std::uint32_t>(stated), flags, links,
                         base, sequence));
  }
  // Record `number` of an MFT whose first run holds it.
  void PutRecord(std::uint32_t number, std::uint16_t flags, std::uint16_t links, std::uint64_t base = 0,
                 std::uint16_t sequence = 1, std::int64_t stated = -1) {
    Put(mft_ + std::uint64_t{number} * record_, number, flags, links, base, sequence, stated);
  }
  // Gives record `number` the older header (array at 0x2A, no number field).
  void OldLayout(std::uint32_t number) {
    Put16(image_, mft_ + std::uint64_t{number} * record_ + layout::kRecUsaOffset, 0x2A);
    Put32(image_, mft_ + std::uint64_t{number} * record_ + layout::kRecNumber, 0);
  }
  const std::vector<std::byte>& image() const { return image_; }

 private:
  // The record's bytes as on disk, its header filled in.
  static std::vector<std::byte> Header(RecordFixture& r, std::uint32_t number, std::uint16_t flags, std::uint16_t links,
                                       std::uint64_t base, std::uint16_t sequence) {
    Put16(r.bytes(), layout::kRecUsaOffset, layout::kRecUpdateSequenceNumber);
    Put16(r.bytes(), layout::kRecSequence, sequence);
    Put16(r.bytes(), layout::kRecLinkCount, links);
    Put16(r.bytes(), layout::kRecFlags, flags);
    Put64(r.bytes(), layout::kRecBaseRecordLo, base);
    Put32(r.bytes(), layout::kRecNumber, number);
    return r.OnDisk();
  }
  void Place(std::uint64_t offset, const std::vector<std::byte>& bytes) {
    std::copy(bytes.begin(), bytes.end(), image_.begin() + static_cast<std::ptrdiff_t>(offset));
  }

  std::uint32_t record_;
  std::uint64_t mft_;
  std::vector<std::byte> image_;
};

}  // namespace koru::test
