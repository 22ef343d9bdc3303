#include "platform/posix_volume_paths.h"

#include <set>

#include "base/ntfs_layout.h"

namespace platform::posix {
namespace layout = koru::layout;

bool FileName::DosOnly() const { return name_space == layout::kFnNamespaceDos; }

std::optional<FileName> DecodeFileName(koru::Bytes value) {
  const auto reference = koru::le64(value, layout::kFnParent);
  const auto length = koru::le8(value, layout::kFnNameLength);
  const auto name_space = koru::le8(value, layout::kFnNamespace);
  if (!reference || !length || !name_space) return std::nullopt;
  const koru::Bytes text = koru::Sub(value, layout::kFnName, std::size_t{*length} * 2);
  if (text.size() != std::size_t{*length} * 2) return std::nullopt;
  FileName out;
  out.parent = *reference & layout::kRefRecordMask;
  out.parent_seq = static_cast<std::uint16_t>(*reference >> layout::kRefSequenceShift);
  out.name_space = *name_space;
  for (std::size_t i = 0; i < *length; ++i) out.name.push_back(static_cast<char16_t>(koru::le16Or0(text, i * 2)));
  return out;
}

const FileName* FileRecord::PrimaryName() const {
  for (const auto& n : names)
    if (!n.DosOnly()) return &n;
  return nullptr;
}

std::uint32_t FileRecord::LinkCount() const {
  std::uint32_t count = 0;
  for (const auto& n : names) count += n.DosOnly() ? 0 : 1;
  return count;
}

std::uint32_t Win32Attributes(std::uint32_t flags, bool directory, bool reparse_point) {
  // The low word holds the Win32 bits (NTFS keeps its own index flags above it); the
  // directory bit comes from the record, as Windows takes it, and "normal" only
  // stands alone; the reparse bit comes from the reparse point itself, which may be one
  // Windows hides.
  std::uint32_t out =
      flags & 0xFFFFu & ~(kFileAttributeDirectory | kFileAttributeNormal | kFileAttributeReparsePoint | 0x0008u);
  if (directory) out |= kFileAttributeDirectory;
  if (reparse_point) out |= kFileAttributeReparsePoint;
  return out == 0 ? kFileAttributeNormal : out;
}

bool PathBuilder::DirectoryPath(std::uint64_t record, std::uint16_t seq, std::u16string* path, DWORD* error) {
  struct Step {
    std::uint64_t record;
    std::uint16_t seq;
    std::u16string name;
  };
  std::vector<Step> chain;
  std::set<std::uint64_t> seen;
  std::size_t units = 0;
  std::u16string prefix;
  for (;;) {
    if (const auto hit = cache_.find({record, seq}); hit != cache_.end()) {
      prefix = hit->second;
      break;
    }
    // A parent that is already on the way up is a cycle on a broken volume.
    if (!seen.insert(record).second) return (*error = kErrorFileCorrupt), false;
    FileRecord dir;
    DWORD ignored = 0;
    if (!source_.Load(record, &dir, &ignored) || !dir.IsFile() || !dir.directory || dir.seq != seq)
      return (*error = kErrorFileCorrupt), false;
    if (record == layout::kRootDirectoryRecord) {
      cache_[{record, seq}] = prefix;
      break;
    }
    const FileName* name = dir.PrimaryName();
    if (name == nullptr) return (*error = kErrorFileCorrupt), false;
    units += name->name.size() + 1;
    if (units > kMaxPathUnits) return (*error = kErrorFilenameExcedRange), false;
    chain.push_back({record, seq, name->name});
    record = name->parent;
    seq = name->parent_seq;
  }
  if (prefix.size() + units > kMaxPathUnits) return (*error = kErrorFilenameExcedRange), false;
  if (cache_.size() + chain.size() > kMaxCached) cache_.clear();
  for (auto step = chain.rbegin(); step != chain.rend(); ++step) {
    prefix += u'\\';
    prefix += step->name;
    cache_[{step->record, step->seq}] = prefix;
  }
  *path = std::move(prefix);
  return true;
}

bool PathBuilder::NamePath(const FileName& name, std::u16string* path, DWORD* error) {
  std::u16string parent;
  if (!DirectoryPath(name.parent, name.parent_seq, &parent, error)) return false;
  if (parent.size() + 1 + name.name.size() > kMaxPathUnits) return (*error = kErrorFilenameExcedRange), false;
  *path = parent + u'\\' + name.name;
  return true;
}

bool PathBuilder::LinkPaths(const FileRecord& file, std::vector<std::u16string>* paths, DWORD* error) {
  paths->clear();
  if (file.record == layout::kRootDirectoryRecord) {  // its one name, ".", is its own child
    paths->push_back(u"\\");
    return true;
  }
  for (const auto& name : file.names) {
    if (name.DosOnly()) continue;
    std::u16string path;
    if (!NamePath(name, &path, error)) return false;
    paths->push_back(std::move(path));
  }
  return true;
}

UpCase::UpCase() : map_(128) {
  for (char16_t c = 0; c < 128; ++c) map_[c] = (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
}

UpCase::UpCase(koru::Bytes table) : UpCase() {
  const std::size_t count = std::min<std::size_t>(table.size() / 2, 65536);
  if (count < map_.size()) return;
  map_.resize(count);
  for (std::size_t i = 0; i < count; ++i) map_[i] = static_cast<char16_t>(koru::le16Or0(table, i * 2));
}

std::u16string UpCase::Key(std::u16string_view name) const {
  std::u16string key(name);
  for (auto& c : key) c = (*this)(c);
  return key;
}

bool UpCase::Matches(std::u16string_view pattern, std::u16string_view name) const {
  if (pattern == u"*" || pattern == u"*.*") return true;
  // Greedy match that backs up to the last '*': linear in practice, never recursive.
  std::size_t p = 0, n = 0, star = std::u16string_view::npos, resume = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == u'*') {
      star = p++;
      resume = n;
    } else if (p < pattern.size() && (pattern[p] == u'?' || (*this)(pattern[p]) == (*this)(name[n]))) {
      ++p;
      ++n;
    } else if (star != std::u16string_view::npos) {
      p = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

std::wstring WideFromUtf16(std::u16string_view text) {
  std::wstring out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = text[i];
    if constexpr (sizeof(wchar_t) == 4) {
      if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
        c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
    }
    out.push_back(static_cast<wchar_t>(c));
  }
  return out;
}

std::u16string Utf16FromWide(std::wstring_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (wchar_t w : text) {
    const auto c = static_cast<std::uint32_t>(w);
    if (c >= 0x10000 && c <= 0x10FFFF) {
      out.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c));
    }
  }
  return out;
}

}  // namespace platform::posix
