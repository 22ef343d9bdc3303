#include "platform/posix_env.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "platform/posix_errno.h"
#include "platform/posix_ini.h"
#include "platform/posix_paths.h"
#include "platform/posix_version.h"
#include "platform/posix_volume_files.h"

namespace platform {
namespace {

using posix::FromErrno;

thread_local DWORD t_last_error = 0;

// Files on lettered volumes are answered by the volume file services, which report
// their Win32 error through the last argument.
posix::VolumeFiles& Volumes() { return posix::VolumeFiles::Instance(); }

template <typename Call>
auto Forward(Call call) {
  DWORD error = kErrorSuccess;
  auto result = call(&error);
  t_last_error = error;
  return result;
}

bool Fail(DWORD error) {
  t_last_error = error;
  return false;
}

}  // namespace

DWORD PosixEnv::CopyOut(const std::wstring& text, wchar_t* buffer, DWORD size) {
  if (buffer == nullptr || size == 0) return 0;
  const std::size_t n = std::min<std::size_t>(text.size(), size - 1);
  std::copy_n(text.data(), n, buffer);
  buffer[n] = 0;
  return static_cast<DWORD>(n);
}

Env& DefaultBackend() {
  static PosixEnv* env = new PosixEnv;  // lives for the process: tracing may run at unload
  return *env;
}

DWORD PosixEnv::GetLastError() { return t_last_error; }
void PosixEnv::SetLastError(DWORD error) { t_last_error = error; }

HMODULE PosixEnv::GetModuleHandleW(const wchar_t* module_name) {
  if (module_name == nullptr) return posix::ProcessModule();
  if (HMODULE module = posix::ModuleNamed(module_name)) return module;
  t_last_error = kErrorModNotFound;
  return nullptr;
}

DWORD PosixEnv::GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) {
  const std::string path = posix::ModulePath(module);
  if (path.empty()) {
    t_last_error = kErrorModNotFound;
    return 0;
  }
  const std::wstring text = WindowsPath(path);
  if (buffer == nullptr || size == 0) {
    t_last_error = kErrorInsufficientBuffer;
    return 0;
  }
  if (text.size() >= size) {
    // Win32: truncated, terminated, full size returned, insufficient-buffer error.
    std::copy_n(text.data(), size - 1, buffer);
    buffer[size - 1] = 0;
    t_last_error = kErrorInsufficientBuffer;
    return size;
  }
  return CopyOut(text, buffer, size);
}

DWORD PosixEnv::GetFileVersionInfoSizeW(const wchar_t* file_name) {
  DWORD error = kErrorSuccess;
  const DWORD size = posix::VersionInfoSize(HostPath(file_name), &error);
  if (size == 0) t_last_error = error;
  return size;
}

bool PosixEnv::GetFileVersionInfoW(const wchar_t* file_name, DWORD size, void* data) {
  const DWORD needed = GetFileVersionInfoSizeW(file_name);
  if (needed == 0) return false;
  if (data == nullptr || size < needed) return Fail(kErrorInsufficientBuffer);
  posix::FillVersionInfo(data);
  return true;
}

bool PosixEnv::VerQueryValueW(const void* block, const wchar_t* sub_block, const void** value, UINT* length) {
  if (block == nullptr || sub_block == nullptr || value == nullptr) return Fail(kErrorInvalidParameter);
  return posix::QueryVersionValue(block, sub_block, value, length) || Fail(kErrorResourceTypeNotFound);
}

DWORD PosixEnv::GetPrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* default_value,
                                         wchar_t* buffer, DWORD size, const wchar_t* file_name) {
  const std::string path = HostPath(file_name);
  std::optional<std::wstring> value;
  if (section != nullptr && key != nullptr && !path.empty()) value = ini::Lookup(path, section, key);
  if (!value) {
    value = ini::Trim(default_value ? default_value : L"");
    t_last_error = kErrorFileNotFound;
  }
  return CopyOut(*value, buffer, size);
}

UINT PosixEnv::GetPrivateProfileIntW(const wchar_t* section, const wchar_t* key, int default_value,
                                     const wchar_t* file_name) {
  const std::string path = HostPath(file_name);
  std::optional<std::wstring> value;
  if (section != nullptr && key != nullptr && !path.empty()) value = ini::Lookup(path, section, key);
  return value ? ini::LeadingNumber(*value) : static_cast<UINT>(default_value);
}

bool PosixEnv::WritePrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* value,
                                          const wchar_t* file_name) {
  const std::string path = HostPath(file_name);
  if (section == nullptr || path.empty()) return Fail(kErrorInvalidParameter);
  const int e = ini::Write(path, section, key, value);
  return e == 0 || Fail(FromErrno(e));
}

bool PosixEnv::PathFileExistsW(const wchar_t* path) {
  if (posix::IsVolumePath(path))
    return Forward([&](DWORD* e) { return Volumes().GetFileAttributes(path, e) != kInvalidFileAttributes; });
  const std::string host = HostPath(path);
  struct stat st{};
  if (host.empty() || ::stat(host.c_str(), &st) != 0) return Fail(FromErrno(errno ? errno : ENOENT));
  return true;
}

bool PosixEnv::PathIsDirectoryW(const wchar_t* path) {
  if (posix::IsVolumePath(path)) {
    const DWORD attributes = Forward([&](DWORD* e) { return Volumes().GetFileAttributes(path, e); });
    return attributes != kInvalidFileAttributes && (attributes & kFileAttributeDirectory) != 0;
  }
  const std::string host = HostPath(path);
  struct stat st{};
  return !host.empty() && ::stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool PosixEnv::CreateDirectoryW(const wchar_t* path) {
  const std::string host = HostPath(path);
  if (host.empty()) return Fail(kErrorPathNotFound);
  if (::mkdir(host.c_str(), 0777) != 0) {
    if (errno == ENOENT) return Fail(kErrorPathNotFound);
    return Fail(FromErrno(errno));
  }
  return true;
}

bool PosixEnv::CopyFileW(const wchar_t* from, const wchar_t* to, bool fail_if_exists) {
  const std::string src = HostPath(from), dst = HostPath(to);
  if (src.empty() || dst.empty()) return Fail(kErrorPathNotFound);
  std::error_code ec;
  const auto options = fail_if_exists ? std::filesystem::copy_options::none
                                      : std::filesystem::copy_options::overwrite_existing;
  if (!std::filesystem::copy_file(src, dst, options, ec)) {
    if (ec == std::errc::file_exists) return Fail(kErrorFileExists);
    return Fail(ec ? FromErrno(ec.value()) : kErrorAccessDenied);
  }
  return true;
}

bool PosixEnv::DeleteFileW(const wchar_t* path) {
  const std::string host = HostPath(path);
  if (host.empty()) return Fail(kErrorPathNotFound);
  if (::unlink(host.c_str()) != 0) return Fail(FromErrno(errno));
  return true;
}

bool PosixEnv::Lookup(HANDLE handle, OpenFile* file) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == files_.end()) return false;
  *file = it->second;
  return true;
}

void PosixEnv::Store(HANDLE handle, const OpenFile& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it != files_.end()) it->second.position = file.position;
}

HANDLE PosixEnv::CreateFileW(const wchar_t* path, DWORD access, DWORD /*share*/, DWORD disposition,
                             DWORD flags_and_attributes) {
  if (path == nullptr) {
    t_last_error = kErrorInvalidParameter;
    return InvalidHandle();
  }
  if (posix::IsVolumePath(path))
    return Forward([&](DWORD* e) { return Volumes().CreateFile(path, access, disposition, flags_and_attributes, e); });
  const std::wstring wpath(path);
  OpenFile file;
  std::string host;
  if (wpath.rfind(L"\\\\.\\", 0) == 0 || wpath.rfind(L"\\\\?\\", 0) == 0) {
    DWORD error = kErrorFileNotFound;
    if (!posix::ResolveDevice(wpath, &file.device, &error)) {
      t_last_error = error;
      return InvalidHandle();
    }
    if ((access & (kGenericWrite | kFileAppendData)) != 0) {
      t_last_error = kErrorAccessDenied;  // disks are only ever read here
      return InvalidHandle();
    }
    file.is_device = true;
    host = file.device.host_path;
    if (file.device.image) return StoreNew(file);  // read through the container, no descriptor of its own
  } else {
    host = HostPath(path);
    if (host.empty()) {
      t_last_error = kErrorPathNotFound;
      return InvalidHandle();
    }
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
  file.fd = ::open(host.c_str(), flags, 0666);
  if (file.fd < 0) {
    t_last_error = (errno == ENOENT && host.find('/') != std::string::npos &&
                    !std::filesystem::exists(std::filesystem::path(host).parent_path()))
                       ? kErrorPathNotFound
                       : FromErrno(errno);
    return InvalidHandle();
  }
  return StoreNew(file);
}

HANDLE PosixEnv::StoreNew(const OpenFile& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::uintptr_t id = (next_handle_ += 4);
  files_[id] = file;
  t_last_error = kErrorSuccess;
  return reinterpret_cast<HANDLE>(id);
}

bool PosixEnv::ReadFile(HANDLE handle, void* buffer, DWORD to_read, DWORD* read) {
  OpenFile file;
  if (read) *read = 0;
  if (!Lookup(handle, &file)) return Fail(kErrorInvalidHandle);
  if (buffer == nullptr && to_read > 0) return Fail(kErrorInvalidParameter);
  std::int64_t want = to_read;
  if (file.is_device && file.device.length >= 0) {
    // Past the end of a disk or volume is a short read, as on Windows.
    want = std::max<std::int64_t>(0, std::min<std::int64_t>(want, file.device.length - file.position));
  }
  const std::int64_t base = file.is_device ? file.device.base : 0;
  std::int64_t done = 0;
  auto* out = static_cast<unsigned char*>(buffer);
  if (file.device.image) {
    done = file.device.image->Read(static_cast<std::uint64_t>(base + file.position),
                                   std::span(reinterpret_cast<std::byte*>(out), static_cast<std::size_t>(want)));
    if (done < 0) return Fail(kErrorReadFault);
  }
  while (!file.device.image && done < want) {
    const ssize_t n = ::pread(file.fd, out + done, static_cast<std::size_t>(want - done),
                              static_cast<off_t>(base + file.position + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return Fail(FromErrno(errno));
    }
    if (n == 0) break;
    done += n;
  }
  file.position += done;
  Store(handle, file);
  if (read) *read = static_cast<DWORD>(done);
  t_last_error = kErrorSuccess;
  return true;
}

bool PosixEnv::WriteFile(HANDLE handle, const void* buffer, DWORD to_write, DWORD* written) {
  OpenFile file;
  if (written) *written = 0;
  if (!Lookup(handle, &file)) return Fail(kErrorInvalidHandle);
  if (file.is_device) return Fail(kErrorAccessDenied);
  const auto* in = static_cast<const unsigned char*>(buffer);
  std::int64_t done = 0;
  while (done < to_write) {
    const ssize_t n = file.append ? ::write(file.fd, in + done, to_write - static_cast<std::size_t>(done))
                                  : ::pwrite(file.fd, in + done, to_write - static_cast<std::size_t>(done),
                                             static_cast<off_t>(file.position + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return Fail(FromErrno(errno));
    }
    done += n;
  }
  file.position += done;
  Store(handle, file);
  if (written) *written = static_cast<DWORD>(done);
  return true;
}

bool PosixEnv::SetFilePointerEx(HANDLE handle, std::int64_t distance, std::int64_t* new_position, DWORD method) {
  OpenFile file;
  if (!Lookup(handle, &file)) return Fail(kErrorInvalidHandle);
  std::int64_t origin = 0;
  if (method == kFileCurrent) {
    origin = file.position;
  } else if (method == kFileEnd) {
    if (file.is_device && file.device.length >= 0) {
      origin = file.device.length;
    } else {
      struct stat st{};
      if (::fstat(file.fd, &st) != 0) return Fail(FromErrno(errno));
      origin = st.st_size;
    }
  } else if (method != kFileBegin) {
    return Fail(kErrorInvalidParameter);
  }
  std::int64_t target = 0;
  if (__builtin_add_overflow(origin, distance, &target) || target < 0) return Fail(kErrorNegativeSeek);
  file.position = target;
  Store(handle, file);
  if (new_position) *new_position = target;
  t_last_error = kErrorSuccess;
  return true;
}

bool PosixEnv::CloseHandle(HANDLE handle) {
  if (posix::VolumeFiles::Owns(handle)) return Forward([&](DWORD* e) { return Volumes().CloseHandle(handle, e); });
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == files_.end()) return Fail(kErrorInvalidHandle);
  if (it->second.fd >= 0) ::close(it->second.fd);
  files_.erase(it);
  return true;
}

bool PosixEnv::DeviceIoControl(HANDLE device, DWORD code, const void* /*in*/, DWORD /*in_size*/, void* out,
                               DWORD out_size, DWORD* returned) {
  OpenFile file;
  if (returned) *returned = 0;
  if (!Lookup(device, &file)) return Fail(kErrorInvalidHandle);
  if (!file.is_device) return Fail(kErrorInvalidFunction);
  DWORD error = kErrorInvalidFunction;
  DWORD count = 0;
  if (!posix::DeviceControl(file.device, code, out, out_size, &count, &error)) {
    if (returned) *returned = count;
    return Fail(error);
  }
  if (returned) *returned = count;
  return true;
}

bool PosixEnv::GetVolumeNameForVolumeMountPointW(const wchar_t* mount_point, wchar_t* buffer, DWORD size) {
  if (mount_point == nullptr) return Fail(kErrorInvalidParameter);
  std::wstring name;
  DWORD error = kErrorFileNotFound;
  if (!posix::VolumeNameForMountPoint(mount_point, &name, &error)) return Fail(error);
  if (buffer == nullptr || name.size() + 1 > size) return Fail(kErrorFilenameExcedRange);
  CopyOut(name, buffer, size);
  return true;
}

// The file-level calls on lettered volumes are answered by the volume file services.
HANDLE PosixEnv::OpenFileById(HANDLE volume_hint, const FileIdDescriptor* id, DWORD access, DWORD, DWORD flags) {
  OpenFile volume;
  if (!Lookup(volume_hint, &volume)) {
    t_last_error = kErrorInvalidHandle;
    return InvalidHandle();
  }
  // A file's handle binds no volume (-1), which the services refuse.
  return Forward([&](DWORD* e) { return Volumes().OpenFileById(volume.device, id, access, flags, e); });
}
bool PosixEnv::GetFileInformationByHandleEx(HANDLE file, DWORD info_class, void* buffer, DWORD size) {
  if (!posix::VolumeFiles::Owns(file)) return Fail(kErrorInvalidHandle);
  return Forward([&](DWORD* e) { return Volumes().GetFileInformationByHandleEx(file, info_class, buffer, size, e); });
}
bool PosixEnv::GetFileInformationByHandle(HANDLE file, ByHandleFileInformation* info) {
  if (!posix::VolumeFiles::Owns(file)) return Fail(kErrorInvalidHandle);
  return Forward([&](DWORD* e) { return Volumes().GetFileInformationByHandle(file, info, e); });
}
bool PosixEnv::GetFileSizeEx(HANDLE handle, std::int64_t* size) {
  if (posix::VolumeFiles::Owns(handle)) return Forward([&](DWORD* e) { return Volumes().GetFileSizeEx(handle, size, e); });
  OpenFile file;
  if (!Lookup(handle, &file)) return Fail(kErrorInvalidHandle);
  if (file.is_device && file.device.length >= 0) {
    if (size) *size = file.device.length;
    return true;
  }
  struct stat st{};
  if (::fstat(file.fd, &st) != 0) return Fail(FromErrno(errno));
  if (size) *size = st.st_size;
  return true;
}
HANDLE PosixEnv::FindFirstFileNameW(const wchar_t* path, DWORD flags, DWORD* length, wchar_t* buffer) {
  if (!posix::IsVolumePath(path)) {
    t_last_error = kErrorPathNotFound;
    return InvalidHandle();
  }
  return Forward([&](DWORD* e) { return Volumes().FindFirstFileName(path, flags, length, buffer, e); });
}
bool PosixEnv::FindNextFileNameW(HANDLE find, DWORD* length, wchar_t* buffer) {
  return Forward([&](DWORD* e) { return Volumes().FindNextFileName(find, length, buffer, e); });
}
HANDLE PosixEnv::FindFirstFileW(const wchar_t* pattern, FindData* data) {
  if (!posix::IsVolumePath(pattern)) {
    t_last_error = kErrorPathNotFound;
    return InvalidHandle();
  }
  return Forward([&](DWORD* e) { return Volumes().FindFirstFile(pattern, data, e); });
}
bool PosixEnv::FindNextFileW(HANDLE find, FindData* data) {
  return Forward([&](DWORD* e) { return Volumes().FindNextFile(find, data, e); });
}
bool PosixEnv::FindClose(HANDLE find) {
  return Forward([&](DWORD* e) { return Volumes().FindClose(find, e); });
}

DWORD PosixEnv::GetFileAttributesW(const wchar_t* path) {
  if (posix::IsVolumePath(path)) return Forward([&](DWORD* e) { return Volumes().GetFileAttributes(path, e); });
  const std::string host = HostPath(path);
  struct stat st{};
  if (host.empty() || ::stat(host.c_str(), &st) != 0) {
    t_last_error = host.empty() ? kErrorPathNotFound : FromErrno(errno);
    return kInvalidFileAttributes;
  }
  return S_ISDIR(st.st_mode) ? kFileAttributeDirectory : kFileAttributeNormal;
}

}  // namespace platform
