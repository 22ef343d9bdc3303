// Attribute: a non-owning, bounds-carrying view of one attribute in a record
// buffer, typed by its code. The factory picks the class; the walker owns the walk.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "koru_mft/varnel_string.h"
#include "base/bytes.h"
#include "platform/env.h"
#include "support/fn_trace.h"

namespace koru {

using SectorRange = std::pair<std::uint64_t, std::uint64_t>;
using SectorRanges = std::vector<SectorRange>;

class Attribute {
 public:
  Attribute(Bytes header, platform::DWORD sectors_per_cluster)
      : m_pAttrHdr(header), m_dwSectorsPerCluster(sectors_per_cluster) {}
  virtual ~Attribute() = default;

  // Prints the attribute in the record-dump layout; false (nothing written) for an
  // empty header. `header` runs from the attribute's start to the end of the record
  // buffer: every name and value is read inside it. The base prints the block common
  // to all attributes; each class adds its title before it and its body after it.
  virtual bool Dump(std::wostream& os, Bytes header);
  virtual bool IsData() { return false; }
  virtual bool IsFileName() { return false; }
  virtual bool IsAttributeList() { return false; }
  virtual bool IsReparsePoint() { return false; }

  // The object of the class that matches the header's type code, or none for the
  // end marker, an unknown type or an empty header.
  static std::unique_ptr<Attribute> Factory(Bytes header, platform::DWORD sectors_per_cluster);

  // How a run list ended: on its 0 header byte, with its bytes used up at the end of
  // a run, or cut short inside a run's fields (the decoder's bounds stop).
  enum class RunListEnd { kTerminated, kUsedUp, kCut };
  // Decodes a run list, appending volume-relative sector ranges; consumes `runs`.
  RunListEnd ProcessDataRun(std::deque<std::uint8_t>& runs, SectorRanges& ranges);

  // The hexadecimal listing of a resident attribute's value, 16 bytes a line.
  static void PrintResidentData(std::wostream& os, Bytes header);

  static void SanitizeName(varnel::string& sName);
  static void SanitizeAttributeName(varnel::string& sAttributeName);

  Bytes header() const { return m_pAttrHdr; }
  platform::DWORD sectors_per_cluster() const { return m_dwSectorsPerCluster; }

 protected:
  // What every typed dump starts with: the null check (traced under `fn` with the
  // type's name), an empty line, the title and its underline, then the common block.
  bool DumpTitleAndCommon(std::wostream& os, Bytes header, varnel::FnTrace& fn, std::uint32_t type);
  // The resident value a body is printed from; none, traced as "... ending(Non-Resident
  // <type> attribute)", for a non-resident attribute.
  static std::optional<Bytes> BodyValue(Bytes header, varnel::FnTrace& fn, std::uint32_t type);

  Bytes m_pAttrHdr;
  platform::DWORD m_dwSectorsPerCluster;
};

// True for the 15 type codes that have a class.
bool IsKnownAttributeType(std::uint32_t type);
// "$DATA" for 0x80 and so on; null for a code without a class.
const wchar_t* AttributeTypeName(std::uint32_t type);

// Writes the name of an attribute type code ("$DATA"), or the code as 8 hex digits.
void WriteAttributeTypeName(std::wostream& os, std::uint32_t type);

#define KORU_ATTRIBUTE_CLASS(Name)                        \
  class Name : public Attribute {                         \
   public:                                                \
    using Attribute::Attribute;                           \
    bool Dump(std::wostream& os, Bytes header) override;  \
  };

KORU_ATTRIBUTE_CLASS(STANDARD_INFORMATION_Attribute)
KORU_ATTRIBUTE_CLASS(OBJECT_ID_Attribute)
KORU_ATTRIBUTE_CLASS(SECURITY_DESCRIPTOR_Attribute)
KORU_ATTRIBUTE_CLASS(VOLUME_NAME_Attribute)
KORU_ATTRIBUTE_CLASS(VOLUME_INFORMATION_Attribute)
KORU_ATTRIBUTE_CLASS(INDEX_ROOT_Attribute)
KORU_ATTRIBUTE_CLASS(INDEX_ALLOCATION_Attribute)
KORU_ATTRIBUTE_CLASS(BITMAP_Attribute)
KORU_ATTRIBUTE_CLASS(EA_INFORMATION_Attribute)
KORU_ATTRIBUTE_CLASS(EA_Attribute)
KORU_ATTRIBUTE_CLASS(LOGGED_UTILITY_STREAM_Attribute)
#undef KORU_ATTRIBUTE_CLASS

class ATTRIBUTE_LIST_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  bool Dump(std::wostream& os, Bytes header) override;
  bool IsAttributeList() override { return true; }
};

class FILE_NAME_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  bool Dump(std::wostream& os, Bytes header) override;
  bool IsFileName() override { return true; }
};

class DATA_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  bool Dump(std::wostream& os, Bytes header) override;
  bool IsData() override { return true; }
  // Appends the volume-relative sector ranges of this non-resident $DATA attribute;
  // false also when its run list was cut short by the attribute's bounds.
  bool GetSectorRange(Bytes header, SectorRanges& ranges);
};

class REPARSE_POINT_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  bool Dump(std::wostream& os, Bytes header) override;
  bool IsReparsePoint() override { return true; }
};

}  // namespace koru
