// MFT::GetHardLinkList: every in-use base record of a non-directory file with two
// or more links, read straight from the disk, named through the file system.
#include <algorithm>
#include <vector>

#include "hardlinks/link_names.h"
#include "mft/mft.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

namespace {

constexpr std::uint64_t kRecordMask = 0xFFFFFFFFFFFFull;

// How the records lie in the MFT's sector ranges. 512-byte sectors with 1024-byte
// records (and any geometry whose sizes do not divide each other) are read record
// by record through ReadMftRecord, two sectors apart. Otherwise each read takes the
// larger of a sector and a record at a sector boundary, as a raw disk wants it, and
// holds one record or several.
struct Geometry {
  // A record size that is not a power of two from 256 bytes to 64 KiB is taken as 1024.
  Geometry(DWORD sector_bytes, DWORD record_size)
      : sector(sector_bytes),
        record(record_size >= 256 && record_size <= 65536 && (record_size & (record_size - 1)) == 0 ? record_size
                                                                                                     : 1024) {
    paired = sector == 0 || (sector == 512 && record == 1024) || (record % sector != 0 && sector % record != 0);
    unit = paired ? 0 : std::max(sector, record);
  }
  // Records at or after `first` and before `end`.
  std::uint64_t Records(std::uint64_t first, std::uint64_t end) const {
    if (first >= end) return 0;
    const std::uint64_t sectors = end - first;
    if (paired) return 1 + ((sectors - 1) >> 1);
    if (record >= sector) return 1 + (sectors - 1) / (record / sector);
    return sectors * (sector / record);
  }
  DWORD sector, record, unit = 0;
  bool paired = false;
};

// Counts the records and prints each tenth of the way once.
class Progress {
 public:
  Progress(std::wostream& os, std::uint64_t total) : os_(os), total_(total) {}
  void Step() {
    ++processed_;
    const auto percent = static_cast<std::uint8_t>(total_ ? processed_ * 100 / total_ : 0);
    if (percent % 10 == 0 && percent != last_) {
      os_ << L"\t... progress " << unsigned{percent} << L"%" << std::endl;
      last_ = percent;
    }
  }
  std::uint64_t processed() const { return processed_; }

 private:
  std::wostream& os_;
  std::uint64_t total_;
  std::uint64_t processed_ = 0;
  std::uint8_t last_ = 255;
};

}  // namespace

void MFT::GetHardLinkList(HardLinkMap& map, std::wostream& progress) {
  FnTrace fn(L"MFT::GetHardLinkList");
  if (!platform::IsValid(m_hVolumeHint) && !SetVolumeHintHandle()) {
    fn.End(L"SetVolumeHintHandle() failed", varnel::kTraceError);
    return;
  }
  SectorRanges MftSectors;
  if (!GetMftRanges(MftSectors)) {
    // kept as written (no closing parenthesis): the recovery tools match on it
    fn.EndText(L"... ending(GetMftRanges() failed", varnel::kTraceError);
    return;
  }
  const Geometry geometry(m_dwBytesPerSector, m_dwBytesPerFileRecord);
  std::uint64_t uiTotalMftSectors = 0;
  for (const auto& [first, end] : MftSectors) uiTotalMftSectors += geometry.Records(first, end);
  fn.Value(L"MftSectors.size()", MftSectors.size());

  // The header fields tested all lie before the first fixed-up word, so a record
  // read in a larger unit needs no fix-ups.
  // Headers of the older layout (update sequence array at 0x2A, as Windows 2000 and
  // Linux's ntfs3 write them) have no number field: there the key is the record's
  // place in the MFT, which would otherwise name another file or none.
  const auto examine = [&](Bytes record, std::uint64_t uiSectorNo, std::uint64_t place) {
    const std::uint16_t flags = le16Or0(record, layout::kRecFlags);
    const std::uint16_t links = le16Or0(record, layout::kRecLinkCount);
    if ((flags & layout::kRecFlagInUse) == 0 || (flags & layout::kRecFlagDirectory) != 0 || links < 2) return;
    const std::uint64_t record_number = le16Or0(record, layout::kRecUsaOffset) >= layout::kRecUpdateSequenceNumber
                                            ? le32Or0(record, layout::kRecNumber)
                                            : place;
    const std::uint64_t sequence = le16Or0(record, layout::kRecSequence);
    if ((le64Or0(record, layout::kRecBaseRecordLo) & kRecordMask) != 0) {
      fn.Message(L"Record is extension ... skipping", varnel::kTraceVerbose);
      return;
    }
    FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"MFT::GetHardLinkList : Found Hard-Link", L"uiSectorNo",
                     uiSectorNo);
    fn.Value(L"mft.header.HardLinkCount", links, varnel::kTraceVerbose);
    fn.Value(L"FileRef.SequenceNum", sequence, varnel::kTraceVerbose);
    fn.Value(L"FileRef.RecordNum", record_number, varnel::kTraceVerbose);
    varnel::string sFileName;
    if (!GetFileNameFromId(m_hVolumeHint, sequence << 48 | record_number, sFileName)) {
      fn.Message(L"Couldn't find name from id for Base File Record", varnel::kTraceVerbose);
      return;
    }
    fn.Value(L"sFileName", sFileName, varnel::kTraceVerbose);
    map.emplace(record_number, std::move(sFileName));
  };

  Progress counter(progress, uiTotalMftSectors);
  platform::Env& env = platform::Env::Default();
  RecordBuffer record{};
  std::vector<std::byte> unit(geometry.unit);
  for (const auto& [first, end] : MftSectors) {
    fn.Value(L"uiSectorsInRange", end - first + 1);
    const std::uint64_t step = geometry.paired ? 2 : geometry.unit / geometry.sector;
    for (std::uint64_t sector = first; sector < end; sector += step) {
      if (geometry.paired) {
        if (!ReadMftRecord(sector, record)) {
          fn.End(L"ReadMftRecord() failed", varnel::kTraceError);
          return;
        }
        counter.Step();
        examine(Bytes(record), sector, counter.processed() - 1);
        continue;
      }
      platform::ReadResult read;
      read.step = platform::ReadResult::kReadFailed;
      if (OpenDisk(&read.error))
        read = env.ReadAt(m_hDisk, std::uint64_t{geometry.sector} * sector, unit.data(), geometry.unit);
      if (!read.ok()) {
        fn.Value(L"uiSectorNo", sector, varnel::kTraceError);
        fn.Value(L"dwLastError", static_cast<std::int64_t>(read.error), varnel::kTraceError);
        fn.End(L"ReadMftRecord() failed", varnel::kTraceError);
        return;
      }
      for (DWORD at = 0; at < geometry.unit; at += geometry.record) {
        counter.Step();
        examine(Bytes(unit).subspan(at, geometry.record), sector + at / geometry.sector, counter.processed() - 1);
      }
    }
  }
  fn.Value(L"uiProcessedMftSectors", counter.processed());
  fn.Value(L"uiTotalMftSectors", uiTotalMftSectors);
  fn.Value(L"HardLinkListCount", map.size());
}

}  // namespace koru
