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

  // A resident attribute with a value of `n` zero bytes.
  RecordFixture& Resident(std::uint32_t type, std::size_t n = 8) { return Resident(type, std::vector<std::byte>(n)); }

  // A resident attribute holding `value`, named `name`, with attribute id `id`.
  RecordFixture& Resident(std::uint32_t type, const std::vector<std::byte>& value, const std::u16string& name = u"",
                          std::uint16_t id = 0) {
    const std::size_t value_at = Align8(layout::kResidentHeaderSize + 2 * name.size());
    Begin(type, Align8(value_at + value.size()), name, layout::kResidentHeaderSize);
    Put16(bytes_, last() + layout::kAttrId, id);
    Put32(bytes_, last() + layout::kAttrValueLength, static_cast<std::uint32_t>(value.size()));
    Put16(bytes_, last() + layout::kAttrValueOffset, static_cast<std::uint16_t>(value_at));
    std::copy(value.begin(), value.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(last() + value_at));
    return *this;
  }

  // A non-resident attribute whose run list (given without its closing 0) follows
  // the header; `name` puts a stream name between them.
  RecordFixture& NonResident(std::uint32_t type, const std::vector<std::uint8_t>& runs,
                             const std::u16string& name = u"") {
    const std::size_t runs_at = Align8(layout::kNonResidentHeaderSize + 2 * name.size());
    Begin(type, Align8(runs_at + runs.size() + 1), name, layout::kNonResidentHeaderSize);
    bytes_[last() + layout::kAttrNonResident] = std::byte{1};
    Put16(bytes_, last() + layout::kAttrRunListOffset, static_cast<std::uint16_t>(runs_at));
    for (std::size_t i = 0; i < runs.size(); ++i) bytes_[last() + runs_at + i] = std::byte{runs[i]};
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
  // Where the attribute added last starts, and where each did.
  std::size_t last() const { return starts_.back(); }
  const std::vector<std::size_t>& starts() const { return starts_; }

 private:
  // Starts an attribute of `length` bytes at the next free place, its name at `name_at`.
  void Begin(std::uint32_t type, std::size_t length, const std::u16string& name, std::size_t name_at) {
    starts_.push_back(next_);
    next_ += length;
    Put32(bytes_, last() + layout::kAttrType, type);
    Put32(bytes_, last() + layout::kAttrLength, static_cast<std::uint32_t>(length));
    bytes_[last() + layout::kAttrNameLength] = static_cast<std::byte>(name.size());
    Put16(bytes_, last() + layout::kAttrNameOffset, static_cast<std::uint16_t>(name_at));
    for (std::size_t i = 0; i < name.size(); ++i) Put16(bytes_, last() + name_at + 2 * i, name[i]);
  }

  static std::size_t Align8(std::size_t n) { return (n + 7) & ~std::size_t{7}; }
  std::vector<std::byte> bytes_;
  std::size_t next_ = 0x38;
  std::vector<std::size_t> starts_;
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
inline MFT DiskReader(std::uint32_t sector_size, std::uint64_t mft_sector = 0) {
  MFT mft;
  mft.SetPhysicalDrive(0);
  mft.m_wcDriveLetter = L'C';
  mft.m_dwBytesPerSector = sector_size;
  mft.m_dwSectorsPerCluster = 8;
  mft.m_uiMftSector = mft_sector;
  mft.m_hVolumeHint = platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                                          platform::kOpenExisting, 0);
  return mft;
}

// A disk of `sectors` sectors with `record` at sector `at`.
inline std::vector<std::byte> DiskWith(const std::vector<std::byte>& record, std::size_t at, std::size_t sectors,
                                       std::uint32_t sector_size = 512) {
  std::vector<std::byte> disk(sectors * sector_size);
  std::copy(record.begin(), record.end(), disk.begin() + static_cast<std::ptrdiff_t>(at * sector_size));
  return disk;
}

// The dump of the attribute added last, given the rest of the record as the record
// dump hands it over.
inline std::wstring DumpLast(RecordFixture& r) {
  const Bytes header = Bytes(r.bytes()).subspan(r.last());
  std::wostringstream os;
  if (const auto attribute = Attribute::Factory(header, 8)) attribute->Dump(os, header);
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
  const std::wstring dump = DumpLast(RecordFixture().Resident(type, value));
  const std::size_t at = dump.find(L"Indexed Flag");
  return at == std::wstring::npos ? dump : dump.substr(dump.find(L'\n', at) + 1);
}

}  // namespace koru::test
