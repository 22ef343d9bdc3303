// FakeFilesEnv: the files of a volume as the file-level calls see them, from a table
// a test fills. A file has an id (sequence number << 48 | record number), its names
// on the volume (leading backslash) in the order the system lists them, and a size;
// every name is reachable as \\?\X:\... (or X:\...) under any drive letter X but Z, the
// folders on the way are listed by FindFirstFileW, and the Windows folders are
// answered from fields. Other paths (disks,
// an info file in a temporary directory) go to the wrapped Env. Local time is fixed
// once set. Wrap it in a FaultEnv to make chosen calls fail on top.
// Not thread-safe: touched only from the test's own thread.
#pragma once

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/fault_env.h"

namespace koru::test {

class FakeFilesEnv : public FaultEnv {
 public:
  struct File {
    std::uint64_t id = 0;
    std::vector<std::wstring> names;
    std::int64_t size = 0;
  };
  using HANDLE = platform::HANDLE;

  explicit FakeFilesEnv(platform::Env& inner = platform::Env::Default()) : FaultEnv(inner) {}

  std::vector<File> files;
  std::vector<std::wstring> folders;  // folders with nothing in them the walk must still see
  std::set<std::wstring> reparse;     // names or folders that are reparse points
  std::set<std::wstring> encrypted;
  std::map<std::wstring, DWORD> fail_search, fail_open;  // by path: the error of FindFirstFileW, CreateFileW
  std::map<std::wstring, std::wstring> variables;  // a missing one: ERROR_ENVVAR_NOT_FOUND
  // Names a file for an id the table lacks; unset: OpenFileById fails with ERROR_INVALID_PARAMETER.
  std::function<std::wstring(std::uint64_t id)> name_unknown_id;
  std::optional<std::tm> local_time;
  std::size_t open_handles() const { return open_.size() + searches_.size(); }

  HANDLE OpenFileById(HANDLE hint, const platform::FileIdDescriptor* id, DWORD, DWORD, DWORD) override {
    if (!platform::IsValid(hint) || id == nullptr || id->dwSize != 24 || id->Type != 0)
      return FailHandle(platform::kErrorInvalidParameter);
    const auto wanted = static_cast<std::uint64_t>(id->FileId);
    for (std::size_t i = 0; i < files.size(); ++i)
      if (files[i].id == wanted) return Open(i);
    if (!name_unknown_id) return FailHandle(platform::kErrorInvalidParameter);
    files.push_back({wanted, {name_unknown_id(wanted)}, 0});
    return Open(files.size() - 1);
  }
  // FILE_NAME_INFO: the byte length of the first name, then its UTF-16 units as far as they fit.
  bool GetFileInformationByHandleEx(HANDLE h, DWORD info_class, void* buffer, DWORD size) override {
    const Handle* open = Find(h);
    if (open == nullptr) return FaultEnv::GetFileInformationByHandleEx(h, info_class, buffer, size);
    if (info_class != platform::kFileNameInfo || size < platform::kFileNameInfoHeader)
      return Fail(platform::kErrorInvalidParameter);
    std::u16string units;
    for (wchar_t c : files[open->file].names.at(0)) {
      const auto v = static_cast<std::uint32_t>(c);
      if (v >= 0x10000) units += static_cast<char16_t>(0xD800 + ((v - 0x10000) >> 10));
      units += static_cast<char16_t>(v >= 0x10000 ? 0xDC00 + ((v - 0x10000) & 0x3FF) : v);
    }
    // Little-endian hosts only, as the library's own targets are.
    const auto length = static_cast<std::uint32_t>(2 * units.size());
    std::memcpy(buffer, &length, 4);
    std::memcpy(static_cast<char*>(buffer) + 4, units.data(), std::min<std::size_t>(length, (size - 4) & ~1u));
    return 4 + length <= size || Fail(platform::kErrorMoreData);
  }
  HANDLE FindFirstFileNameW(const wchar_t* path, DWORD, DWORD* length, wchar_t* buffer) override {
    const auto file = Lookup(path);
    if (!file) return FailHandle(platform::kErrorFileNotFound);
    return CopyName(files[*file].names.at(0), length, buffer) ? Open(*file, 1) : platform::InvalidHandle();
  }
  bool FindNextFileNameW(HANDLE h, DWORD* length, wchar_t* buffer) override {
    Handle* open = Find(h);
    if (open == nullptr) return FaultEnv::FindNextFileNameW(h, length, buffer);
    const auto& names = files[open->file].names;
    if (open->next >= names.size()) return Fail(platform::kErrorHandleEof);
    return CopyName(names[open->next], length, buffer) && ++open->next;
  }
  bool FindClose(HANDLE h) override {
    return open_.erase(Key(h)) == 1 || searches_.erase(Key(h)) == 1 || FaultEnv::FindClose(h);
  }
  // "\\?\X:\dir\*": ".", "..", then the names below dir in sorted order.
  HANDLE FindFirstFileW(const wchar_t* pattern, platform::FindData* data) override {
    const auto dir = VolumePath(pattern);
    if (!dir || dir->size() < 2 || dir->substr(dir->size() - 2) != L"\\*") return FaultEnv::FindFirstFileW(pattern, data);
    if (auto f = fail_search.find(dir->substr(0, dir->size() - 2)); f != fail_search.end()) return FailHandle(f->second);
    const std::wstring base = Lower(dir->substr(0, dir->size() - 2)) + L"\\";
    std::map<std::wstring, Entry> below;
    auto add = [&](const std::wstring& name, bool folder) {
      if (Lower(name).rfind(base, 0) != 0 || name.size() <= base.size()) return;
      const std::size_t end = name.find(L'\\', base.size());
      const std::wstring path = name.substr(0, end);
      DWORD attributes = end != std::wstring::npos || folder ? platform::kFileAttributeDirectory : 0;
      if (reparse.count(path)) attributes |= platform::kFileAttributeReparsePoint;
      below.emplace(Lower(path), Entry{path.substr(base.size()), attributes});
    };
    for (const auto& file : files)
      for (const auto& name : file.names) add(name, false);
    for (const auto& folder : folders) add(folder, true);
    if (below.empty() && base != L"\\" && !IsFolder(base.substr(0, base.size() - 1)))
      return FailHandle(platform::kErrorPathNotFound);
    Search search{{{L".", platform::kFileAttributeDirectory}, {L"..", platform::kFileAttributeDirectory}}};
    for (auto& [key, entry] : below) search.entries.push_back(entry);
    searches_[next_handle_ += 4] = search;
    const HANDLE h = reinterpret_cast<HANDLE>(next_handle_);
    return FindNextFileW(h, data) ? h : platform::InvalidHandle();
  }
  bool FindNextFileW(HANDLE h, platform::FindData* data) override {
    auto it = searches_.find(Key(h));
    if (it == searches_.end()) return FaultEnv::FindNextFileW(h, data);
    Search& search = it->second;
    if (search.next >= search.entries.size()) return Fail(platform::kErrorNoMoreFiles);
    const Entry& entry = search.entries[search.next++];
    *data = platform::FindData{};
    data->dwFileAttributes = entry.attributes;
    std::wcsncpy(data->cFileName, entry.name.c_str(), 259);
    return true;
  }
  bool GetFileInformationByHandle(HANDLE h, platform::ByHandleFileInformation* info) override {
    const Handle* open = Find(h);
    if (open == nullptr) return FaultEnv::GetFileInformationByHandle(h, info);
    *info = platform::ByHandleFileInformation{};
    info->nNumberOfLinks = static_cast<DWORD>(files[open->file].names.size());
    info->nFileIndexHigh = static_cast<DWORD>(files[open->file].id >> 32);
    info->nFileIndexLow = static_cast<DWORD>(files[open->file].id);
    return true;
  }
  DWORD GetFileAttributesW(const wchar_t* path) override {
    const auto name = VolumePath(path);
    if (!name) return FaultEnv::GetFileAttributesW(path);
    if (IsFolder(*name)) return platform::kFileAttributeDirectory;
    if (!Lookup(path)) return Fail(platform::kErrorFileNotFound), platform::kInvalidFileAttributes;
    return encrypted.count(*name) ? platform::kFileAttributeEncrypted : platform::kFileAttributeNormal;
  }
  DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) override {
    const auto it = variables.find(name);
    if (it == variables.end()) return Fail(platform::kErrorEnvVarNotFound), 0;
    return Copy(it->second, buffer, size);
  }
  platform::UINT GetWindowsDirectoryW(wchar_t* buffer, platform::UINT size) override {
    return Copy(L"C:\\Windows", buffer, size);
  }
  platform::LONG SHGetFolderPathW(int, DWORD, wchar_t* path) override {
    return Copy(L"C:\\Users\\Public\\Documents", path, 260), platform::kSOk;
  }
  HANDLE CreateFileW(const wchar_t* path, DWORD access, DWORD share, DWORD disposition, DWORD flags) override {
    if (!VolumePath(path)) return FaultEnv::CreateFileW(path, access, share, disposition, flags);
    if (auto f = fail_open.find(*VolumePath(path)); f != fail_open.end()) return FailHandle(f->second);
    const auto file = Lookup(path);
    return file ? Open(*file) : FailHandle(platform::kErrorFileNotFound);
  }
  bool GetFileSizeEx(HANDLE h, std::int64_t* size) override {
    const Handle* open = Find(h);
    if (open == nullptr) return FaultEnv::GetFileSizeEx(h, size);
    *size = files[open->file].size;
    return true;
  }
  bool CloseHandle(HANDLE h) override { return open_.erase(Key(h)) == 1 || FaultEnv::CloseHandle(h); }
  bool PathFileExistsW(const wchar_t* path) override {
    if (!VolumePath(path)) return FaultEnv::PathFileExistsW(path);
    return Lookup(path) || IsFolder(*VolumePath(path)) || Fail(platform::kErrorFileNotFound);
  }
  int LocalTime64(std::int64_t t, std::tm* out) override {
    if (!local_time) return FaultEnv::LocalTime64(t, out);
    *out = *local_time;
    return 0;
  }

 private:
  struct Handle {
    std::size_t file;
    std::size_t next = 0;  // a find handle's next name
  };
  static std::uintptr_t Key(HANDLE h) { return reinterpret_cast<std::uintptr_t>(h); }
  struct Entry {
    std::wstring name;
    DWORD attributes;
  };
  struct Search {
    std::vector<Entry> entries;
    std::size_t next = 0;
  };
  // The path after "\\?\X:" or "X:" (X not Z, the host's root).
  static std::optional<std::wstring> VolumePath(const wchar_t* path) {
    if (path == nullptr) return std::nullopt;
    if (std::wcsncmp(path, L"\\\\?\\", 4) == 0) path += 4;
    if (path[0] == 0 || path[0] == L'Z' || path[1] != L':' || path[2] != L'\\') return std::nullopt;
    return std::wstring(path + 2);
  }
  bool IsFolder(const std::wstring& path) const {
    const std::wstring prefix = Lower(path) + L"\\";
    for (const auto& folder : folders)
      if (Lower(folder) == Lower(path)) return true;
    for (const auto& file : files)
      for (const auto& name : file.names)
        if (Lower(name).rfind(prefix, 0) == 0) return true;
    return false;
  }
  DWORD Copy(const std::wstring& text, wchar_t* buffer, DWORD size) {
    if (text.size() >= size) return static_cast<DWORD>(text.size() + 1);
    std::copy(text.c_str(), text.c_str() + text.size() + 1, buffer);
    return static_cast<DWORD>(text.size());
  }
  std::optional<std::size_t> Lookup(const wchar_t* path) const {
    const auto wanted = VolumePath(path);
    for (std::size_t i = 0; wanted && i < files.size(); ++i)
      for (const auto& name : files[i].names)
        if (Lower(name) == Lower(*wanted)) return i;
    return std::nullopt;
  }
  // The name and its terminator, or ERROR_MORE_DATA with the length needed.
  bool CopyName(const std::wstring& name, DWORD* length, wchar_t* buffer) {
    const auto needed = static_cast<DWORD>(name.size() + 1);
    const bool fits = *length >= needed;
    if (fits) std::copy(name.c_str(), name.c_str() + needed, buffer);
    *length = needed;
    return fits || Fail(platform::kErrorMoreData);
  }
  HANDLE Open(std::size_t file, std::size_t next = 0) {
    open_[next_handle_ += 4] = Handle{file, next};
    return reinterpret_cast<HANDLE>(next_handle_);
  }
  Handle* Find(HANDLE h) {
    auto it = open_.find(Key(h));
    return it == open_.end() ? nullptr : &it->second;
  }

  std::map<std::uintptr_t, Handle> open_;
  std::map<std::uintptr_t, Search> searches_;
  std::uintptr_t next_handle_ = 0x5EED0000;
};

}  // namespace koru::test
