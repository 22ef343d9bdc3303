#include "platform/posix_volume_files.h"

#include <sys/stat.h>
#include <tsk/libtsk.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <cwctype>
#include <map>
#include <set>
#include <vector>

#include "base/ntfs_layout.h"
#include "base/utf8.h"
#include "platform/disks.h"
#include "platform/posix_volume_paths.h"

namespace platform::posix {
namespace {

namespace layout = koru::layout;
namespace boot = koru::boot;

constexpr DWORD kErrorWriteProtect = 19;
constexpr DWORD kErrorBadLength = 24;
constexpr DWORD kFileReadData = 0x0001;
constexpr DWORD kGenericAll = 0x10000000;
// Every access right that would change the file or its metadata.
constexpr DWORD kWriteAccess = kGenericWrite | kGenericAll | 0x00010000 /*DELETE*/ | 0x000C0000 /*WRITE_DAC, OWNER*/ |
                               0x0002 /*WRITE_DATA*/ | kFileAppendData | 0x0010 /*WRITE_EA*/ | 0x0100 /*WRITE_ATTRIBUTES*/;
constexpr DWORD kCreateNew = 1;
// The largest cluster The Sleuth Kit reads; Windows formats up to 2 MiB.
constexpr std::uint64_t kTskMaxCluster = 64 * 1024;
constexpr std::size_t kMaxCachedRecords = 1 << 14;
constexpr std::size_t kMaxCachedListings = 256;
constexpr std::size_t kUpCaseBytes = 65536 * 2;
// NTFS keeps its own files in records below this and leaves them out of directory listings.
constexpr std::uint64_t kFirstUserRecord = 16;

std::string TskError() {
  const char* text = tsk_error_get();
  std::string out = text != nullptr ? text : "unknown error";
  tsk_error_reset();
  return out;
}

bool Fail(DWORD* error, DWORD code) {
  *error = code;
  return false;
}

HANDLE FailHandle(DWORD* error, DWORD code) {
  *error = code;
  return InvalidHandle();
}

bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towupper(static_cast<std::wint_t>(x)) == std::towupper(static_cast<std::wint_t>(y));
         });
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

struct Entry {
  std::u16string name;
  std::uint64_t record = 0;
  std::uint32_t attributes = 0;
  std::int64_t size = 0;
  DWORD error = 0;  // a file the index lists but whose record cannot be read
};

// One directory as FindFirstFileW sees it, and its names for path lookups.
struct Listing {
  std::vector<Entry> entries;  // links in NTFS name order; DOS aliases are not entries
  std::unordered_map<std::u16string, std::size_t> by_key;  // upper-case name (aliases too) -> entry
};

}  // namespace

// One NTFS volume opened by The Sleuth Kit. Its TSK handles and caches are used
// under `mutex`: TSK's own locks make one handle safe for threads, but the caches
// are ours.
class VolumeFiles::Volume final : public RecordSource {
 public:
  ~Volume() override {
    if (mft_ != nullptr) tsk_fs_file_close(mft_);
    if (fs_ != nullptr) tsk_fs_close(fs_);
    if (img_ != nullptr && !container_) tsk_img_close(img_);
  }

  // Null with the reason when The Sleuth Kit cannot read the volume.
  static std::shared_ptr<Volume> Open(const DeviceBinding& binding, std::string* reason) {
    auto v = std::make_shared<Volume>();
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

  bool Load(std::uint64_t record, FileRecord* out, DWORD* error) override {
    if (record >= fs_->last_inum) return Fail(error, kErrorInvalidParameter);  // last_inum: TSK's orphan folder
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
      return Fail(error, kErrorFileCorrupt);
    }
    FileRecord file;
    file.record = record;
    file.seq = koru::le16Or0(header, layout::kRecSequence);
    const std::uint16_t flags = koru::le16Or0(header, layout::kRecFlags);
    file.in_use = (flags & layout::kRecFlagInUse) != 0;
    file.directory = (flags & layout::kRecFlagDirectory) != 0;
    file.base_record = koru::le64Or0(header, layout::kRecBaseRecordLo) & layout::kRefRecordMask;
    if (file.IsFile() && !ReadAttributes(&file)) return Fail(error, kErrorFileCorrupt);
    if (records_.size() >= kMaxCachedRecords) records_.clear();
    records_[record] = file;
    *out = std::move(file);
    return true;
  }

  // The directory's listing, made once: TSK's index entries say which files are in
  // it, and their own $FILE_NAME values give the names. That drops what TSK adds
  // (deleted names, ".", $OrphanFiles, long names a second time cut short) and keeps
  // what its names lose (namespaces, names past 511 bytes).
  bool List(const FileRecord& dir, std::shared_ptr<const Listing>* out, DWORD* error) {
    const auto key = std::make_pair(dir.record, dir.seq);
    if (const auto hit = listings_.find(key); hit != listings_.end()) {
      hit->second.used = ++uses_;
      *out = hit->second.listing;
      return true;
    }
    TSK_FS_DIR* tsk_dir = tsk_fs_dir_open_meta(fs_, dir.record);
    if (tsk_dir == nullptr) {
      tsk_error_reset();
      return Fail(error, kErrorFileCorrupt);
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
    std::vector<std::pair<std::u16string, Entry>> sorted;
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

  std::mutex mutex;
  PathBuilder paths{*this};
  UpCase upcase;
  std::uint32_t serial() const { return serial_; }

 private:
  bool ReadAttributes(FileRecord* file) {
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
          reparse = true;
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

// What a handle of this unit refers to.
struct VolumeFiles::Object {
  enum Kind { kFile, kNames, kEntries };
  Kind kind = kFile;
  std::shared_ptr<Volume> volume;
  FileRecord file;
  std::optional<std::u16string> path;  // as opened; built from the names when opened by id
  std::vector<std::wstring> names;     // kNames
  std::vector<Entry> entries;          // kEntries
  std::size_t next = 0;
};

// A path on a lettered volume, resolved to its file.
struct VolumeFiles::Target {
  std::shared_ptr<Volume> volume;
  FileRecord file;
  std::u16string path;  // "" for the root
};

bool IsVolumePath(const wchar_t* path) {
  if (path == nullptr) return false;
  std::wstring_view p(path);
  if (p.substr(0, 4) == L"\\\\?\\") p.remove_prefix(4);
  return p.size() >= 2 && p[1] == L':' && std::iswalpha(static_cast<std::wint_t>(p[0])) &&
         std::towupper(static_cast<std::wint_t>(p[0])) != L'Z' && (p.size() == 2 || p[2] == L'\\' || p[2] == L'/');
}

std::optional<std::wstring> WindowsVariable(std::wstring_view name) {
  if (const char* value = std::getenv(koru::Utf8FromWide(name).c_str()))
    return *value != 0 ? std::optional<std::wstring>(koru::WideFromUtf8(value)) : std::nullopt;
  static const std::pair<const wchar_t*, const wchar_t*> kDefaults[] = {
      {L"ProgramData", L"C:\\ProgramData"},
      {L"ProgramFiles", L"C:\\Program Files"},
      {L"ProgramFiles(x86)", L"C:\\Program Files (x86)"},
      {L"windir", L"C:\\Windows"},
      {L"PUBLIC", L"C:\\Users\\Public"},
  };
  for (const auto& [key, value] : kDefaults)
    if (EqualNoCase(name, key)) return std::wstring(value);
  return std::nullopt;
}

VolumeFiles& VolumeFiles::Instance() {
  static VolumeFiles* files = new VolumeFiles;  // lives for the process, like the disk layer
  return *files;
}

namespace {
// Handle values with the second-highest bit set: PosixEnv counts up from 0x100.
constexpr std::uintptr_t kHandleBit = std::uintptr_t{1} << (sizeof(std::uintptr_t) * 8 - 2);
}  // namespace

bool VolumeFiles::Owns(HANDLE handle) {
  const auto value = reinterpret_cast<std::uintptr_t>(handle);
  return IsValid(handle) && (value & kHandleBit) != 0;
}

HANDLE VolumeFiles::Store(std::shared_ptr<Object> object) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t value = kHandleBit | (++next_ << 2);
  handles_[value] = std::move(object);
  return reinterpret_cast<HANDLE>(value);
}

std::shared_ptr<VolumeFiles::Object> VolumeFiles::Find(HANDLE handle, int kind) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == handles_.end() || it->second->kind != kind) return nullptr;
  return it->second;
}

std::shared_ptr<VolumeFiles::Volume> VolumeFiles::OpenVolume(const DeviceBinding& binding, DWORD* error,
                                                            std::string* reason) {
  // A volume is read again when its image was made anew under the same name.
  struct stat st{};
  std::string identity;
  if (binding.image)  // attached anew, a container is a new image object
    identity = "image@" + std::to_string(reinterpret_cast<std::uintptr_t>(binding.image.get()));
  else if (::stat(binding.host_path.c_str(), &st) == 0)
    identity = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
  std::lock_guard<std::mutex> lock(mutex_);
  Opened& opened = volumes_[binding.host_path + "@" + std::to_string(binding.base)];
  if (opened.identity != identity || (!opened.volume && opened.refusal.empty())) {
    std::string refusal;
    auto volume = Volume::Open(binding, &refusal);
    opened = Opened{identity, std::move(volume), std::move(refusal)};
  }
  if (opened.volume) return opened.volume;
  if (reason != nullptr) *reason = opened.refusal;
  *error = kErrorUnrecognizedVolume;
  return nullptr;
}

bool VolumeFiles::Resolve(const wchar_t* path, Target* target, DWORD* error) {
  if (!IsVolumePath(path)) return Fail(error, kErrorPathNotFound);
  std::wstring_view p(path);
  if (p.substr(0, 4) == L"\\\\?\\") p.remove_prefix(4);
  DeviceBinding binding;
  DWORD ignored = 0;
  if (!ResolveDevice(std::wstring(L"\\\\.\\") + p[0] + L":", &binding, &ignored)) return Fail(error, kErrorPathNotFound);
  target->volume = OpenVolume(binding, error);
  if (!target->volume) return false;
  Volume& v = *target->volume;
  std::lock_guard<std::mutex> lock(v.mutex);
  std::vector<std::pair<FileRecord, std::u16string>> stack(1);
  if (!v.Load(layout::kRootDirectoryRecord, &stack[0].first, error)) return Fail(error, kErrorFileCorrupt);
  const std::u16string rest = Utf16FromWide(p.substr(2));
  std::size_t at = 0;
  while (at <= rest.size()) {
    std::size_t end = rest.find_first_of(u"\\/", at);
    if (end == std::u16string::npos) end = rest.size();
    const std::u16string part = rest.substr(at, end - at);
    const bool last = rest.find_first_not_of(u"\\/", end) == std::u16string::npos;
    at = end + 1;
    if (part.empty() || part == u".") continue;
    if (part == u"..") {
      if (stack.size() > 1) stack.pop_back();
      continue;
    }
    const FileRecord& dir = stack.back().first;
    std::shared_ptr<const Listing> listing;
    if (!dir.directory) return Fail(error, kErrorPathNotFound);
    if (!v.List(dir, &listing, error)) return false;
    const auto hit = listing->by_key.find(v.upcase.Key(part));
    if (hit == listing->by_key.end()) return Fail(error, last ? kErrorFileNotFound : kErrorPathNotFound);
    const Entry& entry = listing->entries[hit->second];
    if (entry.error != 0) return Fail(error, entry.error);
    FileRecord file;
    if (!v.Load(entry.record, &file, error)) return false;
    // The name as the volume spells it (an alias when the path used one).
    const std::u16string& spelled = v.upcase.Key(entry.name) == hit->first ? entry.name : part;
    stack.emplace_back(std::move(file), stack.back().second + u'\\' + spelled);
  }
  target->file = std::move(stack.back().first);
  target->path = std::move(stack.back().second);
  return true;
}

namespace {
// Directories open only with backup semantics, nothing opens for writing, and the
// content of an encrypted file cannot be read here: Windows answers access denied,
// which the hard-link walk takes as "encrypted".
DWORD OpenRefusal(const FileRecord& file, DWORD access, DWORD flags) {
  if ((access & kWriteAccess) != 0) return kErrorWriteProtect;
  if (file.directory && (flags & kFileFlagBackupSemantics) == 0) return kErrorAccessDenied;
  if ((file.attributes & kFileAttributeEncrypted) != 0 && (access & (kGenericRead | kGenericAll | kFileReadData)) != 0)
    return kErrorAccessDenied;
  return kErrorSuccess;
}
}  // namespace

HANDLE VolumeFiles::OpenFileById(const DeviceBinding& binding, const FileIdDescriptor* id, DWORD access, DWORD flags,
                                 DWORD* error) {
  if (binding.volume < 0 || id == nullptr || id->dwSize != sizeof(FileIdDescriptor) || id->Type != 0)
    return FailHandle(error, kErrorInvalidParameter);
  auto object = std::make_shared<Object>();
  object->volume = OpenVolume(binding, error);
  if (!object->volume) return InvalidHandle();
  const auto reference = static_cast<std::uint64_t>(id->FileId);
  {
    std::lock_guard<std::mutex> lock(object->volume->mutex);
    if (!object->volume->Load(reference & layout::kRefRecordMask, &object->file, error)) return InvalidHandle();
  }
  const FileRecord& file = object->file;
  // A free record, an extension record or a stale reference is not a file to open.
  if (!file.IsFile() || file.seq != static_cast<std::uint16_t>(reference >> layout::kRefSequenceShift))
    return FailHandle(error, kErrorInvalidParameter);
  if (const DWORD refusal = OpenRefusal(file, access, flags)) return FailHandle(error, refusal);
  return Store(std::move(object));
}

HANDLE VolumeFiles::CreateFile(const wchar_t* path, DWORD access, DWORD disposition, DWORD flags, DWORD* error) {
  Target target;
  if (!Resolve(path, &target, error)) {
    if (*error == kErrorFileNotFound && disposition != kOpenExisting) *error = kErrorWriteProtect;
    return InvalidHandle();
  }
  if (disposition == kCreateNew) return FailHandle(error, kErrorFileExists);
  if (disposition != kOpenExisting && disposition != kOpenAlways) return FailHandle(error, kErrorWriteProtect);
  if (const DWORD refusal = OpenRefusal(target.file, access, flags)) return FailHandle(error, refusal);
  auto object = std::make_shared<Object>();
  object->volume = std::move(target.volume);
  object->file = std::move(target.file);
  object->path = std::move(target.path);
  return Store(std::move(object));
}

bool VolumeFiles::CloseHandle(HANDLE file, DWORD* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = handles_.find(reinterpret_cast<std::uintptr_t>(file));
  if (it == handles_.end() || it->second->kind != Object::kFile) return Fail(error, kErrorInvalidHandle);
  handles_.erase(it);
  return true;
}

bool VolumeFiles::GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size, DWORD* error) {
  const auto object = Find(file, Object::kFile);
  if (!object) return Fail(error, kErrorInvalidHandle);
  if (info_class != kFileNameInfo || buffer == nullptr) return Fail(error, kErrorInvalidParameter);
  if (size < kFileNameInfoHeader) return Fail(error, kErrorBadLength);
  std::u16string path;
  if (object->path) {
    path = *object->path;
  } else if (object->file.record != layout::kRootDirectoryRecord) {
    const FileName* name = object->file.PrimaryName();
    if (name == nullptr) return Fail(error, kErrorFileCorrupt);
    std::lock_guard<std::mutex> lock(object->volume->mutex);
    if (!object->volume->paths.NamePath(*name, &path, error)) return false;
  }
  if (path.empty()) path.push_back(u'\\');
  const auto bytes = static_cast<DWORD>(path.size() * 2);
  auto* out = static_cast<unsigned char*>(buffer);
  std::memcpy(out, &bytes, sizeof bytes);
  const std::size_t room = (size - kFileNameInfoHeader) / 2;
  for (std::size_t i = 0; i < std::min(room, path.size()); ++i)
    std::memcpy(out + kFileNameInfoHeader + i * 2, &path[i], 2);
  return room >= path.size() || Fail(error, kErrorMoreData);
}

bool VolumeFiles::GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info, DWORD* error) {
  const auto object = Find(file, Object::kFile);
  if (!object) return Fail(error, kErrorInvalidHandle);
  if (info == nullptr) return Fail(error, kErrorInvalidParameter);
  const FileRecord& f = object->file;
  const auto size = static_cast<std::uint64_t>(f.directory ? 0 : f.size);
  info->dwFileAttributes = f.attributes;
  info->dwVolumeSerialNumber = object->volume->serial();
  info->nFileSizeHigh = static_cast<DWORD>(size >> 32);
  info->nFileSizeLow = static_cast<DWORD>(size);
  info->nNumberOfLinks = f.LinkCount();
  info->nFileIndexHigh = static_cast<DWORD>(f.FileIndex() >> 32);
  info->nFileIndexLow = static_cast<DWORD>(f.FileIndex());
  return true;
}

bool VolumeFiles::GetFileSizeEx(HANDLE file, std::int64_t* size, DWORD* error) {
  const auto object = Find(file, Object::kFile);
  if (!object) return Fail(error, kErrorInvalidHandle);
  if (size != nullptr) *size = object->file.directory ? 0 : object->file.size;
  return true;
}

namespace {
// Copies a name into a Win32 caller's buffer with its length in characters, the
// terminator counted, both ways.
bool CopyName(const std::wstring& name, DWORD* length, wchar_t* buffer, DWORD* error) {
  const auto needed = static_cast<DWORD>(name.size() + 1);
  if (buffer == nullptr || *length < needed) {
    *length = needed;
    return Fail(error, kErrorMoreData);
  }
  std::copy(name.begin(), name.end(), buffer);
  buffer[name.size()] = 0;
  *length = needed;
  return true;
}
}  // namespace

HANDLE VolumeFiles::FindFirstFileName(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer, DWORD* error) {
  if (flags != 0 || length == nullptr) return FailHandle(error, kErrorInvalidParameter);
  Target target;
  if (!Resolve(path, &target, error)) return InvalidHandle();
  auto object = std::make_shared<Object>();
  object->kind = Object::kNames;
  std::vector<std::u16string> links;
  {
    std::lock_guard<std::mutex> lock(target.volume->mutex);
    if (!target.volume->paths.LinkPaths(target.file, &links, error)) return InvalidHandle();
  }
  if (links.empty()) return FailHandle(error, kErrorHandleEof);
  for (const auto& link : links) object->names.push_back(WideFromUtf16(link));
  if (!CopyName(object->names[0], length, buffer, error)) return InvalidHandle();
  object->next = 1;
  return Store(std::move(object));
}

bool VolumeFiles::FindNextFileName(HANDLE find, DWORD* length, wchar_t* buffer, DWORD* error) {
  const auto object = Find(find, Object::kNames);
  if (!object) return Fail(error, kErrorInvalidHandle);
  if (length == nullptr) return Fail(error, kErrorInvalidParameter);
  std::lock_guard<std::mutex> lock(mutex_);
  if (object->next >= object->names.size()) return Fail(error, kErrorHandleEof);
  if (!CopyName(object->names[object->next], length, buffer, error)) return false;  // stays for a larger buffer
  ++object->next;
  return true;
}

namespace {
void FillFindData(const Entry& entry, FindData* data) {
  if (data == nullptr) return;
  *data = FindData{};
  data->dwFileAttributes = entry.attributes;
  data->nFileSizeHigh = static_cast<DWORD>(static_cast<std::uint64_t>(entry.size) >> 32);
  data->nFileSizeLow = static_cast<DWORD>(entry.size);
  const std::wstring name = WideFromUtf16(entry.name);
  const std::size_t n = std::min<std::size_t>(name.size(), std::size(data->cFileName) - 1);
  std::copy_n(name.begin(), n, data->cFileName);
}
}  // namespace

HANDLE VolumeFiles::FindFirstFile(const wchar_t* pattern, FindData* data, DWORD* error) {
  if (pattern == nullptr) return FailHandle(error, kErrorInvalidParameter);
  const std::wstring full(pattern);
  const std::size_t slash = full.find_last_of(L"\\/");
  if (slash == std::wstring::npos || slash + 1 == full.size()) return FailHandle(error, kErrorFileNotFound);
  Target target;
  if (!Resolve(full.substr(0, slash).c_str(), &target, error)) {
    if (*error == kErrorFileNotFound) *error = kErrorPathNotFound;
    return InvalidHandle();
  }
  if (!target.file.directory) return FailHandle(error, kErrorPathNotFound);
  std::shared_ptr<const Listing> listing;
  {
    std::lock_guard<std::mutex> lock(target.volume->mutex);
    if (!target.volume->List(target.file, &listing, error)) return InvalidHandle();
  }
  const std::u16string wanted = Utf16FromWide(full.substr(slash + 1));
  auto object = std::make_shared<Object>();
  object->kind = Object::kEntries;
  // Every folder but the root lists itself and its parent first, as NTFS does.
  if (target.file.record != layout::kRootDirectoryRecord) {
    for (const char16_t* dots : {u".", u".."})
      if (target.volume->upcase.Matches(wanted, dots))
        object->entries.push_back({dots, 0, dots[1] == 0 ? target.file.attributes : kFileAttributeDirectory, 0, 0});
  }
  for (const Entry& entry : listing->entries)
    if (entry.record >= kFirstUserRecord && target.volume->upcase.Matches(wanted, entry.name))
      object->entries.push_back(entry);
  if (object->entries.empty()) return FailHandle(error, kErrorFileNotFound);
  if (object->entries[0].error != 0) return FailHandle(error, object->entries[0].error);
  FillFindData(object->entries[0], data);
  object->next = 1;
  return Store(std::move(object));
}

bool VolumeFiles::FindNextFile(HANDLE find, FindData* data, DWORD* error) {
  const auto object = Find(find, Object::kEntries);
  if (!object) return Fail(error, kErrorInvalidHandle);
  std::lock_guard<std::mutex> lock(mutex_);
  if (object->next >= object->entries.size()) return Fail(error, kErrorNoMoreFiles);
  const Entry& entry = object->entries[object->next++];
  if (entry.error != 0) return Fail(error, entry.error);
  FillFindData(entry, data);
  return true;
}

bool VolumeFiles::FindClose(HANDLE find, DWORD* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = handles_.find(reinterpret_cast<std::uintptr_t>(find));
  if (it == handles_.end() || it->second->kind == Object::kFile) return Fail(error, kErrorInvalidHandle);
  handles_.erase(it);
  return true;
}

DWORD VolumeFiles::GetFileAttributes(const wchar_t* path, DWORD* error) {
  Target target;
  return Resolve(path, &target, error) ? target.file.attributes : kInvalidFileAttributes;
}

std::string VolumeFiles::Problem(wchar_t letter) {
  DeviceBinding binding;
  DWORD error = 0;
  if (!ResolveDevice(std::wstring(L"\\\\.\\") + letter + L":", &binding, &error))
    return std::string("there is no volume ") + static_cast<char>(letter) + ":";
  std::string reason;
  return OpenVolume(binding, &error, &reason) ? std::string() : reason;
}

}  // namespace platform::posix

namespace platform {
std::string FileLevelProblem(wchar_t letter) { return posix::VolumeFiles::Instance().Problem(letter); }
}  // namespace platform
