// Builds MFT file records byte by byte for the record reader, walk and range tests.
// Offsets come from the library's own layout header, the expectations in the tests
// from NTFS itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ntfs_layout.h"
#include "mft/attribute.h"
#include "mft/mft.h"
#include "support/temp_disk.h"

namespace koru::test {

// Attributes are appended from 0x38 on; the reader looks at no other header field.
class RecordFixture {
 public:
  RecordFixture() : bytes_(layout::kRecordSize) {
    PutText(bytes_, layout::kRecSignature, "FILE");
    Put16(bytes_, layout::kRecUsaCount, 3);
    Put16(bytes_, layout::kRecFirstAttribute, 0x38);
  }

  // A resident attribute with a value of `value_length` zero bytes.
  RecordFixture& Resident(std::uint32_t type, std::size_t value_length = 8) {
    return Resident(type, std::vector<std::byte>(value_length));
  }

  // A resident attribute holding `value`, named `name`, with attribute id `id`.
  RecordFixture& Resident(std::uint32_t type, const std::vector<std::byte>& value, const std::u16string& name = u"",
                          std::uint16_t id = 0) {
    const std::size_t value_at = Align8(static_cast<std::uint32_t>(layout::kResidentHeaderSize + 2 * name.size()));
    const std::uint32_t length = Align8(static_cast<std::uint32_t>(value_at + value.size()));
    last_ = next_;
    Put32(bytes_, next_ + layout::kAttrType, type);
    Put32(bytes_, next_ + layout::kAttrLength, length);
    Name(name, layout::kResidentHeaderSize);
    Put16(bytes_, next_ + layout::kAttrId, id);
    Put32(bytes_, next_ + layout::kAttrValueLength, static_cast<std::uint32_t>(value.size()));
    Put16(bytes_, next_ + layout::kAttrValueOffset, static_cast<std::uint16_t>(value_at));
    std::copy(value.begin(), value.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(next_ + value_at));
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
    last_ = next_;
    Put32(bytes_, next_ + layout::kAttrType, type);
    Put32(bytes_, next_ + layout::kAttrLength, length);
    bytes_[next_ + layout::kAttrNonResident] = std::byte{1};
    Name(name, name_at);
    Put16(bytes_, next_ + layout::kAttrRunListOffset, static_cast<std::uint16_t>(runs_at));
    for (std::size_t i = 0; i < runs.size(); ++i) bytes_[next_ + runs_at + i] = std::byte{runs[i]};
    next_ += length;
    return *this;
  }

  RecordFixture& End() {
    Put32(bytes_, next_, layout::kEndOfAttributes);
    return *this;
  }

  // The record as the disk holds it: the last word of each 512-byte half moved into
  // the update sequence array and replaced by the update sequence number.
  std::vector<std::byte> OnDisk(std::uint16_t usn = 0x0001) const {
    std::vector<std::byte> disk = bytes_;
    Put16(disk, layout::kRecUpdateSequenceNumber, usn);
    std::copy_n(bytes_.begin() + layout::kRecSectorEnd1, 2, disk.begin() + layout::kRecFixUp1);
    std::copy_n(bytes_.begin() + layout::kRecSectorEnd2, 2, disk.begin() + layout::kRecFixUp2);
    Put16(disk, layout::kRecSectorEnd1, usn);
    Put16(disk, layout::kRecSectorEnd2, usn);
    return disk;
  }

  std::vector<std::byte>& bytes() { return bytes_; }
  // Where the attribute added last starts.
  std::size_t last() const { return last_; }

 private:
  void Name(const std::u16string& name, std::size_t at) {
    bytes_[next_ + layout::kAttrNameLength] = static_cast<std::byte>(name.size());
    Put16(bytes_, next_ + layout::kAttrNameOffset, static_cast<std::uint16_t>(at));
    for (std::size_t i = 0; i < name.size(); ++i) Put16(bytes_, next_ + at + 2 * i, name[i]);
  }

  static std::uint32_t Align8(std::uint32_t n) { return (n + 7) & ~7u; }
  std::vector<std::byte> bytes_;
  std::size_t next_ = 0x38;
  std::size_t last_ = 0x38;
};

// An attribute value built field by field.
struct Value {
  explicit Value(std::size_t size) : bytes(size) {}
  Value& u8(std::size_t at, std::uint8_t v) { return bytes.at(at) = std::byte{v}, *this; }
  Value& u16(std::size_t at, std::uint16_t v) { return Put16(bytes, at, v), *this; }
  Value& u32(std::size_t at, std::uint32_t v) { return Put32(bytes, at, v), *this; }
  Value& u64(std::size_t at, std::uint64_t v) { return Put64(bytes, at, v), *this; }
  Value& text(std::size_t at, std::u16string_view t) {
    for (std::size_t i = 0; i < t.size(); ++i) u16(at + 2 * i, t[i]);
    return *this;
  }
  std::vector<std::byte> bytes;
};

// A reader of \\.\PhysicalDrive0 as drive C:, 8 sectors to a cluster; the disk stands
// in for the volume hint, as the images here have no lettered volume.
inline platform::HANDLE OpenDisk() {
  return platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                              platform::kOpenExisting, 0);
}
inline MFT DiskReader(std::uint32_t sector_size, std::uint64_t mft_sector = 0, bool hint = true) {
  MFT mft;
  mft.SetPhysicalDrive(0);
  mft.m_wcDriveLetter = L'C';
  mft.m_dwBytesPerSector = sector_size;
  mft.m_dwSectorsPerCluster = 8;
  mft.m_uiMftSector = mft_sector;
  if (hint) mft.m_hVolumeHint = OpenDisk();
  return mft;
}

// The dump of the attribute added last, given the rest of the record as the record
// dump hands it over.
inline std::wstring DumpLast(RecordFixture& r) {
  const Bytes header = Bytes(r.bytes()).subspan(r.last());
  std::wostringstream os;
  const auto attribute = Attribute::Factory(header, 8);
  if (attribute) attribute->Dump(os, header);
  return os.str();
}

// Dump lines "label: value", the labels padded to the dump's column; an empty value
// leaves the colon last.
using Field = std::pair<const wchar_t*, std::wstring>;
inline std::wstring Fields(std::initializer_list<Field> fields, std::size_t width = 36) {
  std::wstring out;
  for (const auto& [label, value] : fields) {
    std::wstring line = label;
    line.resize(width, L' ');
    out += line + (value.empty() ? L":" : L": " + value) + L"\n";
  }
  return out;
}

// What a resident attribute's dump writes after its common block.
inline std::wstring Body(std::uint32_t type, const std::vector<std::byte>& value) {
  RecordFixture r;
  r.Resident(type, value);
  const std::wstring dump = DumpLast(r);
  const std::size_t at = dump.find(L"Indexed Flag");
  return at == std::wstring::npos ? dump : dump.substr(dump.find(L'\n', at) + 1);
}

}  // namespace koru::test
