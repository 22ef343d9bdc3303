#include "platform/posix_tsk_volume.h"

#include <tsk/libtsk.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>

#include "base/ntfs_layout.h"
#include "base/utf8.h"

namespace platform::posix {
namespace {

namespace layout = koru::layout;
namespace boot = koru::boot;

// The largest cluster The Sleuth Kit reads; Windows formats up to 2 MiB.
constexpr std::uint64_t kTskMaxCluster = 64 * 1024;
// A listing loads every member: the cache must outlast a System32 of tens of thousands
// of names while the paths through it are resolved (about 10 MiB when full).
constexpr std::size_t kMaxCachedRecords = 1 << 16;
constexpr std::size_t kMaxCachedListings = 256;
constexpr std::size_t kUpCaseBytes = 65536 * 2;

std::string TskError() {
  const char* text = tsk_error_get();
  std::string out = text != nullptr ? text : "unknown error";
  tsk_error_reset();
  return out;
}

// Cluster size from the boot sector; 0 when the fields make no sense.
std::uint64_t ClusterBytes(koru::Bytes sector) {
  const std::uint64_t bytes_per_sector = koru::le16Or0(sector, boot::kBytesPerSector);
  const std::uint8_t code = koru::le8Or0(sector, boot::kSectorsPerCluster);
  if (code <= 0x80) return bytes_per_sector * code;
  const int shift = 256 - code;  // a negative power of two of sectors
  return shift < 32 ? bytes_per_sector << shift : 0;
}

std::uint64_t RecordBytes(koru::Bytes sector, std::uint64_t cluster) {
  const auto code = static_cast<std::int8_t>(koru::le8Or0(sector, boot::kClustersPerFileRecord));
  if (code < 0) return -code < 32 ? std::uint64_t{1} << -code : 0;
  return cluster * static_cast<std::uint64_t>(code);
}

}  // namespace

TskVolume::~TskVolume() {
  if (mft_ != nullptr) tsk_fs_file_close(mft_);
  if (fs_ != nullptr) tsk_fs_close(fs_);
  if (img_ != nullptr && !container_) tsk_img_close(img_);
}

std::shared_ptr<TskVolume> TskVolume::Open(const DeviceBinding& binding, std::string* reason) {
  auto v = std::make_shared<TskVolume>();
  // A container disk is read through the image its disk layer opened; a raw one is opened here.
  v->container_ = binding.image;
  v->img_ = binding.image ? binding.image->tsk() : tsk_img_open_sing(binding.host_path.c_str(), TSK_IMG_TYPE_RAW, 0);
  if (v->img_ == nullptr) {
    *reason = "The Sleuth Kit cannot open " + binding.host_path + ": " + TskError();
    return nullptr;
  }
  std::array<std::byte, boot::kSize> sector{};
  if (tsk_img_read(v->img_, binding.base, reinterpret_cast<char*>(sector.data()), sector.size()) !=
      static_cast<ssize_t>(sector.size())) {
    *reason = "The Sleuth Kit cannot read the boot sector of the volume: " + TskError();
    return nullptr;
  }
  const std::uint64_t cluster = ClusterBytes(sector);
  v->fs_ = tsk_fs_open_img(v->img_, binding.base, TSK_FS_TYPE_NTFS);
  if (v->fs_ == nullptr) {
    const std::string why = TskError();
    if (boot::HasOemId(sector, boot::kBitLockerOemId))
      *reason = "the volume is encrypted with BitLocker, and The Sleuth Kit reads only NTFS";
    else if (cluster > kTskMaxCluster)
      *reason = "The Sleuth Kit " + std::string(tsk_version_get_str()) +
                " cannot read NTFS volumes with clusters above 64 KiB, and this volume's clusters are " +
                std::to_string(cluster / 1024) +
                " KiB: names, links and directories of its files cannot be listed on Linux (" + why + ")";
    else
      *reason = "The Sleuth Kit cannot read the NTFS file system of the volume (" + why + ")";
    return nullptr;
  }
  v->record_size_ = RecordBytes(sector, cluster);
  v->serial_ = koru::le32Or0(sector, boot::kSerialNumber);
  v->mft_ = tsk_fs_file_open_meta(v->fs_, nullptr, 0);
  if (v->record_size_ < layout::kRecNumber + 4 || v->record_size_ > 65536 || v->mft_ == nullptr) {
    *reason = "The Sleuth Kit cannot read the MFT of the volume (" + TskError() + ")";
    return nullptr;
  }
  if (TSK_FS_FILE* upcase = tsk_fs_file_open_meta(v->fs_, nullptr, layout::kUpCaseRecord)) {
    std::vector<std::byte> table(kUpCaseBytes);
    const ssize_t n = tsk_fs_file_read(upcase, 0, reinterpret_cast<char*>(table.data()), table.size(),
                                       TSK_FS_FILE_READ_FLAG_NONE);
    if (n > 0) v->upcase = UpCase(koru::Bytes(table).first(static_cast<std::size_t>(n)));
    tsk_fs_file_close(upcase);
  }
  tsk_error_reset();  // a volume without a readable $UpCase still compares ASCII
  return v;
}

bool TskVolume::Load(std::uint64_t record, FileRecord* out, DWORD* error) {
  if (record >= fs_->last_inum) return (*error = kErrorInvalidParameter), false;  // last_inum: TSK's orphan folder
  if (const auto hit = records_.find(record); hit != records_.end()) {
    *out = hit->second;
    return true;
  }
  // The header is read here: TSK opens extension and free records as if they were files.
  std::array<std::byte, layout::kRecNumber + 4> header{};
  if (tsk_fs_file_read(mft_, static_cast<TSK_OFF_T>(record * record_size_), reinterpret_cast<char*>(header.data()),
                       header.size(), TSK_FS_FILE_READ_FLAG_NONE) != static_cast<ssize_t>(header.size()) ||
      std::memcmp(header.data(), "FILE", 4) != 0) {
    tsk_error_reset();
    return (*error = kErrorFileCorrupt), false;
  }
  FileRecord file;
  file.record = record;
  file.seq = koru::le16Or0(header, layout::kRecSequence);
  const std::uint16_t flags = koru::le16Or0(header, layout::kRecFlags);
  file.in_use = (flags & layout::kRecFlagInUse) != 0;
  file.directory = (flags & layout::kRecFlagDirectory) != 0;
  file.base_record = koru::le64Or0(header, layout::kRecBaseRecordLo) & layout::kRefRecordMask;
  if (file.IsFile() && !ReadAttributes(&file)) return (*error = kErrorFileCorrupt), false;
  if (records_.size() >= kMaxCachedRecords) records_.clear();
  records_[record] = file;
  *out = std::move(file);
  return true;
}

bool TskVolume::List(const FileRecord& dir, std::shared_ptr<const Listing>* out, DWORD* error) {
  const auto key = std::make_pair(dir.record, dir.seq);
  if (const auto hit = listings_.find(key); hit != listings_.end()) {
    hit->second.used = ++uses_;
    *out = hit->second.listing;
    return true;
  }
  TSK_FS_DIR* tsk_dir = tsk_fs_dir_open_meta(fs_, dir.record);
  if (tsk_dir == nullptr) {
    tsk_error_reset();
    return (*error = kErrorFileCorrupt), false;
  }
  struct Member {
    std::uint64_t record;
    std::uint32_t seq;
    std::string index_name;
  };
  std::vector<Member> members;
  std::set<std::uint64_t> seen;
  for (std::size_t i = 0; i < tsk_fs_dir_getsize(tsk_dir); ++i) {
    const TSK_FS_NAME* name = tsk_fs_dir_get_name(tsk_dir, i);
    if (name == nullptr || (name->flags & TSK_FS_NAME_FLAG_ALLOC) == 0) continue;
    if (name->meta_addr == dir.record || name->meta_addr >= fs_->last_inum) continue;  // ".", $OrphanFiles
    if (seen.insert(name->meta_addr).second)
      members.push_back({name->meta_addr, name->meta_seq, name->name != nullptr ? name->name : ""});
  }
  tsk_fs_dir_close(tsk_dir);

  auto listing = std::make_shared<Listing>();
  std::vector<std::pair<std::u16string, std::uint64_t>> aliases;  // upper-case alias, its file
  for (const auto& m : members) {
    FileRecord file;
    DWORD load_error = 0;
    if (!Load(m.record, &file, &load_error)) {
      listing->entries.push_back({Utf16FromWide(koru::WideFromUtf8(m.index_name)), m.record, 0, 0, kErrorFileCorrupt});
      continue;
    }
    if (!file.IsFile() || file.seq != m.seq) continue;  // an entry left behind by a reused record
    for (const auto& name : file.names) {
      if (name.parent != dir.record || name.parent_seq != dir.seq) continue;
      if (name.DosOnly()) {
        aliases.emplace_back(upcase.Key(name.name), m.record);
      } else {
        listing->entries.push_back({name.name, m.record, file.attributes, file.directory ? 0 : file.size, 0});
      }
    }
  }
  std::vector<std::pair<std::u16string, Listing::Entry>> sorted;
  for (auto& entry : listing->entries) sorted.emplace_back(upcase.Key(entry.name), std::move(entry));
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  listing->entries.clear();
  std::unordered_map<std::uint64_t, std::size_t> first_entry;
  for (auto& [key, entry] : sorted) {
    listing->by_key.emplace(std::move(key), listing->entries.size());
    first_entry.emplace(entry.record, listing->entries.size());
    listing->entries.push_back(std::move(entry));
  }
  // An 8.3 alias opens its file too (Windows looks names up by either).
  for (const auto& [key, record] : aliases)
    if (const auto entry = first_entry.find(record); entry != first_entry.end()) listing->by_key.emplace(key, entry->second);
  // The least recently used goes: a wide folder stays while its subfolders are walked.
  if (listings_.size() >= kMaxCachedListings)
    listings_.erase(std::min_element(listings_.begin(), listings_.end(), [](const auto& a, const auto& b) {
      return a.second.used < b.second.used;
    }));
  listings_[key] = {listing, ++uses_};
  *out = std::move(listing);
  return true;
}

bool TskVolume::ReadAttributes(FileRecord* file) {
  TSK_FS_FILE* tsk_file = tsk_fs_file_open_meta(fs_, nullptr, file->record);
  if (tsk_file == nullptr) {
    tsk_error_reset();
    return false;
  }
  const int count = tsk_fs_file_attr_getsize(tsk_file);
  bool ok = count >= 0, reparse = false, sized = false;
  std::uint32_t flags = 0;
  for (int i = 0; ok && i < count; ++i) {
    const TSK_FS_ATTR* attr = tsk_fs_file_attr_get_idx(tsk_file, i);
    if (attr == nullptr) continue;
    koru::Bytes value;  // resident content; TSK's buffer may be larger than the value
    if ((attr->flags & TSK_FS_ATTR_RES) != 0 && attr->rd.buf != nullptr && attr->size >= 0)
      value = koru::Bytes(reinterpret_cast<const std::byte*>(attr->rd.buf),
                          std::min(attr->rd.buf_size, static_cast<std::size_t>(attr->size)));
    // The code as the record holds it: The Sleuth Kit keeps any code in its enum
    // field, and one its enum cannot hold must not be read as the enum.
    std::uint32_t type = 0;
    static_assert(sizeof attr->type == sizeof type);
    std::memcpy(&type, &attr->type, sizeof type);
    switch (type) {
      case layout::kStandardInformation:
        flags = koru::le32Or0(value, layout::kSiFileAttributes);
        break;
      case layout::kFileName:
        // A name that runs past its value is a broken record, not a name to drop.
        if (const auto name = DecodeFileName(value)) file->names.push_back(*name);
        else ok = false;
        break;
      case layout::kData:
        if (!sized && (attr->name == nullptr || attr->name[0] == 0)) {
          file->size = attr->size;
          sized = true;
        }
        break;
      case layout::kReparsePoint:
        reparse = reparse || koru::le32Or0(value, layout::kRpTag) != layout::kReparseTagWof;
        break;
      default:
        break;
    }
  }
  file->attributes = Win32Attributes(flags, file->directory, reparse);
  tsk_fs_file_close(tsk_file);
  tsk_error_reset();
  return ok;
}

}  // namespace platform::posix
