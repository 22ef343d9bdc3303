// AttributeWalk: the one pass over a record's attributes that every reader uses.
// It owns the walk rule (from the first-attribute offset; type 0 or the factory
// saying none ends it; advance by the low 16 bits of the length) and the bounds
// rule (an attribute that would leave the record or not advance ends it, traced).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mft/attribute.h"

namespace koru {

class AttributeWalk {
 public:
  // `sector` names the record in traces.
  AttributeWalk(Bytes record, platform::DWORD sectors_per_cluster, std::uint64_t sector);

  // The next attribute, or none at the end of the walk.
  std::unique_ptr<Attribute> Next();
  // Where the attribute last returned starts, and its bytes (up to its length).
  std::size_t offset() const { return offset_; }
  Bytes current() const { return current_; }
  // True when the walk ended because the record broke the bounds rule, and why.
  bool stopped_on_bounds() const { return bounds_; }
  const std::wstring& stop_reason() const { return reason_; }

 private:
  bool Stop(const wchar_t* why, std::uint64_t value);

  Bytes record_;
  platform::DWORD sectors_per_cluster_;
  std::uint64_t sector_;
  std::size_t next_;
  std::size_t offset_ = 0;
  Bytes current_;
  bool done_ = false;
  bool bounds_ = false;
  std::wstring reason_;
};

}  // namespace koru
