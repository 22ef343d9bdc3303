#include "mft/dump_format.h"

#include <iomanip>
#include <ios>

#include "base/format.h"
#include "base/ntfs_layout.h"
#include "platform/env.h"

namespace koru::dump {

std::wostream& Label(std::wostream& os, std::wstring_view label, const wchar_t* tail, std::size_t width) {
  os << label;
  for (std::size_t n = label.size(); n < width; ++n) os << L' ';
  return os << tail;
}

std::wostream& Hex(std::wostream& os, std::uint64_t value, int width) {
  return os << std::hex << std::setfill(L'0') << std::setw(width) << value << std::dec;
}

void FlagWords(std::wostream& os, std::uint32_t value, std::span<const FlagWord> words) {
  for (const FlagWord& w : words)
    if ((value & w.bit) != 0) os << L' ' << w.word;
}

std::wstring FileTimeText(std::uint64_t file_time) {
  std::wstring text = L"<invalid>";
  platform::SystemTime st{};
  if (file_time == 0 || !platform::Env::Default().FileTimeToSystemTime(file_time, &st)) return text;
  wchar_t buffer[64];
  if (st.wYear > 9999) {
    varnel::FormatFixed(buffer, 64, L"Garbled date [%02u/%02u/%04u %02u:%02u:%02u]", unsigned{st.wDay},
                        unsigned{st.wMonth}, unsigned{st.wYear}, unsigned{st.wHour}, unsigned{st.wMinute},
                        unsigned{st.wSecond});
    return buffer;
  }
  // The text strftime's "%d/%m/%Y %H:%M:%S" gives for these years, in its 20
  // characters, without the C library's limits on years before 1900.
  varnel::FormatFixed(buffer, 20, L"%02u/%02u/%04u %02u:%02u:%02u", unsigned{st.wDay}, unsigned{st.wMonth},
                      unsigned{st.wYear}, unsigned{st.wHour}, unsigned{st.wMinute}, unsigned{st.wSecond});
  return buffer;
}

std::wstring GuidText(Bytes guid) {
  const auto b = [&](std::size_t i) { return unsigned{le8Or0(guid, 8 + i)}; };
  wchar_t buffer[37];
  varnel::FormatFixed(buffer, 37, L"%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", unsigned{le32Or0(guid, 0)},
                      unsigned{le16Or0(guid, 4)}, unsigned{le16Or0(guid, 6)}, b(0), b(1), b(2), b(3), b(4), b(5),
                      b(6), b(7));
  return buffer;
}

void TraceCut(varnel::FnTrace& fn, const wchar_t* what, std::size_t wanted, std::size_t got) {
  const std::wstring text = std::wstring(what) + L" cut short by the end of the record or value: " +
                            std::to_wstring(got) + L" of " + std::to_wstring(wanted) + L" bytes there";
  fn.Message(text.c_str(), varnel::kTraceWarning);
}

varnel::string ReadName(Bytes view, std::size_t offset, std::size_t chars, varnel::FnTrace& fn, const wchar_t* what) {
  const Bytes bytes = Sub(view, offset, 2 * chars);
  if (bytes.size() < 2 * chars) TraceCut(fn, what, 2 * chars, bytes.size());
  std::wstring name;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) name += static_cast<wchar_t>(le16Or0(bytes, i));
  return varnel::string(name.c_str(), name.size());
}

Bytes ResidentValue(Bytes header, varnel::FnTrace& fn) {
  const std::size_t length = le32Or0(header, layout::kAttrValueLength);
  const Bytes value = Sub(header, le16Or0(header, layout::kAttrValueOffset), length);
  if (value.size() < length) TraceCut(fn, L"resident value", length, value.size());
  return value;
}

bool ValueLines::Has(std::size_t offset, std::size_t size, const wchar_t* label) {
  if (!complete_) return false;
  if (Fits(value_.size(), offset, size)) return true;
  complete_ = false;
  const std::wstring reason = std::wstring(L"value of ") + std::to_wstring(value_.size()) + L" bytes ends before " +
                              label;
  fn_.End(reason.c_str(), varnel::kTraceInfo);
  return false;
}

std::uint64_t ValueLines::Load(std::size_t offset, std::size_t size) const {
  switch (size) {
    case 1: return le8Or0(value_, offset);
    case 2: return le16Or0(value_, offset);
    case 4: return le32Or0(value_, offset);
    default: return le64Or0(value_, offset);
  }
}

void ValueLines::Dec(const wchar_t* label, std::size_t offset, std::size_t size) {
  if (Has(offset, size, label)) Label(os_, label) << Load(offset, size) << std::endl;
}

void ValueLines::Hex(const wchar_t* label, std::size_t offset, std::size_t size, int width) {
  if (Has(offset, size, label)) dump::Hex(Label(os_, label, L": 0x"), Load(offset, size), width) << std::endl;
}

void ValueLines::Time(const wchar_t* label, std::size_t offset) {
  if (Has(offset, 8, label)) Label(os_, label) << FileTimeText(Load(offset, 8)) << std::endl;
}

void ValueLines::Flags(const wchar_t* label, std::size_t offset, std::span<const FlagWord> words) {
  if (!Has(offset, 4, label)) return;
  Label(os_, label, L":");
  FlagWords(os_, static_cast<std::uint32_t>(Load(offset, 4)), words);
  os_ << std::endl;
}

void ValueLines::Guid(const wchar_t* label, std::size_t offset) {
  if (Has(offset, layout::kGuidSize, label))
    Label(os_, label, L": {") << GuidText(Sub(value_, offset, layout::kGuidSize)) << L"}" << std::endl;
}

}  // namespace koru::dump
