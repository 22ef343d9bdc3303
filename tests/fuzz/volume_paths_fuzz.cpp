// Fuzzes path building over made-up MFT records (parents, sequence numbers, flags,
// names), the $FILE_NAME decoder and the wildcard match: every walk must end, with a
// path no longer than Win32 allows or an error.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>

#include "platform/posix_volume_paths.h"

namespace {

using namespace platform::posix;

class Records : public RecordSource {
 public:
  bool Load(std::uint64_t record, FileRecord* out, platform::DWORD* error) override {
    const auto it = records.find(record);
    if (it == records.end()) return (*error = platform::kErrorInvalidParameter), false;
    *out = it->second;
    return true;
  }
  std::map<std::uint64_t, FileRecord> records;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const koru::Bytes bytes(reinterpret_cast<const std::byte*>(data), size);
  for (std::size_t at = 0; at < size; at += 7) (void)DecodeFileName(koru::Sub(bytes, at, 0x42 + 2 * (data[at] % 8)));

  // Records 0..31: a flags byte, a sequence byte and up to three names, each a parent,
  // its sequence, a namespace and a length in 8-unit steps (long enough for the
  // path limit); a name repeats one unit.
  std::size_t at = 0;
  const auto byte = [&] { return at < size ? data[at++] : std::uint8_t{0}; };
  Records records;
  for (std::uint64_t r = 0; r < 32 && at < size; ++r) {
    FileRecord& f = records.records[r];
    const std::uint8_t flags = byte();
    f.record = r;
    f.in_use = flags & 1;
    f.directory = flags & 2;
    f.base_record = flags & 4 ? 1 : 0;
    f.seq = byte() % 4;
    for (int n = flags >> 6; n > 0; --n) {
      FileName name;
      name.parent = byte() % 32;
      name.parent_seq = byte() % 4;
      name.name_space = byte() % 4;
      name.name.assign(std::size_t{byte()} * 8, static_cast<char16_t>('a' + r));
      f.names.push_back(name);
    }
  }
  PathBuilder paths(records);
  for (const auto& [record, file] : records.records) {
    std::vector<std::u16string> links;
    platform::DWORD error = 0;
    if (paths.LinkPaths(file, &links, &error))
      for (const auto& link : links)
        if (link.size() > kMaxPathUnits) std::abort();
    std::u16string path;
    if (paths.DirectoryPath(record, file.seq, &path, &error) && path.size() > kMaxPathUnits) std::abort();
  }

  const UpCase upcase;
  std::u16string text;
  for (std::size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | data[i + 1] << 8));
  const std::size_t half = text.size() / 2;
  (void)upcase.Matches(std::u16string_view(text).substr(0, half), std::u16string_view(text).substr(half));
  return 0;
}
