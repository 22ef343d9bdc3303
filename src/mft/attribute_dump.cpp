// The record dump's text of each attribute: the block every attribute shares, the
// hexadecimal listing of resident values, and the body of each type.
#include <array>
#include <deque>
#include <ostream>
#include <string>

#include "base/ntfs_layout.h"
#include "mft/attribute.h"
#include "mft/dump_format.h"

namespace koru {

using dump::FlagWord;
using dump::Label;
using dump::ValueLines;
using varnel::FnTrace;

namespace {

constexpr std::uint64_t kLow48 = 0xFFFFFFFFFFFFull;

constexpr FlagWord kAttributeFlags[] = {
    {layout::kAttrFlagCompressed, L"Compressed"},
    {layout::kAttrFlagEncrypted, L"Encrypted"},
    {layout::kAttrFlagSparse, L"Sparse"},
};

// FILE_ATTRIBUTE_* as $STANDARD_INFORMATION prints them; $FILE_NAME adds the rest.
constexpr FlagWord kFileAttributes[] = {
    {0x1, L"Read-Only"},        {0x2, L"Hidden"},           {0x4, L"System"},
    {0x20, L"Archive"},         {0x40, L"Device"},          {0x80, L"Normal"},
    {0x100, L"Temporary"},      {0x200, L"Sparse-File"},    {0x400, L"Reparse-Point"},
    {0x800, L"Compressed"},     {0x1000, L"Offline"},       {0x2000, L"Not-Content-Indexed"},
    {0x4000, L"Encrypted"},     {0x10000000, L"Directory"}, {0x20000000, L"Index-View"},
};
constexpr std::span<const FlagWord> kDosPermissions(kFileAttributes, 9);

const wchar_t* BoolText(bool value) { return value ? L"true" : L"false"; }

// The attribute's own name, as the attribute-name sanitiser leaves it.
varnel::string AttributeName(Bytes header, FnTrace& fn) {
  varnel::string sName = dump::ReadName(header, le16Or0(header, layout::kAttrNameOffset),
                                        le8Or0(header, layout::kAttrNameLength), fn, L"attribute name");
  Attribute::SanitizeAttributeName(sName);
  fn.Value(L"sName", sName, varnel::kTraceVerbose);
  return sName;
}

void NameLine(std::wostream& os, Bytes header, FnTrace& fn) {
  if (le8Or0(header, layout::kAttrNameLength) == 0) return;
  Label(os, L"Name", L": [") << AttributeName(header, fn).c_str() << L"]" << std::endl;
}

}  // namespace

bool Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"Attribute::Dump");
  if (header.empty()) {
    fn.End(L"null attribute header pointer");
    return false;
  }
  // The 32-bit length shows as two halves: the walks only ever use the low one.
  const std::uint32_t length = le32Or0(header, layout::kAttrLength);
  Label(os, L"Length") << (length & 0xFFFF) << std::endl;
  dump::Hex(Label(os, L"Unknown", L": 0x"), length >> 16, 4) << std::endl;
  const bool non_resident = le8Or0(header, layout::kAttrNonResident) != 0;
  Label(os, L"Non-Resident?") << BoolText(non_resident) << std::endl;
  if (const unsigned name_length = le8Or0(header, layout::kAttrNameLength); name_length != 0) {
    Label(os, L"Name Length") << name_length << std::endl;
    Label(os, L"Offset To Name") << le16Or0(header, layout::kAttrNameOffset) << std::endl;
  }
  Label(os, L"Attribute Flags", L":");
  dump::FlagWords(os, le16Or0(header, layout::kAttrFlags), kAttributeFlags);
  os << std::endl;
  dump::Hex(Label(os, L"Attribute ID", L": 0x"), le16Or0(header, layout::kAttrId), 4) << std::endl;

  if (!non_resident) {
    Label(os, L"Attribute Length") << le32Or0(header, layout::kAttrValueLength) << std::endl;
    Label(os, L"Offset To Attribute") << le16Or0(header, layout::kAttrValueOffset) << std::endl;
    Label(os, L"Indexed Flag") << BoolText(le8Or0(header, layout::kAttrIndexed) != 0) << std::endl;
    NameLine(os, header, fn);
    return true;
  }

  Label(os, L"Starting VCN") << le64Or0(header, layout::kAttrStartVcn) << std::endl;
  Label(os, L"Last VCN") << le64Or0(header, layout::kAttrLastVcn) << std::endl;
  const std::size_t run_offset = le16Or0(header, layout::kAttrRunListOffset);
  Label(os, L"Offset to the Data Runs") << run_offset << std::endl;
  Label(os, L"Compression Unit Size") << le16Or0(header, layout::kAttrCompressionUnit) << std::endl;
  Label(os, L"Allocated Size Of The Attribute") << (le64Or0(header, layout::kAttrAllocatedSize) & kLow48)
                                                << L" bytes" << std::endl;
  Label(os, L"Real Size Of The Attribute") << (le64Or0(header, layout::kAttrRealSize) & kLow48) << L" bytes"
                                           << std::endl;
  Label(os, L"Initialized Data Size Of The Stream") << (le64Or0(header, layout::kAttrInitializedSize) & kLow48)
                                                    << L" bytes" << std::endl;
  NameLine(os, header, fn);
  os << std::endl << L"Data Runs ..." << std::endl;

  // The run bytes run to the full 32-bit length, but never past the record.
  const std::int64_t DataRunLength = std::int64_t{length} - static_cast<std::int64_t>(run_offset);
  fn.Value(L"DataRunLength", DataRunLength, varnel::kTraceVerbose);
  if (DataRunLength < 0) fn.Message(L"run list offset lies past the attribute's length", varnel::kTraceWarning);
  const std::size_t wanted = DataRunLength > 0 ? static_cast<std::size_t>(DataRunLength) : 0;
  const Bytes pRaw = Sub(header, run_offset, wanted);
  if (pRaw.size() < wanted) dump::TraceCut(fn, L"run list", wanted, pRaw.size());
  std::deque<std::uint8_t> runs;
  for (std::byte b : pRaw) {
    fn.trace().TraceHex(varnel::kTraceVerbose, fn.name(), L"pRaw[i]", std::to_integer<std::uint8_t>(b));
    runs.push_back(std::to_integer<std::uint8_t>(b));
  }
  SectorRanges ranges;
  ProcessDataRun(runs, ranges);
  for (const auto& [first, second] : ranges) os << L"Sector# " << first << L" to " << second << std::endl;
  os << std::endl;
  return true;
}

void Attribute::PrintResidentData(std::wostream& os, Bytes header) {
  FnTrace fn(L"Attribute::PrintResidentData");
  if (header.empty()) {
    fn.End(L"null attribute header pointer");
    return;
  }
  if (le8Or0(header, layout::kAttrNonResident) != 0) {
    fn.Message(L"Called in error - non-resident attribute!!", varnel::kTraceError);
    return;
  }
  constexpr std::size_t kPerLine = 16;
  const Bytes value = dump::ResidentValue(header, fn);
  std::wstring text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i != 0 && i % kPerLine == 0) {
      os << L"\t" << text << std::endl;
      text.clear();
    }
    const auto byte = std::to_integer<std::uint8_t>(value[i]);
    dump::Hex(os, byte, 2) << L" ";
    // isprint of the C locale, whatever locale the program runs in.
    text += byte >= 0x20 && byte < 0x7F ? static_cast<wchar_t>(byte) : L'.';
  }
  if (value.size() % kPerLine != 0)
    for (std::size_t i = value.size() % kPerLine; i < kPerLine; ++i) os << L"   ";
  if (!text.empty()) os << L"\t" << text << std::endl;
}

bool Attribute::DumpTitleAndCommon(std::wostream& os, Bytes header, FnTrace& fn, std::uint32_t type) {
  const std::wstring name = AttributeTypeName(type);
  if (header.empty()) {
    fn.End((L"null " + name + L" attribute header pointer").c_str());
    return false;
  }
  os << std::endl << name << std::endl << std::wstring(name.size(), L'-') << std::endl;
  Attribute::Dump(os, header);
  return true;
}

std::optional<Bytes> Attribute::BodyValue(Bytes header, FnTrace& fn, std::uint32_t type) {
  if (le8Or0(header, layout::kAttrNonResident) != 0) {
    fn.End((std::wstring(L"Non-Resident ") + AttributeTypeName(type) + L" attribute").c_str());
    return std::nullopt;
  }
  return dump::ResidentValue(header, fn);
}

bool STANDARD_INFORMATION_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"STANDARD_INFORMATION_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kStandardInformation)) return false;
  const auto value = BodyValue(header, fn, layout::kStandardInformation);
  if (!value) return true;
  ValueLines v(os, *value, fn);
  v.Time(L"File Creation Time", layout::kSiCreationTime);
  v.Time(L"File Altered Time", layout::kSiAlteredTime);
  v.Time(L"MFT Changed Time", layout::kSiMftChangedTime);
  v.Time(L"File Read Time", layout::kSiReadTime);
  v.Flags(L"DOS File Permissions", layout::kSiFileAttributes, kDosPermissions);
  v.Dec(L"Maximum Number Of Versions", layout::kSiMaxVersions, 4);
  v.Dec(L"Version Number", layout::kSiVersion, 4);
  v.Dec(L"Class ID", layout::kSiClassId, 4);
  v.Dec(L"Owner ID", layout::kSiOwnerId, 4);
  v.Dec(L"Security ID", layout::kSiSecurityId, 4);
  v.Hex(L"Quota Charged", layout::kSiQuotaCharged, 8, 16);
  v.Hex(L"Update Sequence Number", layout::kSiUsn, 8, 16);
  return true;
}

bool FILE_NAME_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"FILE_NAME_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kFileName)) return false;
  const auto value = BodyValue(header, fn, layout::kFileName);
  if (!value) return true;
  ValueLines v(os, *value, fn);
  if (v.Has(layout::kFnParent, 8, L"Reference To The Parent Directory"))
    Label(os, L"Reference To The Parent Directory") << (v.Load(layout::kFnParent, 8) & kLow48) << L"/"
                                                    << v.Load(layout::kFnParentSequence, 2) << std::endl;
  v.Time(L"File Creation Time", layout::kFnCreationTime);
  v.Time(L"File Altered Time", layout::kFnCreationTime + 8);
  v.Time(L"MFT Changed Time", layout::kFnCreationTime + 16);
  v.Time(L"File Read Time", layout::kFnCreationTime + 24);
  if (v.Has(layout::kFnAllocatedSize, 8, L"Allocated Size Of The File")) {
    const std::uint64_t allocated = v.Load(layout::kFnAllocatedSize, 8) & kLow48;
    dump::Hex(Label(os, L"Allocated Size Of The File") << allocated << L" (0x", allocated, 0) << L")" << std::endl;
  }
  if (v.Has(layout::kFnRealSize, 8, L"Real Size Of The File"))
    Label(os, L"Real Size Of The File") << (v.Load(layout::kFnRealSize, 8) & kLow48) << std::endl;
  v.Flags(L"Flags", layout::kFnFlags, kFileAttributes);
  v.Hex(L"Used By EAs and Reparse", layout::kFnReparseOrEa, 4, 8);
  v.Dec(L"File Name Length (wchar_t)", layout::kFnNameLength, 1);
  if (v.Has(layout::kFnNamespace, 1, L"File Name Namespace")) {
    static constexpr const wchar_t* kNamespaces[] = {L"Posix", L"Win32", L"DOS", L"Win32 & DOS"};
    const std::uint64_t space = v.Load(layout::kFnNamespace, 1);
    Label(os, L"File Name Namespace");
    if (space < std::size(kNamespaces))
      os << kNamespaces[space];
    else
      dump::Hex(os << L"0x", space, 2);
    os << std::endl;
  }
  if (!v.complete()) return true;
  varnel::string name = dump::ReadName(*value, layout::kFnName, v.Load(layout::kFnNameLength, 1), fn, L"file name");
  SanitizeName(name);
  Label(os, L"File Name", L": [") << name.c_str() << L"]" << std::endl;
  return true;
}

bool ATTRIBUTE_LIST_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"ATTRIBUTE_LIST_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kAttributeList)) return false;
  const auto value = BodyValue(header, fn, layout::kAttributeList);
  if (!value) return true;
  // Entries follow each other by their record length; one of length 0 would never
  // move on, so it ends the list.
  for (std::size_t at = 0; at < value->size();) {
    const Bytes entry = value->subspan(at);
    os << L"--------------------------------------------------------" << std::endl;
    ValueLines v(os, entry, fn);
    if (v.Has(layout::kAlType, 4, L"Type")) {
      WriteAttributeTypeName(Label(os, L"Type"), static_cast<std::uint32_t>(v.Load(layout::kAlType, 4)));
      os << std::endl;
    }
    v.Dec(L"Record Length", layout::kAlRecordLength, 2);
    v.Dec(L"Name Length", layout::kAlNameLength, 1);
    v.Dec(L"Offset To Name", layout::kAlNameOffset, 1);
    v.Dec(L"StartingVCN", layout::kAlStartVcn, 8);
    if (v.Has(layout::kAlReference, 8, L"Base File Reference Of Attribute"))
      Label(os, L"Base File Reference Of Attribute") << (v.Load(layout::kAlReference, 8) & kLow48) << L"/"
                                                     << v.Load(layout::kAlReferenceSequence, 2) << std::endl;
    v.Dec(L"Attribute Id", layout::kAlAttributeId, 2);
    if (!v.complete()) return true;
    if (const std::size_t chars = v.Load(layout::kAlNameLength, 1); chars != 0) {
      varnel::string sName = dump::ReadName(entry, v.Load(layout::kAlNameOffset, 1), chars, fn, L"list entry name");
      SanitizeAttributeName(sName);
      fn.Value(L"sName", sName, varnel::kTraceVerbose);
      Label(os, L"Name", L": [") << sName.c_str() << L"]" << std::endl;
    }
    const std::size_t stride = v.Load(layout::kAlRecordLength, 2);
    if (stride == 0) {
      fn.End(L"attribute list entry of length 0", varnel::kTraceWarning);
      return true;
    }
    at += stride;
  }
  return true;
}

bool OBJECT_ID_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"OBJECT_ID_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kObjectId)) return false;
  const auto value = BodyValue(header, fn, layout::kObjectId);
  if (!value) return true;
  // Most object ids hold only the first GUID; the body ends where the value does.
  ValueLines v(os, *value, fn);
  v.Guid(L"GUID Object Id", 0);
  v.Guid(L"GUID Birth Volume Id", layout::kGuidSize);
  v.Guid(L"GUID Birth Object Id", 2 * layout::kGuidSize);
  v.Guid(L"GUID Domain Id", 3 * layout::kGuidSize);
  return true;
}

bool SECURITY_DESCRIPTOR_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"SECURITY_DESCRIPTOR_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kSecurityDescriptor)) return false;
  const auto value = BodyValue(header, fn, layout::kSecurityDescriptor);
  if (!value) return true;
  ValueLines v(os, *value, fn);
  v.Dec(L"Revision", layout::kSdRevision, 1);
  v.Hex(L"Control Flags", layout::kSdControl, 2, 4);
  v.Dec(L"Offset to User SID", layout::kSdOwnerOffset, 4);
  v.Dec(L"Offset to Group SID", layout::kSdGroupOffset, 4);
  if (!v.complete()) return true;
  os << L"Data" << std::endl;
  PrintResidentData(os, header);
  return true;
}

bool VOLUME_NAME_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"VOLUME_NAME_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kVolumeName)) return false;
  const auto value = BodyValue(header, fn, layout::kVolumeName);
  if (!value) return true;
  varnel::string name = dump::ReadName(*value, 0, value->size() / 2, fn, L"volume name");
  SanitizeName(name);
  Label(os, L"Volume Name", L": [") << name.c_str() << L"]" << std::endl;
  return true;
}

bool VOLUME_INFORMATION_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"VOLUME_INFORMATION_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kVolumeInformation)) return false;
  const auto value = BodyValue(header, fn, layout::kVolumeInformation);
  if (!value) return true;
  ValueLines v(os, *value, fn);
  v.Hex(L"Unknown", layout::kViReserved, 8, 16);
  v.Dec(L"Major Version Number", layout::kViMajorVersion, 1);
  v.Dec(L"Minor Version Number", layout::kViMinorVersion, 1);
  v.Hex(L"Flags", layout::kViFlags, 2, 4);
  v.Hex(L"Unknown", layout::kViTrailing, 4, 8);  // the label twice, as written
  return true;
}

bool EA_INFORMATION_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"EA_INFORMATION_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kEaInformation)) return false;
  const auto value = BodyValue(header, fn, layout::kEaInformation);
  if (!value) return true;
  ValueLines v(os, *value, fn);
  v.Dec(L"Size Of Packed EAs", layout::kEiPackedSize, 2);
  v.Dec(L"Number of EAs with NEED_EA set", layout::kEiNeedEaCount, 2);
  v.Dec(L"Size Of Unpacked EAs", layout::kEiUnpackedSize, 4);
  return true;
}

bool LOGGED_UTILITY_STREAM_Attribute::Dump(std::wostream& os, Bytes header) {
  FnTrace fn(L"LOGGED_UTILITY_STREAM_Attribute::Dump");
  if (!DumpTitleAndCommon(os, header, fn, layout::kLoggedUtilityStream)) return false;
  if (!BodyValue(header, fn, layout::kLoggedUtilityStream)) return true;
  os << L"Data" << std::endl;
  PrintResidentData(os, header);
  return true;
}

// The types whose text is the common block alone.
#define KORU_COMMON_BLOCK_ONLY(Class, type)                     \
  bool Class::Dump(std::wostream& os, Bytes header) {          \
    FnTrace fn(L"" #Class "::Dump");                            \
    return DumpTitleAndCommon(os, header, fn, layout::type);   \
  }
KORU_COMMON_BLOCK_ONLY(DATA_Attribute, kData)
KORU_COMMON_BLOCK_ONLY(INDEX_ROOT_Attribute, kIndexRoot)
KORU_COMMON_BLOCK_ONLY(INDEX_ALLOCATION_Attribute, kIndexAllocation)
KORU_COMMON_BLOCK_ONLY(BITMAP_Attribute, kBitmap)
KORU_COMMON_BLOCK_ONLY(EA_Attribute, kEa)
#undef KORU_COMMON_BLOCK_ONLY

}  // namespace koru
