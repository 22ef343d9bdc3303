// Attribute: a non-owning, bounds-carrying view of one attribute in a record
// buffer, typed by its code. The factory picks the class; the walker owns the walk.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <ostream>
#include <utility>
#include <vector>

#include "koru_mft/varnel_string.h"
#include "platform/env.h"
#include "base/bytes.h"

namespace koru {

using SectorRange = std::pair<std::uint64_t, std::uint64_t>;
using SectorRanges = std::vector<SectorRange>;

class Attribute {
 public:
  Attribute(Bytes header, platform::DWORD sectors_per_cluster)
      : m_pAttrHdr(header), m_dwSectorsPerCluster(sectors_per_cluster) {}
  virtual ~Attribute() = default;

  // Prints the attribute to `os` in the record-dump layout.
  virtual void Dump(Bytes header, std::wostream& os);
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

  static void SanitizeName(varnel::string& sName);
  static void SanitizeAttributeName(varnel::string& sAttributeName);

  Bytes header() const { return m_pAttrHdr; }
  platform::DWORD sectors_per_cluster() const { return m_dwSectorsPerCluster; }

 protected:
  Bytes m_pAttrHdr;
  platform::DWORD m_dwSectorsPerCluster;
};

// True for the 15 type codes that have a class.
bool IsKnownAttributeType(std::uint32_t type);

// Writes the name of an attribute type code ("$DATA"), or the code as 8 hex digits.
void WriteAttributeTypeName(std::wostream& os, std::uint32_t type);

#define KORU_ATTRIBUTE_CLASS(Name)                          \
  class Name : public Attribute {                           \
   public:                                                  \
    using Attribute::Attribute;                             \
    void Dump(Bytes header, std::wostream& os) override;    \
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
  void Dump(Bytes header, std::wostream& os) override;
  bool IsAttributeList() override { return true; }
};

class FILE_NAME_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  void Dump(Bytes header, std::wostream& os) override;
  bool IsFileName() override { return true; }
};

class DATA_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  void Dump(Bytes header, std::wostream& os) override;
  bool IsData() override { return true; }
  // Appends the volume-relative sector ranges of this non-resident $DATA attribute;
  // false also when its run list was cut short by the attribute's bounds.
  bool GetSectorRange(Bytes header, SectorRanges& ranges);
};

class REPARSE_POINT_Attribute : public Attribute {
 public:
  using Attribute::Attribute;
  void Dump(Bytes header, std::wostream& os) override;
  bool IsReparsePoint() override { return true; }
};

}  // namespace koru
