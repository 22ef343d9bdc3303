#include "mft/attribute_walk.h"

#include <string>

#include "base/ntfs_layout.h"
#include "support/trace.h"

namespace koru {

AttributeWalk::AttributeWalk(Bytes record, platform::DWORD sectors_per_cluster, std::uint64_t sector)
    : record_(record), sectors_per_cluster_(sectors_per_cluster), sector_(sector),
      next_(le16Or0(record, layout::kRecFirstAttribute)) {}

bool AttributeWalk::Stop(const wchar_t* why, std::uint64_t value) {
  std::wstring text = L"attribute walk stopped: ";
  text += why;
  text += L" (record at sector " + std::to_wstring(sector_) + L", offset " + std::to_wstring(next_) +
          L", value " + std::to_wstring(value) + L")";
  varnel::Trace().Trace(varnel::kTraceError, L"AttributeWalk::Next", text.c_str());
  reason_ = std::move(text);
  done_ = true;
  bounds_ = true;
  return false;
}

std::unique_ptr<Attribute> AttributeWalk::Next() {
  if (done_) return nullptr;
  const auto type = le32(record_, next_);
  if (!type) {
    Stop(L"attribute type past the end of the record", next_);
    return nullptr;
  }
  if (*type == 0) {
    done_ = true;
    return nullptr;
  }
  const bool known = IsKnownAttributeType(*type);
  // The end marker and unknown types end the walk through the factory, whatever
  // their length says; only an attribute that will be used must fit.
  Bytes view = Sub(record_, next_, record_.size());
  if (known) {
    const auto length = le16(record_, next_ + layout::kAttrLength);
    const auto non_resident = le8(record_, next_ + layout::kAttrNonResident);
    if (!length || !non_resident) {
      Stop(L"attribute header past the end of the record", next_);
      return nullptr;
    }
    const std::size_t minimum = *non_resident ? layout::kNonResidentHeaderSize : layout::kResidentHeaderSize;
    if (*length < minimum) {
      Stop(L"attribute length shorter than its header", *length);
      return nullptr;
    }
    if (!Fits(record_.size(), next_, *length)) {
      Stop(L"attribute length reaches past the end of the record", *length);
      return nullptr;
    }
    view = Sub(record_, next_, *length);
  }
  std::unique_ptr<Attribute> attribute = Attribute::Factory(view, sectors_per_cluster_);
  if (!attribute) {
    done_ = true;
    return nullptr;
  }
  offset_ = next_;
  current_ = view;
  next_ += view.size();
  return attribute;
}

}  // namespace koru
