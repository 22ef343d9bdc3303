// What the file-level calls on a lettered volume know of NTFS files, apart from how
// the records are read: the names of a file ($FILE_NAME values), paths built by
// walking parent references to the root, and NTFS's case-insensitive name order.
// The volume read by The Sleuth Kit (posix_tsk_volume) feeds it records.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/bytes.h"
#include "platform/env.h"

namespace platform::posix {

// Win32 hands out no longer path, so no name we build may be longer (UTF-16 units).
inline constexpr std::size_t kMaxPathUnits = 32767;

struct FileName {
  std::uint64_t parent = 0;  // record number
  std::uint16_t parent_seq = 0;
  std::uint8_t name_space = 0;
  std::u16string name;
  bool DosOnly() const;
};

// One $FILE_NAME value; nullopt when it is too short for its header or its name.
std::optional<FileName> DecodeFileName(koru::Bytes value);

// What the calls need of one MFT record.
struct FileRecord {
  std::uint64_t record = 0;
  std::uint16_t seq = 0;
  bool in_use = false;
  bool directory = false;        // the record holds a file-name index
  std::uint64_t base_record = 0;  // non-zero: an extension record, not a file
  std::uint32_t attributes = 0;  // Win32 FILE_ATTRIBUTE_* bits, as GetFileAttributesW gives them
  std::int64_t size = 0;         // of the unnamed data stream
  std::vector<FileName> names;   // in attribute order, extension records included; DOS aliases too

  bool IsFile() const { return in_use && base_record == 0; }
  // The name Windows reports for the file: the first one that is not a DOS alias.
  const FileName* PrimaryName() const;
  // Hard links as Win32 counts them: DOS aliases are not links.
  std::uint32_t LinkCount() const;
  std::uint64_t FileIndex() const { return std::uint64_t{seq} << 48 | record; }
};

// The Win32 attribute bits of a file from its $STANDARD_INFORMATION flags and record.
std::uint32_t Win32Attributes(std::uint32_t standard_information_flags, bool directory, bool reparse_point);

class RecordSource {
 public:
  virtual ~RecordSource() = default;
  // False with a Win32 error when the record cannot be read.
  virtual bool Load(std::uint64_t record, FileRecord* out, DWORD* error) = 0;
};

// Volume-relative paths ("\a\b", the root is "") by the parent references of the
// names, checking that each parent is an in-use directory with the sequence number
// the child names. A cycle, a path longer than Win32 allows or a broken parent ends
// with an error. Directory paths are cached.
class PathBuilder {
 public:
  explicit PathBuilder(RecordSource& source) : source_(source) {}
  bool DirectoryPath(std::uint64_t record, std::uint16_t seq, std::u16string* path, DWORD* error);
  bool NamePath(const FileName& name, std::u16string* path, DWORD* error);
  // One path per link (DOS aliases left out), in attribute order.
  bool LinkPaths(const FileRecord& file, std::vector<std::u16string>* paths, DWORD* error);

 private:
  static constexpr std::size_t kMaxCached = 1 << 16;
  RecordSource& source_;
  std::map<std::pair<std::uint64_t, std::uint16_t>, std::u16string> cache_;
};

// NTFS compares names by its $UpCase table: a unit maps to its upper case one.
class UpCase {
 public:
  UpCase();  // ASCII only, until a table is given
  // The volume's $UpCase data (65536 little-endian units); a shorter table covers what it holds.
  explicit UpCase(koru::Bytes table);
  char16_t operator()(char16_t c) const { return c < map_.size() ? map_[c] : c; }
  std::u16string Key(std::u16string_view name) const;
  // DOS wildcards * and ? against a name, without regard to case; "*.*" matches everything.
  bool Matches(std::u16string_view pattern, std::u16string_view name) const;

 private:
  std::vector<char16_t> map_;
};

// UTF-16 to wchar_t (UTF-32 on Linux; a lone surrogate is kept as it is) and back.
std::wstring WideFromUtf16(std::u16string_view text);
std::u16string Utf16FromWide(std::wstring_view text);

}  // namespace platform::posix
