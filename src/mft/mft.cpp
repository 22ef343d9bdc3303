#include "mft/mft.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "mft/attribute_walk.h"
#include "platform/device_io.h"
#include "support/fn_trace.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

void MFT::SetPhysicalDrive(DWORD disk) {
  const platform::DrivePath path = platform::PhysicalDrivePath(disk);
  std::copy(std::begin(path.text), std::end(path.text), m_wszPhysicalDrive);
}

bool MFT::OpenDisk(DWORD* error) {
  if (platform::IsValid(m_hDisk)) return true;
  platform::Env& env = platform::Env::Default();
  platform::HANDLE h = platform::OpenForRead(env, m_wszPhysicalDrive);
  if (h != m_hDisk && platform::IsValid(m_hDisk)) env.CloseHandle(m_hDisk);
  m_hDisk = h;
  if (platform::IsValid(m_hDisk)) return true;
  *error = env.GetLastError();
  return false;
}

bool MFT::SetVolumeHintHandle() {
  FnTrace fn(L"MFT::SetVolumeHintHandle");
  if (platform::IsValid(m_hVolumeHint)) {
    fn.End(L"already set");
    return true;
  }
  platform::Env& env = platform::Env::Default();
  const wchar_t sVolume[] = {L'\\', L'\\', L'.', L'\\', m_wcDriveLetter, L':', 0};
  fn.Value(L"sVolume", sVolume);
  platform::HANDLE h = platform::OpenForRead(env, sVolume);
  if (h != m_hVolumeHint && platform::IsValid(m_hVolumeHint)) env.CloseHandle(m_hVolumeHint);
  m_hVolumeHint = h;
  if (platform::IsValid(m_hVolumeHint)) return true;
  const DWORD dwLastError = env.GetLastError();
  fn.Value(L"sVolume", sVolume);
  // kept as written (capitalisation, stray parenthesis): the recovery tools match on it
  fn.Failed(L"Createfile() failed)", dwLastError);
  return false;
}

bool MFT::ReadMftRecord(std::uint64_t uiSectorNo, RecordBuffer& record) {
  FnTrace fn(L"MFT::ReadMftRecord");
  fn.Value(L"uiSectorNo", uiSectorNo, varnel::kTraceVerbose);
  platform::Env& env = platform::Env::Default();

  // The hint handle is opened first so the volume stays open for open-by-id later.
  if (!platform::IsValid(m_hVolumeHint) && !SetVolumeHintHandle()) {
    fn.End(L"SetVolumeHintHandle() failed", varnel::kTraceError);
    return false;
  }
  DWORD dwLastError = 0;
  if (!OpenDisk(&dwLastError)) {
    fn.Value(L"m_wszPhysicalDrive", m_wszPhysicalDrive, varnel::kTraceError);
    // kept as written ("CreateFie"): the recovery tools match on it
    fn.Failed(L"... ending(CreateFie() failed)", dwLastError);
    return false;
  }

  const auto read = env.ReadAt(m_hDisk, std::uint64_t{m_dwBytesPerSector} * uiSectorNo, record.data(),
                               static_cast<DWORD>(record.size()));
  switch (read.step) {
    case platform::ReadResult::kOk: break;
    case platform::ReadResult::kSeekFailed:
      fn.Failed(L"... ending(SetFilePointerEx() failed)", read.error);
      return false;
    case platform::ReadResult::kSeekElsewhere:
      fn.End(L"SetFilePointerEx() failed to seek to requested offset", varnel::kTraceError);
      return false;
    case platform::ReadResult::kReadFailed:
      fn.Value(L"dwLastError", static_cast<std::int64_t>(read.error), varnel::kTraceError);
      fn.Value(L"uiSectorNo", uiSectorNo, varnel::kTraceError);
      fn.End(L"ReadFile() failed", varnel::kTraceError);
      return false;
    case platform::ReadResult::kShortRead:
      fn.End(L"Didn't read the whole MFT record", varnel::kTraceError);
      return false;
  }

  const MutableBytes bytes(record);
  const std::uint16_t usa_count = le16Or0(bytes, layout::kRecUsaCount);
  if (usa_count == 0) {
    fn.Message(L"Update Sequence Array Size zero", varnel::kTraceVerbose);
  } else if (usa_count == 3) {
    const std::uint16_t usn = le16Or0(bytes, layout::kRecUpdateSequenceNumber);
    if (le16Or0(bytes, layout::kRecSectorEnd1) == usn && le16Or0(bytes, layout::kRecSectorEnd2) == usn) {
      const std::uint16_t fixup1 = le16Or0(bytes, layout::kRecFixUp1);
      const std::uint16_t fixup2 = le16Or0(bytes, layout::kRecFixUp2);
      // Through ValueOf: a record read at the default level builds no trace text.
      FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"MFT::ReadMftRecord : Found USN",
                       L"mft.header.UpdateSequenceNumber", usn);
      FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"MFT::ReadMftRecord : Found FixUp1",
                       L"mft.header.FixUp1", fixup1);
      FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"MFT::ReadMftRecord : Found FixUp2",
                       L"mft.header.FixUp2", fixup2);
      StoreLe16(bytes, layout::kRecSectorEnd1, fixup1);
      StoreLe16(bytes, layout::kRecSectorEnd2, fixup2);
    }
  } else {
    fn.trace().Trace(varnel::kTraceWarning, L"MFT::ReadMftRecord : Unexpected Update Sequence Array Size",
                     L"mft.header.MultiSectorHeader.UpdateSequenceArraySize", std::uint64_t{usa_count});
  }
  return true;
}

bool MFT::GetMftRanges(SectorRanges& ranges) {
  FnTrace fn(L"MFT::GetMftRanges");
  fn.Value(L"m_uiMftSector", m_uiMftSector);
  RecordBuffer record{};
  if (!ReadMftRecord(m_uiMftSector, record)) {
    fn.End(L"ReadMftRecord() failed", varnel::kTraceError);
    return false;
  }
  bool failed = false;
  AttributeWalk walk(Bytes(record), m_dwSectorsPerCluster, m_uiMftSector);
  while (auto attribute = walk.Next()) {
    if (!attribute->IsData()) continue;
    auto* data = dynamic_cast<DATA_Attribute*>(attribute.get());
    if (data == nullptr || !data->GetSectorRange(walk.current(), ranges)) {
      fn.End(L"DATA_Attribute::GetSectorRange() failed", varnel::kTraceError);
      failed = true;
    }
  }
  // A walk the record's bounds stopped may have missed $DATA runs: not a whole map.
  if (walk.stopped_on_bounds()) {
    fn.End(L"attribute walk stopped on the record's bounds", varnel::kTraceError);
    return false;
  }
  if (failed) return false;
  for (auto& range : ranges) {
    range.first += m_uiVolumeStartSector;
    range.second += m_uiVolumeStartSector;
    fn.Value(L"MftRange.first", range.first);
    fn.Value(L"MftRange.second", range.second);
  }
  return true;
}

void MFT::CloseHandles() {
  platform::Env& env = platform::Env::Default();
  if (platform::IsValid(m_hDisk)) env.CloseHandle(m_hDisk);
  if (platform::IsValid(m_hVolumeHint)) env.CloseHandle(m_hVolumeHint);
  m_hDisk = platform::InvalidHandle();
  m_hVolumeHint = platform::InvalidHandle();
}

}  // namespace koru
