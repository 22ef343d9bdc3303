#include "mft/attribute.h"

#include <array>
#include <ios>
#include <iomanip>
#include <map>
#include <stdexcept>
#include <string>

#include "base/ntfs_layout.h"
#include "support/fn_trace.h"

namespace koru {

using varnel::FnTrace;

namespace {

struct TypeEntry {
  std::uint32_t code;
  const wchar_t* name;
};

constexpr std::array<TypeEntry, 15> kTypes = {{
    {layout::kStandardInformation, L"$STANDARD_INFORMATION"},
    {layout::kAttributeList, L"$ATTRIBUTE_LIST"},
    {layout::kFileName, L"$FILE_NAME"},
    {layout::kObjectId, L"$OBJECT_ID"},
    {layout::kSecurityDescriptor, L"$SECURITY_DESCRIPTOR"},
    {layout::kVolumeName, L"$VOLUME_NAME"},
    {layout::kVolumeInformation, L"$VOLUME_INFORMATION"},
    {layout::kData, L"$DATA"},
    {layout::kIndexRoot, L"$INDEX_ROOT"},
    {layout::kIndexAllocation, L"$INDEX_ALLOCATION"},
    {layout::kBitmap, L"$BITMAP"},
    {layout::kReparsePoint, L"$REPARSE_POINT"},
    {layout::kEaInformation, L"$EA_INFORMATION"},
    {layout::kEa, L"$EA"},
    {layout::kLoggedUtilityStream, L"$LOGGED_UTILITY_STREAM"},
}};

const std::wstring& AllowedCharacters() {
  static const std::wstring allowed = L"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._!";
  return allowed;
}

// Replaces every character outside the allowed set by "?", tracing each one.
void ReplaceUnacceptable(varnel::string& name, const wchar_t* value_name, const wchar_t* function,
                         platform::DWORD level) {
  const std::wstring& allowed = AllowedCharacters();
  for (std::size_t i = 0; i < name.length(); ++i) {
    if (allowed.find(name[i]) != std::wstring::npos) continue;
    varnel::Trace().Trace(level, function, value_name, name[i]);
    name.set_at(i, L'?');
  }
}

}  // namespace

const wchar_t* AttributeTypeName(std::uint32_t code) {
  for (const auto& t : kTypes)
    if (t.code == code) return t.name;
  return nullptr;
}

std::unique_ptr<Attribute> Attribute::Factory(Bytes header, platform::DWORD sectors_per_cluster) {
  FnTrace fn(L"Attribute::Factory");
  const auto type = le32(header, layout::kAttrType);
  if (header.empty() || !type) {
    fn.End(L"null attribute header pointer");
    return nullptr;
  }
  std::unique_ptr<Attribute> attribute;
  switch (*type) {
    case layout::kStandardInformation: attribute = std::make_unique<STANDARD_INFORMATION_Attribute>(header, sectors_per_cluster); break;
    case layout::kAttributeList: attribute = std::make_unique<ATTRIBUTE_LIST_Attribute>(header, sectors_per_cluster); break;
    case layout::kFileName: attribute = std::make_unique<FILE_NAME_Attribute>(header, sectors_per_cluster); break;
    case layout::kObjectId: attribute = std::make_unique<OBJECT_ID_Attribute>(header, sectors_per_cluster); break;
    case layout::kSecurityDescriptor: attribute = std::make_unique<SECURITY_DESCRIPTOR_Attribute>(header, sectors_per_cluster); break;
    case layout::kVolumeName: attribute = std::make_unique<VOLUME_NAME_Attribute>(header, sectors_per_cluster); break;
    case layout::kVolumeInformation: attribute = std::make_unique<VOLUME_INFORMATION_Attribute>(header, sectors_per_cluster); break;
    case layout::kData: attribute = std::make_unique<DATA_Attribute>(header, sectors_per_cluster); break;
    case layout::kIndexRoot: attribute = std::make_unique<INDEX_ROOT_Attribute>(header, sectors_per_cluster); break;
    case layout::kIndexAllocation: attribute = std::make_unique<INDEX_ALLOCATION_Attribute>(header, sectors_per_cluster); break;
    case layout::kBitmap: attribute = std::make_unique<BITMAP_Attribute>(header, sectors_per_cluster); break;
    case layout::kReparsePoint: attribute = std::make_unique<REPARSE_POINT_Attribute>(header, sectors_per_cluster); break;
    case layout::kEaInformation: attribute = std::make_unique<EA_INFORMATION_Attribute>(header, sectors_per_cluster); break;
    case layout::kEa: attribute = std::make_unique<EA_Attribute>(header, sectors_per_cluster); break;
    case layout::kLoggedUtilityStream: attribute = std::make_unique<LOGGED_UTILITY_STREAM_Attribute>(header, sectors_per_cluster); break;
    case layout::kEndOfAttributes:
      fn.Message(L"End of attributes marker", varnel::kTraceVerbose);
      return nullptr;
    default: {
      // kept as written ("Atribute"): the recovery tools match on it
      fn.trace().Trace(varnel::kTraceError, L"Attribute::Factory : Unknown Atribute Type", L"pAttrHdr->AttributeType",
                       std::uint64_t{*type});
      return nullptr;
    }
  }
  fn.Message(AttributeTypeName(*type), varnel::kTraceVerbose);
  return attribute;
}

bool IsKnownAttributeType(std::uint32_t type) { return AttributeTypeName(type) != nullptr; }

void WriteAttributeTypeName(std::wostream& os, std::uint32_t type) {
  // Built once, thread-safe; an unknown code falls out of the keyed lookup.
  static const std::map<std::uint32_t, std::wstring> names = [] {
    std::map<std::uint32_t, std::wstring> m;
    for (const auto& t : kTypes) m.emplace(t.code, t.name);
    return m;
  }();
  try {
    os << names.at(type);
  } catch (const std::out_of_range&) {
    const wchar_t fill = os.fill(L'0');
    os << std::hex << std::setw(8) << type << std::dec;
    os.fill(fill);
  }
}

void Attribute::SanitizeName(varnel::string& sName) {
  ReplaceUnacceptable(sName, L"sName[i]", L"Attribute::SanitizeName : Unacceptable", varnel::kTraceWarning);
}

void Attribute::SanitizeAttributeName(varnel::string& sAttributeName) {
  ReplaceUnacceptable(sAttributeName, L"sAttributeName[i]", L"Attribute::SanitizeAttributeName : Unacceptable",
                      varnel::kTraceWarning);
  static const std::array<const wchar_t*, 26> kSystemNames = {
      L"$AttrDef", L"$Bad",    L"$BadClus", L"$Bitmap",  L"$Boot",   L"$EFS",       L"$Extend",
      L"$I30",     L"$LogFile", L"$Max",    L"$MFT",     L"$MFTMirr", L"$MountMgrDatabase", L"$ObjId",
      L"$Quota",   L"$Reparse", L"$SDH",    L"$SDS",     L"$SII",    L"$Secure",    L"$TXF_DATA",
      L"$UpCase",  L"$UsnJrnl", L"$Volume", L"CscBitmapStream", L"WofCompressedData"};
  for (const wchar_t* system : kSystemNames) {
    const std::wstring name(system);
    if (name.size() != sAttributeName.length()) continue;
    std::size_t differences = 0;
    for (std::size_t i = 0; i < name.size(); ++i) differences += name[i] != sAttributeName[i];
    if (differences == 1) {
      sAttributeName = system;
      return;
    }
  }
}

}  // namespace koru
