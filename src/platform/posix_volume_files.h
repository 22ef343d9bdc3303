// The file-level Win32 calls on a lettered volume (C:, D:, ... of the disk layer),
// answered read-only from the volume by The Sleuth Kit: open by file id, names and
// links of a file, directory searches, attributes and sizes. PosixEnv forwards
// these calls here; each returns the Win32 error of a failure through `error`.
//
// One TSK handle per volume (posix_tsk_volume) is opened on first use and kept for
// the process; file and find handles are values of their own range, so PosixEnv can
// tell them apart. Paths are looked up as NTFS compares names (its $UpCase table,
// 8.3 aliases too); reparse points on the way are not followed.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/env.h"
#include "platform/posix_disks.h"

namespace platform::posix {

class TskVolume;

// ERROR_UNRECOGNIZED_VOLUME: the volume's file system cannot be read at the file level.
inline constexpr DWORD kErrorUnrecognizedVolume = 1005;

// "\\?\L:\..." or "L:\..." for a letter other than Z: (the host's root). Only the
// form is checked; a letter without a volume fails later with ERROR_PATH_NOT_FOUND.
bool IsVolumePath(const wchar_t* path);

class VolumeFiles {
 public:
  static VolumeFiles& Instance();
  // True for every handle value this unit hands out, open or closed.
  static bool Owns(HANDLE handle);

  HANDLE OpenFileById(const DeviceBinding& volume, const FileIdDescriptor* id, DWORD access, DWORD flags,
                      DWORD* error);
  HANDLE CreateFile(const wchar_t* path, DWORD access, DWORD disposition, DWORD flags, DWORD* error);
  bool CloseHandle(HANDLE file, DWORD* error);
  bool GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size, DWORD* error);
  bool GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info, DWORD* error);
  bool GetFileSizeEx(HANDLE file, std::int64_t* size, DWORD* error);
  HANDLE FindFirstFileName(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer, DWORD* error);
  bool FindNextFileName(HANDLE find, DWORD* length, wchar_t* buffer, DWORD* error);
  HANDLE FindFirstFile(const wchar_t* pattern, FindData* data, DWORD* error);
  bool FindNextFile(HANDLE find, FindData* data, DWORD* error);
  bool FindClose(HANDLE find, DWORD* error);
  // kInvalidFileAttributes on failure.
  DWORD GetFileAttributes(const wchar_t* path, DWORD* error);

  // Why the file-level calls cannot answer on the volume with this letter, in words a
  // person can act on; empty when they can.
  std::string Problem(wchar_t letter);
  // Paths on `letter` are looked up on `copy` from now on.
  void ReadThrough(wchar_t letter, wchar_t copy);

 private:
  struct Object;
  struct Target;
  std::shared_ptr<TskVolume> OpenVolume(const DeviceBinding& binding, DWORD* error, std::string* reason = nullptr);
  bool Resolve(const wchar_t* path, Target* target, DWORD* error);
  HANDLE Store(std::shared_ptr<Object> object);
  std::shared_ptr<Object> Find(HANDLE handle, int kind);

  wchar_t Through(wchar_t letter);

  std::mutex mutex_;
  std::unordered_map<wchar_t, wchar_t> through_;
  struct Opened {
    // Of the image file, so that one made anew is read again: the container object, or
    // the file's device, inode, size and modification time (all 0 when stat fails).
    using Identity = std::array<std::int64_t, 6>;
    Identity identity{};
    std::shared_ptr<TskVolume> volume;
    std::string refusal;   // why The Sleuth Kit cannot read it
  };
  std::unordered_map<std::string, std::map<std::int64_t, Opened>> volumes_;  // by host path, then offset
  std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> handles_;
  std::uintptr_t next_ = 0;
};

}  // namespace platform::posix
