// One NTFS volume as The Sleuth Kit reads it for the file-level calls: its file
// records (posix_volume_paths's FileRecord) and its directories as FindFirstFileW
// lists them. Volume files (posix_volume_files) open one per volume, keep it for the
// process and answer the Win32 calls from it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/env.h"
#include "platform/posix_disks.h"
#include "platform/posix_volume_paths.h"

struct TSK_IMG_INFO;
struct TSK_FS_INFO;
struct TSK_FS_FILE;

namespace platform::posix {

// One directory as FindFirstFileW sees it, and its names for path lookups.
struct Listing {
  struct Entry {
    std::u16string name;
    std::uint64_t record = 0;
    std::uint32_t attributes = 0;
    std::int64_t size = 0;
    DWORD error = 0;  // a file the index lists but whose record cannot be read
  };
  std::vector<Entry> entries;  // links in NTFS name order; DOS aliases are not entries
  std::unordered_map<std::u16string, std::size_t> by_key;  // upper-case name (aliases too) -> entry
};

// One NTFS volume opened by The Sleuth Kit. Its TSK handles and caches are used
// under `mutex`: TSK's own locks make one handle safe for threads, but the caches
// are ours.
class TskVolume final : public RecordSource {
 public:
  ~TskVolume() override;

  // Null with the reason when The Sleuth Kit cannot read the volume.
  static std::shared_ptr<TskVolume> Open(const DeviceBinding& binding, std::string* reason);

  bool Load(std::uint64_t record, FileRecord* out, DWORD* error) override;
  // The directory's listing, made once: TSK's index entries say which files are in
  // it, and their own $FILE_NAME values give the names. That drops what TSK adds
  // (deleted names, ".", $OrphanFiles, long names a second time cut short) and keeps
  // what its names lose (namespaces, names past 511 bytes).
  bool List(const FileRecord& dir, std::shared_ptr<const Listing>* out, DWORD* error);

  std::mutex mutex;
  PathBuilder paths{*this};
  UpCase upcase;
  std::uint32_t serial() const { return serial_; }

 private:
  bool ReadAttributes(FileRecord* file);

  std::shared_ptr<ContainerImage> container_;  // owns img_ when set
  TSK_IMG_INFO* img_ = nullptr;
  TSK_FS_INFO* fs_ = nullptr;
  TSK_FS_FILE* mft_ = nullptr;
  std::uint64_t record_size_ = 0;
  std::uint32_t serial_ = 0;
  std::unordered_map<std::uint64_t, FileRecord> records_;
  struct CachedListing {
    std::shared_ptr<const Listing> listing;
    std::uint64_t used = 0;
  };
  std::map<std::pair<std::uint64_t, std::uint16_t>, CachedListing> listings_;
  std::uint64_t uses_ = 0;
};

}  // namespace platform::posix
