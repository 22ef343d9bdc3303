#include "platform/posix_host_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <span>
#include <string>

#include "platform/posix_errno.h"
#include "platform/posix_paths.h"

namespace platform::posix {

bool HostFiles::Lookup(HANDLE handle, OpenFile* file) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == files_.end()) return false;
  *file = it->second;
  return true;
}

// Past the end of a disk or volume is a short read, as on Windows.
std::int64_t HostFiles::Readable(const Cursor& file, DWORD size) {
  if (!file.is_device || file.length < 0) return size;
  return std::max<std::int64_t>(0, std::min<std::int64_t>(size, file.length - file.position));
}

bool HostFiles::Lookup(HANDLE handle, Cursor* cursor) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == files_.end()) return false;
  const OpenFile& file = it->second;
  cursor->fd = file.fd;
  cursor->append = file.append;
  cursor->is_device = file.is_device;
  cursor->position = file.position;
  cursor->base = file.device.base;
  cursor->length = file.device.length;
  cursor->image = file.device.image;
  cursor->ahead = file.ahead;
  return true;
}

void HostFiles::Store(HANDLE handle, std::int64_t position) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it != files_.end()) it->second.position = position;
}

HANDLE HostFiles::Open(const wchar_t* path, DWORD access, DWORD disposition, DWORD* error) {
  const std::wstring wpath(path);
  OpenFile file;
  std::string host;
  if (wpath.rfind(L"\\\\.\\", 0) == 0 || wpath.rfind(L"\\\\?\\", 0) == 0) {
    DWORD resolve_error = kErrorFileNotFound;
    if (!ResolveDevice(wpath, &file.device, &resolve_error)) return (*error = resolve_error), InvalidHandle();
    // Disks are only ever read here.
    if ((access & (kGenericWrite | kFileAppendData)) != 0) return (*error = kErrorAccessDenied), InvalidHandle();
    file.is_device = true;
    host = file.device.host_path;
    if (file.device.image) return StoreNew(file);  // read through the container, no descriptor of its own
  } else {
    host = HostPath(path);
    if (host.empty()) return (*error = kErrorPathNotFound), InvalidHandle();
  }
  int flags = O_CLOEXEC;
  const bool writes = (access & (kGenericWrite | kFileAppendData)) != 0;
  const bool reads = (access & kGenericRead) != 0;
  flags |= writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY;
  if ((access & kFileAppendData) != 0 && (access & kGenericWrite) == 0) {
    flags |= O_APPEND;
    file.append = true;
  }
  switch (disposition) {
    case kCreateAlways: flags |= O_CREAT | O_TRUNC; break;
    case kOpenAlways: flags |= O_CREAT; break;
    case 1: flags |= O_CREAT | O_EXCL; break;  // CREATE_NEW
    case 5: flags |= O_TRUNC; break;           // TRUNCATE_EXISTING
    default: break;                            // OPEN_EXISTING
  }
  // Without access-time updates a disk's reads skip the kernel's check of the access
  // time, about a tenth of a small read's cost; only the file's owner or root may ask.
  file.fd = file.is_device ? ::open(host.c_str(), flags | O_NOATIME, 0666) : -1;
  if (file.fd < 0) file.fd = ::open(host.c_str(), flags, 0666);
  if (file.fd < 0) {
    *error = (errno == ENOENT && host.find('/') != std::string::npos &&
              !std::filesystem::exists(std::filesystem::path(host).parent_path()))
                 ? kErrorPathNotFound
                 : FromErrno(errno);
    return InvalidHandle();
  }
  if (file.is_device) file.ahead = std::make_shared<Ahead>();
  return StoreNew(file);
}

HANDLE HostFiles::StoreNew(const OpenFile& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t id = (next_handle_ += 4);
  files_[id] = file;
  return reinterpret_cast<HANDLE>(id);
}

bool HostFiles::Read(HANDLE handle, void* buffer, DWORD to_read, DWORD* read, DWORD* error) {
  Cursor file;
  if (read) *read = 0;
  if (!Lookup(handle, &file)) return (*error = kErrorInvalidHandle), false;
  return ReadCursor(handle, file, buffer, to_read, read, error);
}

ReadResult HostFiles::ReadAt(HANDLE handle, std::uint64_t offset, void* buffer, DWORD size) {
  ReadResult result;
  Cursor file;
  // A seek from the beginning lands where it was sent unless the handle is not open
  // or the offset, taken as signed, is before the start.
  if (!Lookup(handle, &file)) result.error = kErrorInvalidHandle;
  else if (offset > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    result.error = kErrorNegativeSeek;
  if (result.error != kErrorSuccess) {
    result.step = ReadResult::kSeekFailed;
    return result;
  }
  file.position = static_cast<std::int64_t>(offset);
  if (file.ahead && buffer != nullptr && ReadAhead(file, buffer, size, &result.bytes)) {
    Store(handle, file.position);
    if (result.bytes != size) result.step = ReadResult::kShortRead;
    return result;
  }
  if (!ReadCursor(handle, file, buffer, size, &result.bytes, &result.error)) {
    Store(handle, file.position);  // where the seek left it
    result.step = ReadResult::kReadFailed;
  } else if (result.bytes != size) {
    result.step = ReadResult::kShortRead;
  }
  return result;
}

// The MFT scan reads a record at a time, in order: one pread costs about what copying
// 4 KiB does, so a run of such reads is served from one pread of kAheadBytes. Bytes are
// served only to the read that starts where the last one ended, and only when all of
// its bytes are held; any other read (a failing or short one included) is made as
// asked, and answers as it always did.
bool HostFiles::ReadAhead(Cursor& file, void* buffer, DWORD size, DWORD* read) {
  constexpr std::int64_t kAheadBytes = 64 * 1024;
  Ahead& ahead = *file.ahead;
  std::lock_guard<std::mutex> lock(ahead.mutex);
  const std::int64_t at = file.position;
  const bool follows = at == ahead.next;
  const std::int64_t want = Readable(file, size);
  ahead.next = at + want;
  if (!follows || want == 0 || want > kAheadBytes / 2) return false;
  if (at < ahead.start || at + want > ahead.start + ahead.filled) {
    if (!ahead.bytes) ahead.bytes = std::make_unique<unsigned char[]>(kAheadBytes);
    std::int64_t fill = kAheadBytes;
    if (file.length >= 0) fill = std::min(fill, file.length - at);
    ssize_t n;
    do {
      n = ::pread(file.fd, ahead.bytes.get(), static_cast<std::size_t>(fill), static_cast<off_t>(file.base + at));
    } while (n < 0 && errno == EINTR);
    ahead.start = at;
    ahead.filled = std::max<ssize_t>(n, 0);
    if (want > ahead.filled) return false;
  }
  std::memcpy(buffer, ahead.bytes.get() + (at - ahead.start), static_cast<std::size_t>(want));
  file.position = at + want;
  *read = static_cast<DWORD>(want);
  return true;
}

bool HostFiles::ReadCursor(HANDLE handle, Cursor& file, void* buffer, DWORD to_read, DWORD* read, DWORD* error) {
  if (read) *read = 0;
  if (buffer == nullptr && to_read > 0) return (*error = kErrorInvalidParameter), false;
  const std::int64_t want = Readable(file, to_read);
  const std::int64_t base = file.is_device ? file.base : 0;
  std::int64_t done = 0;
  auto* out = static_cast<unsigned char*>(buffer);
  if (file.image) {
    done = file.image->Read(static_cast<std::uint64_t>(base + file.position),
                            std::span(reinterpret_cast<std::byte*>(out), static_cast<std::size_t>(want)));
    if (done < 0) return (*error = kErrorReadFault), false;
  }
  while (!file.image && done < want) {
    const ssize_t n = ::pread(file.fd, out + done, static_cast<std::size_t>(want - done),
                              static_cast<off_t>(base + file.position + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return (*error = FromErrno(errno)), false;
    }
    if (n == 0) break;
    done += n;
  }
  file.position += done;
  Store(handle, file.position);
  if (read) *read = static_cast<DWORD>(done);
  return true;
}

bool HostFiles::Write(HANDLE handle, const void* buffer, DWORD to_write, DWORD* written, DWORD* error) {
  Cursor file;
  if (written) *written = 0;
  if (!Lookup(handle, &file)) return (*error = kErrorInvalidHandle), false;
  if (file.is_device) return (*error = kErrorAccessDenied), false;
  const auto* in = static_cast<const unsigned char*>(buffer);
  std::int64_t done = 0;
  while (done < to_write) {
    const ssize_t n = file.append ? ::write(file.fd, in + done, to_write - static_cast<std::size_t>(done))
                                  : ::pwrite(file.fd, in + done, to_write - static_cast<std::size_t>(done),
                                             static_cast<off_t>(file.position + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return (*error = FromErrno(errno)), false;
    }
    done += n;
  }
  file.position += done;
  Store(handle, file.position);
  if (written) *written = static_cast<DWORD>(done);
  return true;
}

bool HostFiles::Seek(HANDLE handle, std::int64_t distance, std::int64_t* new_position, DWORD method, DWORD* error) {
  Cursor file;
  if (!Lookup(handle, &file)) return (*error = kErrorInvalidHandle), false;
  std::int64_t origin = 0;
  if (method == kFileCurrent) {
    origin = file.position;
  } else if (method == kFileEnd) {
    if (file.is_device && file.length >= 0) {
      origin = file.length;
    } else {
      struct stat st{};
      if (::fstat(file.fd, &st) != 0) return (*error = FromErrno(errno)), false;
      origin = st.st_size;
    }
  } else if (method != kFileBegin) {
    return (*error = kErrorInvalidParameter), false;
  }
  std::int64_t target = 0;
  if (__builtin_add_overflow(origin, distance, &target) || target < 0) return (*error = kErrorNegativeSeek), false;
  file.position = target;
  Store(handle, file.position);
  if (new_position) *new_position = target;
  return true;
}

bool HostFiles::Size(HANDLE handle, std::int64_t* size, DWORD* error) {
  OpenFile file;
  if (!Lookup(handle, &file)) return (*error = kErrorInvalidHandle), false;
  if (file.is_device && file.device.length >= 0) {
    if (size) *size = file.device.length;
    return true;
  }
  struct stat st{};
  if (::fstat(file.fd, &st) != 0) return (*error = FromErrno(errno)), false;
  if (size) *size = st.st_size;
  return true;
}

bool HostFiles::Close(HANDLE handle, DWORD* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == files_.end()) return (*error = kErrorInvalidHandle), false;
  if (it->second.fd >= 0) ::close(it->second.fd);
  files_.erase(it);
  return true;
}

}  // namespace platform::posix
