// MFT::Read: one file record as it lies on the disk (no fix-ups), header field by
// header field, then each attribute in its own layout.
#include <iomanip>
#include <ostream>
#include <string>

#include "base/ntfs_layout.h"
#include "mft/attribute_walk.h"
#include "mft/dump_format.h"
#include "mft/mft.h"
#include "platform/device_io.h"

namespace koru {

using platform::DWORD;
using varnel::FnTrace;

namespace {

constexpr dump::FlagWord kRecordFlags[] = {
    {layout::kRecFlagInUse, L"Record Segment In-Use"},
    {layout::kRecFlagDirectory, L"File Name Index Present"},
    {layout::kRecFlagExtension, L"Record is an Extension"},
    {layout::kRecFlagSpecialIndex, L"Special Index Present"},
};

std::wostream& Field(std::wostream& os, const wchar_t* label, const wchar_t* tail = L": ") {
  return dump::Label(os, label, tail, dump::kRecordLabelWidth);
}

}  // namespace

void WriteRecordDump(std::wostream& os, Bytes record, std::uint64_t sector, DWORD sectors_per_cluster) {
  FnTrace fn(L"WriteRecordDump");
  os.flush();
  os << std::endl;
  os << std::setfill(L'=') << std::setw(140) << L"=" << std::endl;
  // A record is taken as two 512-byte sectors, whatever the disk's sector size.
  Field(os, L"Absolute Sectors") << sector << L" & " << sector + 1 << std::endl;

  std::wstring signature;
  for (std::size_t i = 0; i < 4; ++i)
    signature += static_cast<wchar_t>(static_cast<signed char>(le8Or0(record, layout::kRecSignature + i)));
  varnel::string sSignature(signature.c_str(), signature.size());
  Attribute::SanitizeName(sSignature);
  Field(os, L"Record Signature", L": [") << sSignature.c_str() << L"]" << std::endl;

  const std::uint16_t usa_offset = le16Or0(record, layout::kRecUsaOffset);
  const std::uint16_t usa_count = le16Or0(record, layout::kRecUsaCount);
  Field(os, L"Offset to update sequence array") << usa_offset << std::endl;
  Field(os, L"Size of update sequence array") << usa_count << std::endl;
  Field(os, L"Sequence Number") << le16Or0(record, layout::kRecSequence) << std::endl;
  Field(os, L"Hard-link count") << le16Or0(record, layout::kRecLinkCount) << std::endl;
  Field(os, L"Offset to first attribute") << le16Or0(record, layout::kRecFirstAttribute) << std::endl;
  Field(os, L"Flags", L":");
  dump::FlagWords(os, le16Or0(record, layout::kRecFlags), kRecordFlags);
  os << std::endl;
  Field(os, L"Actual size of MFT entry") << le32Or0(record, layout::kRecBytesInUse) << std::endl;
  Field(os, L"Allocated size of MFT entry") << le32Or0(record, layout::kRecBytesAllocated) << std::endl;
  Field(os, L"Base File Record Segment") << L"Seq=" << le16Or0(record, layout::kRecBaseSequence)
                                         << L", Hi=" << le16Or0(record, layout::kRecBaseRecordHi)
                                         << L", Lo=" << le32Or0(record, layout::kRecBaseRecordLo) << std::endl;
  Field(os, L"Next Attribute Id") << le16Or0(record, layout::kRecNextAttributeId) << std::endl;
  Field(os, L"MFT Record Number") << le32Or0(record, layout::kRecNumber) << std::endl;
  Field(os, L"Update Sequence Number") << le16Or0(record, layout::kRecUpdateSequenceNumber) << std::endl;
  // The size counts words, but one byte is shown per count, as the array has always
  // been shown here.
  Field(os, L"Update Sequence Array", L":");
  for (std::size_t i = 0; i < usa_count; ++i) {
    const auto byte = le8(record, std::size_t{usa_offset} + i);
    if (!byte) {
      dump::TraceCut(fn, L"update sequence array", usa_count, i);
      break;
    }
    dump::Hex(os << L" 0x", *byte, 2);
  }
  os << std::endl;

  AttributeWalk walk(record, sectors_per_cluster, sector);
  while (auto attribute = walk.Next()) attribute->Dump(os, record.subspan(walk.offset()));
  // A record that breaks the walk's bounds must not read as complete.
  if (walk.stopped_on_bounds()) os << std::endl << L"*** " << walk.stop_reason() << L" ***" << std::endl;
}

bool MFT::Read(std::wostream& os) {
  FnTrace fn(L"MFT::Read");
  platform::Env& env = platform::Env::Default();
  if (!platform::IsValid(m_hVolumeHint) && !SetVolumeHintHandle()) {
    fn.End(L"SetVolumeHintHandle() failed", varnel::kTraceError);
    return false;
  }
  DWORD dwLastError = 0;
  if (!OpenDisk(&dwLastError)) {
    fn.Failed(L"... ending(CreateFile() failed)", dwLastError);
    return false;
  }
  RecordBuffer record{};
  const auto read = env.ReadAt(m_hDisk, std::uint64_t{m_dwBytesPerSector} * m_uiMftSector, record.data(),
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
      fn.Failed(L"... ending(ReadFile() failed)", read.error);
      return false;
    case platform::ReadResult::kShortRead:
      fn.End(L"Didn't read the whole MFT record", varnel::kTraceError);
      return false;
  }
  WriteRecordDump(os, Bytes(record), m_uiMftSector, m_dwSectorsPerCluster);
  return true;
}

}  // namespace koru
