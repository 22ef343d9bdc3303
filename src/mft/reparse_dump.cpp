// The record dump's text of a $REPARSE_POINT: tag, flags, length and, for the
// Microsoft symbolic links, mount points and application execution links, their names.
#include <map>
#include <ostream>
#include <string>

#include "base/ntfs_layout.h"
#include "mft/attribute.h"
#include "mft/dump_format.h"

namespace koru {

using dump::Label;
using varnel::FnTrace;

namespace {

// Keyed by the tag number alone, so tags that differ only in their high bits share a name.
const std::map<std::uint32_t, const wchar_t*>& TagNames() {
  static const std::map<std::uint32_t, const wchar_t*> names = {
      {3, L"Mount-Point"},
      {4, L"Hierarchical Storage Management (HSM)"},
      {5, L"Drive Extender"},
      {6, L"Hierarchical Storage Management (HSM2)"},
      {7, L"Single Instancve Storage (SIS)"},  // kept as written: the recovery tools match on it
      {8, L"Used by WIM mount filter"},
      {9, L"Clustered Shared Volumes (CSV)"},
      {10, L"Distributed File System (DFS)"},
      {11, L"Filter Manager"},
      {12, L"Symbolic-Link"},
      {18, L"Distributed File System (DFSR)"},
      {19, L"Data Deduplication"},
      {20, L"Network File System (NFS)"},
      {21, L"OneDrive - File Placeholder"},
      {22, L"Distributed FileManager (DFM)"},
      {23, L"Windows Overlay Filter (WOF)"},
      {24, L"Windows Container Image (WCI)"},
      {27, L"Apple Exec Link"},  // kept as written: the recovery tools match on it
      {30, L"Storage Sync"},
      {32, L"Unhandled"},
      {33, L"OneDrive"},
      {35, L"AF Unix"},
  };
  return names;
}

// The zero-terminated UTF-16 string at `at`, which moves past its terminator; a
// string cut by the end of the value ends there.
varnel::string NextString(Bytes value, std::size_t& at) {
  std::wstring text;
  for (; at + 1 < value.size(); at += 2) {
    const std::uint16_t c = le16Or0(value, at);
    if (c == 0) {
      at += 2;
      break;
    }
    text += static_cast<wchar_t>(c);
  }
  if (at + 1 >= value.size()) at = value.size();
  varnel::string s(text.c_str(), text.size());
  Attribute::SanitizeName(s);
  return s;
}

void DumpAppExecLink(std::wostream& os, Bytes value) {
  Label(os, L"Version") << le32Or0(value, layout::kRpAppExecVersion) << std::endl;
  std::size_t at = layout::kRpAppExecStrings;
  const varnel::string package = NextString(value, at);
  const varnel::string entry = NextString(value, at);
  const varnel::string executable = NextString(value, at);
  const varnel::string type = NextString(value, at);
  Label(os, L"Package Id", L": [") << package.c_str() << L"]" << std::endl;
  Label(os, L"Entry Point", L": [") << entry.c_str() << L"]" << std::endl;
  Label(os, L"Executable", L": [") << executable.c_str() << std::endl;  // no closing bracket, as written
  Label(os, L"Application Type") << (type == L"0" ? L"Desktop" : type.c_str()) << std::endl;
}

// The characters at positions [start, end) of the path buffer, stopping early at
// `stop`; positions past the value's end are not there to take.
std::wstring PathChars(Bytes paths, std::uint64_t start, std::uint64_t end, std::uint64_t stop, FnTrace& fn,
                       const wchar_t* trace_name) {
  std::wstring text;
  for (std::uint64_t i = start; i < end && i < stop; ++i) {
    const auto c = le16(paths, 2 * i);
    if (!c) {
      dump::TraceCut(fn, L"reparse name", 2 * (end - start), 2 * (i - start));
      break;
    }
    fn.Value(trace_name, static_cast<wchar_t>(*c), varnel::kTraceVerbose);
    text += static_cast<wchar_t>(*c);
  }
  return text;
}

void DumpLinkNames(std::wostream& os, Bytes value, bool symlink, FnTrace& fn) {
  const std::uint64_t data_length = le16Or0(value, layout::kRpDataLength);
  const std::uint64_t print_offset = le16Or0(value, layout::kRpPrintOffset);
  const std::uint64_t substitute_offset = le16Or0(value, layout::kRpSubstituteOffset);
  const std::uint64_t uiPrintNameStart = print_offset / 2;
  const std::uint64_t uiPrintNameEnd = (print_offset + le16Or0(value, layout::kRpPrintLength)) / 2;
  const std::uint64_t uiSubstituteNameStart = substitute_offset / 2;
  const std::uint64_t uiSubstituteNameEnd = (substitute_offset + le16Or0(value, layout::kRpSubstituteLength)) / 2;
  // A byte count used as a bound on character positions, as the format's users do.
  const std::uint64_t uiHardEnd = data_length - (symlink ? 12 : 8);
  fn.Value(L"uiPrintNameStart", uiPrintNameStart, varnel::kTraceVerbose);
  fn.Value(L"uiPrintNameEnd", uiPrintNameEnd, varnel::kTraceVerbose);
  fn.Value(L"uiSubstituteNameStart", uiSubstituteNameStart, varnel::kTraceVerbose);
  fn.Value(L"uiSubstituteNameEnd", uiSubstituteNameEnd, varnel::kTraceVerbose);
  fn.Value(L"uiHardEnd", uiHardEnd, varnel::kTraceVerbose);

  const Bytes paths = Sub(value, symlink ? layout::kRpSymlinkPaths : layout::kRpMountPointPaths, value.size());
  const wchar_t* char_name = symlink ? L"pSymLink->Paths[i]" : L"pVolLink->Paths[i]";
  // The print name stops where the substitute name starts: when the substitute name
  // comes first, as it usually does, the print name is empty.
  const std::wstring sPrintName =
      PathChars(paths, uiPrintNameStart, uiPrintNameEnd, uiSubstituteNameStart, fn, char_name);
  fn.Value(L"sPrintName", sPrintName, varnel::kTraceVerbose);
  const std::wstring substitute = PathChars(paths, uiSubstituteNameStart, uiSubstituteNameEnd, uiHardEnd, fn, char_name);
  Label(os, L"Print Name", L": [") << sPrintName << L"]" << std::endl;
  Label(os, L"Substitute Name", L": [") << substitute << L"]" << std::endl;
  if (symlink)
    Label(os, L"Flags", L": 0x") << std::hex << le32Or0(value, layout::kRpSymlinkFlags) << std::dec << std::endl;
}

}  // namespace

bool REPARSE_POINT_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"REPARSE_POINT_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kReparsePoint)) return false;
  const auto value = BodyValue(header, fn, layout::kReparsePoint);
  if (!value) return true;
  if (value->size() < layout::kRpSubstituteOffset) {
    fn.End(L"value too short for a reparse tag and length", varnel::kTraceWarning);
    return true;
  }

  const std::uint32_t tag = le32Or0(*value, layout::kRpTag);
  const std::uint32_t number = tag & 0xFFFF;
  dump::Hex(Label(os, L"Reparse Type", L": 0x"), number, 2) << L" ";
  const auto& names = TagNames();
  if (const auto it = names.find(number); it != names.end())
    os << it->second;
  else
    dump::Hex(os, number, 4);
  os << std::endl;
  Label(os, L"Reparse Flags", L":");
  if ((tag & layout::kRpTagMicrosoft) != 0) os << L" Microsoft";
  if ((tag & layout::kRpTagNameSurrogate) != 0) os << L" Name-Surrogate";
  os << std::endl;
  const std::uint16_t length = le16Or0(*value, layout::kRpDataLength);
  fn.Value(L"pReparsePoint->ReparseDataLength", length, varnel::kTraceVerbose);
  Label(os, L"Reparse Data Length") << length << std::endl;

  if ((tag & layout::kRpTagMicrosoft) == 0) return true;
  switch (number) {
    case layout::kRpAppExecLink: DumpAppExecLink(os, *value); break;
    case layout::kRpMountPoint: DumpLinkNames(os, *value, false, fn); break;
    case layout::kRpSymlink: DumpLinkNames(os, *value, true, fn); break;
    default: break;
  }
  return true;
}

}  // namespace koru
