// The handles CreateFileW opens on the host: a Linux file by its Windows path
// (posix_paths), or a disk or volume by its device path (posix_disks), read through
// a descriptor or through the container image it lives in. Each handle keeps its own
// position, as Win32 handles do; disks and volumes are only ever read. PosixEnv
// forwards these calls here; each returns the Win32 error of a failure through
// `error` and leaves it alone on success.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/env.h"
#include "platform/posix_disks.h"

namespace platform::posix {

class HostFiles {
  struct Ahead;

 public:
  struct OpenFile {
    int fd = -1;
    bool append = false;
    std::int64_t position = 0;
    bool is_device = false;
    DeviceBinding device;
    std::shared_ptr<Ahead> ahead;  // a disk read through a descriptor
  };

  // `path` is not null.
  HANDLE Open(const wchar_t* path, DWORD access, DWORD disposition, DWORD* error);
  bool Read(HANDLE handle, void* buffer, DWORD to_read, DWORD* read, DWORD* error);
  bool Write(HANDLE handle, const void* buffer, DWORD to_write, DWORD* written, DWORD* error);
  // Seek from the beginning to `offset`, then Read, in one lookup and one pread: the
  // answers the two calls give, and the handle left where they leave it. A disk's
  // reads that each start where the last one ended are served from larger reads.
  ReadResult ReadAt(HANDLE handle, std::uint64_t offset, void* buffer, DWORD size);
  bool Seek(HANDLE handle, std::int64_t distance, std::int64_t* new_position, DWORD method, DWORD* error);
  bool Size(HANDLE handle, std::int64_t* size, DWORD* error);
  bool Close(HANDLE handle, DWORD* error);
  // A copy of what the handle holds; false for a handle not open here.
  bool Lookup(HANDLE handle, OpenFile* file);

 private:
  // What a read, write or seek needs of an open file. Copied under the lock without
  // the binding's path, so that reading a record allocates nothing.
  struct Cursor {
    int fd = -1;
    bool append = false;
    bool is_device = false;
    std::int64_t position = 0;
    std::int64_t base = 0;    // of the device window
    std::int64_t length = 0;  // of the device window
    std::shared_ptr<ContainerImage> image;
    std::shared_ptr<Ahead> ahead;
  };
  // The bytes after a disk's last ReadAt, read in one pread when the next one started
  // where it ended.
  struct Ahead {
    std::mutex mutex;
    std::int64_t next = -1;  // where the last ReadAt ended
    std::int64_t start = 0;  // of the bytes held, from the window's base
    std::int64_t filled = 0;
    std::unique_ptr<unsigned char[]> bytes;
  };
  bool Lookup(HANDLE handle, Cursor* cursor);
  // How many of `size` bytes a read at the cursor's position can return.
  static std::int64_t Readable(const Cursor& file, DWORD size);
  // ReadAt's read at the cursor's position served from `file.ahead`: false, with
  // nothing read, unless every byte the read would return is held there.
  bool ReadAhead(Cursor& file, void* buffer, DWORD size, DWORD* read);
  void Store(HANDLE handle, std::int64_t position);
  // Read's read at the cursor's position, which it then stores.
  bool ReadCursor(HANDLE handle, Cursor& file, void* buffer, DWORD to_read, DWORD* read, DWORD* error);
  HANDLE StoreNew(const OpenFile& file);

  std::mutex mutex_;
  std::unordered_map<std::uintptr_t, OpenFile> files_;
  std::uintptr_t next_handle_ = 0x100;
};

}  // namespace platform::posix
