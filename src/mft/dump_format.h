// The text forms the record and attribute dumps share: labels padded to a column,
// hexadecimal fields, flag words, time stamps, GUIDs, names read from disk, and the
// bounded reading of an attribute's value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <span>
#include <string>

#include "base/bytes.h"
#include "koru_mft/varnel_string.h"
#include "support/fn_trace.h"

namespace koru::dump {

// Attribute lines pad their labels to 36 columns, record-header lines to 33.
inline constexpr std::size_t kAttributeLabelWidth = 36;
inline constexpr std::size_t kRecordLabelWidth = 33;

// `label` blank-padded to `width` columns, then `tail` (": ", ":", ": 0x", ": [", ": {").
std::wostream& Label(std::wostream& os, std::wstring_view label, const wchar_t* tail = L": ",
                     std::size_t width = kAttributeLabelWidth);

// `value` in hexadecimal, at least `width` digits filled with "0". The stream is
// decimal again afterwards; the fill character stays "0".
std::wostream& Hex(std::wostream& os, std::uint64_t value, int width);

struct FlagWord {
  std::uint32_t bit;
  const wchar_t* word;  // written with a blank before it
};
// " word" for every set bit, in the table's order; other bits write nothing.
void FlagWords(std::wostream& os, std::uint32_t value, std::span<const FlagWord> words);

// An NTFS time (FILETIME, UTC): "dd/mm/yyyy hh:mm:ss", "<invalid>" for 0 or a value
// the system cannot convert, "Garbled date [...]" past the year 9999.
std::wstring FileTimeText(std::uint64_t file_time);

// 16 bytes as a GUID, lower case, 8-4-4-4-12.
std::wstring GuidText(Bytes guid);

// `chars` UTF-16 units from `offset`, one wide character each. What lies past the
// view's end is left out and traced under `fn`.
varnel::string ReadName(Bytes view, std::size_t offset, std::size_t chars, varnel::FnTrace& fn, const wchar_t* what);

// Traces that a field was cut by the end of its buffer (the record or the value).
void TraceCut(varnel::FnTrace& fn, const wchar_t* what, std::size_t wanted, std::size_t got);

// The resident value of an attribute: the value-length bytes at the value offset,
// as far as `header` holds them (a value reaching past it is traced and cut).
Bytes ResidentValue(Bytes header, varnel::FnTrace& fn);

// Writes the lines of a value's fixed fields while the value holds them. The first
// field that lies past the value's end ends the body: it is traced, and every line
// after it is left out, so a short value never shows bytes that are not its own.
class ValueLines {
 public:
  ValueLines(std::wostream& os, Bytes value, varnel::FnTrace& fn) : os_(os), value_(value), fn_(fn) {}

  // True when [offset, offset + size) lies in the value and no earlier field was missing.
  bool Has(std::size_t offset, std::size_t size, const wchar_t* label);
  // Little-endian field of 1, 2, 4 or 8 bytes (0 when absent).
  std::uint64_t Load(std::size_t offset, std::size_t size) const;

  void Dec(const wchar_t* label, std::size_t offset, std::size_t size);
  void Hex(const wchar_t* label, std::size_t offset, std::size_t size, int width);
  void Time(const wchar_t* label, std::size_t offset);
  void Flags(const wchar_t* label, std::size_t offset, std::span<const FlagWord> words);
  void Guid(const wchar_t* label, std::size_t offset);

  bool complete() const { return complete_; }

 private:
  std::wostream& os_;
  Bytes value_;
  varnel::FnTrace& fn_;
  bool complete_ = true;
};

}  // namespace koru::dump
