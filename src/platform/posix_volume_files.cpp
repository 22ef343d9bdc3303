#include "platform/posix_volume_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <optional>
#include <string_view>
#include <vector>

#include "base/ntfs_layout.h"
#include "platform/disks.h"
#include "platform/posix_tsk_volume.h"
#include "platform/posix_volume_paths.h"

namespace platform::posix {
namespace {

namespace layout = koru::layout;

constexpr DWORD kErrorWriteProtect = 19;
constexpr DWORD kErrorBadLength = 24;
constexpr DWORD kFileReadData = 0x0001;
constexpr DWORD kGenericAll = 0x10000000;
// Every access right that would change the file or its metadata.
constexpr DWORD kWriteAccess = kGenericWrite | kGenericAll | 0x00010000 /*DELETE*/ | 0x000C0000 /*WRITE_DAC, OWNER*/ |
                               0x0002 /*WRITE_DATA*/ | kFileAppendData | 0x0010 /*WRITE_EA*/ | 0x0100 /*WRITE_ATTRIBUTES*/;
constexpr DWORD kCreateNew = 1;
// NTFS keeps its own files in records below this and leaves them out of directory listings.
constexpr std::uint64_t kFirstUserRecord = 16;

bool Fail(DWORD* error, DWORD code) {
  *error = code;
  return false;
}

HANDLE FailHandle(DWORD* error, DWORD code) {
  *error = code;
  return InvalidHandle();
}

wchar_t Upper(wchar_t letter) { return static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(letter))); }

}  // namespace

// What a handle of this unit refers to.
struct VolumeFiles::Object {
  enum Kind { kFile, kNames, kEntries };
  Kind kind = kFile;
  std::shared_ptr<TskVolume> volume;
  FileRecord file;
  std::optional<std::u16string> path;  // as opened; built from the names when opened by id
  std::vector<std::wstring> names;      // kNames
  std::vector<Listing::Entry> entries;  // kEntries
  std::size_t next = 0;
};

// A path on a lettered volume, resolved to its file.
struct VolumeFiles::Target {
  std::shared_ptr<TskVolume> volume;
  FileRecord file;
  std::u16string path;  // "" for the root
};

bool IsVolumePath(const wchar_t* path) {
  if (path == nullptr) return false;
  std::wstring_view p(path);
  if (p.substr(0, 4) == L"\\\\?\\") p.remove_prefix(4);
  return p.size() >= 2 && p[1] == L':' && std::iswalpha(static_cast<std::wint_t>(p[0])) &&
         Upper(p[0]) != L'Z' && (p.size() == 2 || p[2] == L'\\' || p[2] == L'/');
}

VolumeFiles& VolumeFiles::Instance() {
  static VolumeFiles* files = new VolumeFiles;  // lives for the process, like the disk layer
  return *files;
}

namespace {
// Handle values with the second-highest bit set: host files (posix_host_files) count
// up from 0x100.
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

std::shared_ptr<TskVolume> VolumeFiles::OpenVolume(const DeviceBinding& binding, DWORD* error,
                                                            std::string* reason) {
  // A volume is read again when its image was made anew under the same name. Numbers,
  // not text: every open by id and every path asks this.
  struct stat st{};
  Opened::Identity identity{};
  if (binding.image)  // attached anew, a container is a new image object
    identity[0] = static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(binding.image.get()));
  else if (::stat(binding.host_path.c_str(), &st) == 0)
    identity = {0, static_cast<std::int64_t>(st.st_dev), static_cast<std::int64_t>(st.st_ino), st.st_size,
                st.st_mtim.tv_sec, st.st_mtim.tv_nsec};
  std::lock_guard<std::mutex> lock(mutex_);
  Opened& opened = volumes_[binding.host_path][binding.base];
  if (opened.identity != identity || (!opened.volume && opened.refusal.empty())) {
    std::string refusal;
    auto volume = TskVolume::Open(binding, &refusal);
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
  if (!ResolveDevice(std::wstring(L"\\\\.\\") + Through(p[0]) + L":", &binding, &ignored))
    return Fail(error, kErrorPathNotFound);
  target->volume = OpenVolume(binding, error);
  if (!target->volume) return false;
  TskVolume& v = *target->volume;
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
    const Listing::Entry& entry = listing->entries[hit->second];
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
void FillFindData(const Listing::Entry& entry, FindData* data) {
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
  for (const Listing::Entry& entry : listing->entries)
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
  const Listing::Entry& entry = object->entries[object->next++];
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

void VolumeFiles::ReadThrough(wchar_t letter, wchar_t copy) {
  std::lock_guard<std::mutex> lock(mutex_);
  through_[Upper(letter)] = Upper(copy);
}

wchar_t VolumeFiles::Through(wchar_t letter) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = through_.find(Upper(letter));
  return it == through_.end() ? letter : it->second;
}

std::string VolumeFiles::Problem(wchar_t letter) {
  letter = Through(letter);
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
void ReadFilesThrough(wchar_t letter, wchar_t copy) { posix::VolumeFiles::Instance().ReadThrough(letter, copy); }
}  // namespace platform
