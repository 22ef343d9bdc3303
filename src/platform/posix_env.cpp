#include "platform/posix_env.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "platform/posix_disks.h"
#include "platform/posix_errno.h"
#include "platform/posix_host_files.h"
#include "platform/posix_ini.h"
#include "platform/posix_paths.h"
#include "platform/posix_version.h"
#include "platform/posix_volume_files.h"

namespace platform {
namespace {

using posix::FromErrno;

thread_local DWORD t_last_error = 0;

// Files on lettered volumes are answered by the volume file services.
posix::VolumeFiles& Volumes() { return posix::VolumeFiles::Instance(); }

// The units report a failure's Win32 error through the last argument. Forward makes
// it the last error, success included, for the calls that clear it when they
// succeed; the others end in `|| Fail(error)`, keeping it unless they fail.
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

HANDLE PosixEnv::CreateFileW(const wchar_t* path, DWORD access, DWORD /*share*/, DWORD disposition,
                             DWORD flags_and_attributes) {
  if (path == nullptr) {
    t_last_error = kErrorInvalidParameter;
    return InvalidHandle();
  }
  if (posix::IsVolumePath(path))
    return Forward([&](DWORD* e) { return Volumes().CreateFile(path, access, disposition, flags_and_attributes, e); });
  return Forward([&](DWORD* e) { return files_.Open(path, access, disposition, e); });
}

bool PosixEnv::ReadFile(HANDLE handle, void* buffer, DWORD to_read, DWORD* read) {
  return Forward([&](DWORD* e) { return files_.Read(handle, buffer, to_read, read, e); });
}

ReadResult PosixEnv::ReadAt(HANDLE handle, std::uint64_t offset, void* buffer, DWORD size) {
  const ReadResult result = files_.ReadAt(handle, offset, buffer, size);
  t_last_error = result.error;  // success unless the seek or the read failed
  return result;
}

bool PosixEnv::WriteFile(HANDLE handle, const void* buffer, DWORD to_write, DWORD* written) {
  DWORD error = kErrorSuccess;
  return files_.Write(handle, buffer, to_write, written, &error) || Fail(error);
}

bool PosixEnv::SetFilePointerEx(HANDLE handle, std::int64_t distance, std::int64_t* new_position, DWORD method) {
  return Forward([&](DWORD* e) { return files_.Seek(handle, distance, new_position, method, e); });
}

bool PosixEnv::CloseHandle(HANDLE handle) {
  if (posix::VolumeFiles::Owns(handle)) return Forward([&](DWORD* e) { return Volumes().CloseHandle(handle, e); });
  DWORD error = kErrorSuccess;
  return files_.Close(handle, &error) || Fail(error);
}

bool PosixEnv::DeviceIoControl(HANDLE device, DWORD code, const void* /*in*/, DWORD /*in_size*/, void* out,
                               DWORD out_size, DWORD* returned) {
  posix::HostFiles::OpenFile file;
  if (returned) *returned = 0;
  if (!files_.Lookup(device, &file)) return Fail(kErrorInvalidHandle);
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
  posix::HostFiles::OpenFile volume;
  if (!files_.Lookup(volume_hint, &volume)) {
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
  DWORD error = kErrorSuccess;
  return files_.Size(handle, size, &error) || Fail(error);
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
