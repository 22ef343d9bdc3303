// Any bytes as the folders the directory walk goes through: up to 16 folders, each
// listing up to 8 entries (files with a link count, an index and maybe an open
// error; folders; reparse points; an error the listing stops on), named from a few
// names that include ".", ".." and the empty one. Folder 0 is the drive's root and
// each root the walk asks for (ProgramData, ..., inetpub) is one of the folders. A
// folder entry leads to a folder not listed yet, or to the listing folder itself or
// one of its ancestors: loops the walk must leave. (A folder listed under two
// unrelated folders is walked once per path, as the walk knows folders by path only:
// a chain of such folders costs time exponential in its length, so none is made.)
// The walk must end, close every handle it opened, and map only volume paths.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hardlinks/dir_walk.h"
#include "platform/device_io.h"
#include "support/fault_env.h"
#include "support/trace.h"

namespace {

using platform::DWORD;
using platform::HANDLE;

const wchar_t* const kNames[] = {L"a", L"b", L"AppData", L"Temp", L".", L"..", L"", L"x.dll"};
const wchar_t* const kRoots[] = {L"ProgramData", L"Program Files", L"Program Files (x86)", L"Windows",
                                 L"Windows.old", L"Users", L"inetpub"};
const DWORD kErrors[] = {platform::kErrorFileCorrupt, platform::kErrorAccessDenied, platform::kErrorSharingViolation,
                         platform::kErrorFileNotFound, platform::kErrorNoMoreFiles, platform::kErrorInvalidHandle, 0,
                         platform::kErrorPathNotFound};

struct Entry {
  std::wstring name;
  DWORD attributes = 0;
  std::size_t folder = 0;  // a folder's
  DWORD links = 1, index = 0, error = 0;  // a file's; `error` alone: the listing stops there
};

class Folders : public koru::test::FaultEnv {
 public:
  Folders(const std::uint8_t* data, std::size_t size) : FaultEnv(platform::Env::Default()), folders_(1), parent_(1) {
    std::size_t at = 0;
    const auto next = [&] { return at < size ? data[at++] : std::uint8_t{0}; };
    x86_ = next() & 1;
    for (std::size_t f = 0; f < folders_.size() && at < size; ++f) {
      for (int n = next() % 9; n > 0; --n) {
        const std::uint8_t kind = next(), value = next();
        Entry e;
        e.name = kNames[(kind >> 3) & 7];
        if (kind & 0x40) e.attributes |= platform::kFileAttributeReparsePoint;
        switch (kind & 3) {
          case 0:  // a file
            e.attributes |= kind & 0x80 ? platform::kFileAttributeEncrypted : platform::kFileAttributeNormal;
            e.links = value & 3;
            e.index = value >> 2;
            if (kind & 4) e.error = kErrors[value & 7];
            break;
          case 1:  // a folder not listed yet, while there is room
            if (folders_.size() < 16) {
              e.attributes |= platform::kFileAttributeDirectory;
              e.folder = folders_.size();
              folders_.emplace_back();
              parent_.push_back(f);
              break;
            }
            [[fallthrough]];
          case 2: {  // the folder itself or an ancestor
            e.attributes |= platform::kFileAttributeDirectory;
            std::size_t target = f;
            for (int up = value % 4; up > 0 && target != 0; --up) target = parent_[target];
            e.folder = target;
            break;
          }
          default:
            e.error = kErrors[value & 7];
        }
        folders_[f].push_back(e);
      }
    }
  }
  bool Clean() const { return open_.empty() && searches_.empty(); }

  DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) override {
    const std::wstring n(name);
    if (n == L"ProgramData") return Copy(L"C:\\ProgramData", buffer, size);
    if (n == L"ProgramFiles") return Copy(L"C:\\Program Files", buffer, size);
    if (n == L"ProgramFiles(x86)" && x86_) return Copy(L"C:\\Program Files (x86)", buffer, size);
    SetLastError(platform::kErrorEnvVarNotFound);
    return 0;
  }
  platform::UINT GetWindowsDirectoryW(wchar_t* buffer, platform::UINT size) override {
    return Copy(L"C:\\Windows", buffer, size);
  }
  platform::LONG SHGetFolderPathW(int, DWORD, wchar_t* path) override {
    Copy(L"C:\\Users\\Public\\Documents", path, platform::kPathChars);
    return platform::kSOk;
  }
  bool PathFileExistsW(const wchar_t* path) override { return Resolve(path).has_value(); }
  DWORD GetFileAttributesW(const wchar_t* path) override {
    const auto e = Resolve(path);
    if (!e) return SetLastError(platform::kErrorFileNotFound), platform::kInvalidFileAttributes;
    return e->attributes;
  }
  HANDLE CreateFileW(const wchar_t* path, DWORD, DWORD, DWORD, DWORD) override {
    const auto e = Resolve(path);
    if (!e || e->error != 0) return SetLastError(e ? e->error : platform::kErrorFileNotFound), platform::InvalidHandle();
    open_[++handles_] = *e;
    return reinterpret_cast<HANDLE>(handles_);
  }
  bool GetFileInformationByHandle(HANDLE h, platform::ByHandleFileInformation* info) override {
    const auto it = open_.find(reinterpret_cast<std::uintptr_t>(h));
    if (it == open_.end()) return SetLastError(platform::kErrorInvalidHandle), false;
    *info = {};
    info->nNumberOfLinks = it->second.links;
    info->nFileIndexLow = it->second.index;
    return true;
  }
  bool CloseHandle(HANDLE h) override { return open_.erase(reinterpret_cast<std::uintptr_t>(h)) == 1; }
  HANDLE FindFirstFileW(const wchar_t* pattern, platform::FindData* data) override {
    std::wstring dir(pattern);
    if (dir.size() < 2 || dir.compare(dir.size() - 2, 2, L"\\*") != 0) return SetLastError(87), platform::InvalidHandle();
    dir.resize(dir.size() - 2);
    const auto e = Resolve(dir.c_str());
    if (!e || !(e->attributes & platform::kFileAttributeDirectory))
      return SetLastError(platform::kErrorPathNotFound), platform::InvalidHandle();
    searches_[++handles_] = {e->folder, 0};
    const auto h = reinterpret_cast<HANDLE>(handles_);
    if (FindNextFileW(h, data)) return h;
    searches_.erase(handles_);
    return platform::InvalidHandle();
  }
  bool FindNextFileW(HANDLE h, platform::FindData* data) override {
    auto& [folder, next] = searches_.at(reinterpret_cast<std::uintptr_t>(h));
    if (next >= folders_[folder].size()) return SetLastError(platform::kErrorNoMoreFiles), false;
    const Entry& e = folders_[folder][next++];
    if (e.attributes == 0) return SetLastError(e.error), false;
    *data = {};
    data->dwFileAttributes = e.attributes;
    std::wcsncpy(data->cFileName, e.name.c_str(), platform::kPathChars - 1);
    return true;
  }
  bool FindClose(HANDLE h) override { return searches_.erase(reinterpret_cast<std::uintptr_t>(h)) == 1; }

 private:
  static DWORD Copy(const wchar_t* text, wchar_t* buffer, DWORD size) {
    const std::size_t n = std::wcslen(text);
    if (n >= size) return static_cast<DWORD>(n + 1);
    std::wmemcpy(buffer, text, n + 1);
    return static_cast<DWORD>(n);
  }
  // The entry a path on the volume names, its folders looked up one component at a
  // time ("." and ".." as in a path); a root name the root does not list is a root.
  std::optional<Entry> Resolve(const wchar_t* path) const {
    std::wstring_view p(path);
    if (p.substr(0, 4) == L"\\\\?\\") p.remove_prefix(4);
    if (p.size() < 2 || p[1] != L':') return std::nullopt;
    Entry drive, root;  // neither copied per component: a deep path has many
    drive.attributes = platform::kFileAttributeDirectory;
    const Entry* at = &drive;
    std::vector<std::size_t> stack{0};
    for (std::size_t begin = 3; begin <= p.size() && p.size() > 2;) {
      const std::size_t end = std::min(p.find(L'\\', begin), p.size());
      const std::wstring_view part = p.substr(begin, end - begin);
      begin = end + 1;
      if (!(at->attributes & platform::kFileAttributeDirectory)) return std::nullopt;
      const Entry* hit = nullptr;
      for (const Entry& e : folders_[stack.back()])
        if (e.attributes != 0 && e.name == part) {
          hit = &e;
          break;
        }
      for (std::size_t r = 0; hit == nullptr && stack.size() == 1 && r < std::size(kRoots); ++r)
        if (part == kRoots[r]) {
          root.attributes = platform::kFileAttributeDirectory;
          root.folder = (r + 1) % folders_.size();
          hit = &root;
        }
      if (hit == nullptr) {
        if (part != L"." && part != L"..") return std::nullopt;
        if (part == L".." && stack.size() > 1) stack.pop_back();
        continue;
      }
      at = hit;
      if (at->attributes & platform::kFileAttributeDirectory) stack.push_back(at->folder);
    }
    return *at;
  }

  std::vector<std::vector<Entry>> folders_;
  std::vector<std::size_t> parent_;
  bool x86_ = false;
  std::map<std::uintptr_t, Entry> open_;
  std::map<std::uintptr_t, std::pair<std::size_t, std::size_t>> searches_;  // folder, next entry
  std::uintptr_t handles_ = 0x4000;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  varnel::Trace().SetLevel(0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Folders folders(data, size);
  {
    platform::ScopedEnv scope(folders);
    HardLinkMap map;
    koru::HardLinkInfo::Create(10, L'D', map);
    for (const auto& [id, path] : map)
      if (id == 0 || path.empty() || path[0] != L'\\') std::abort();
  }
  if (!folders.Clean()) std::abort();  // a search or file left open
  return 0;
}
