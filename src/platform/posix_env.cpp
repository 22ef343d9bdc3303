#include "platform/posix_env.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "base/utf8.h"
#include "platform/posix_volume_files.h"

namespace platform {
namespace {

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

DWORD FromErrno(int e) {
  switch (e) {
    case 0: return kErrorSuccess;
    case ENOENT: return kErrorFileNotFound;
    case ENOTDIR: return kErrorPathNotFound;
    case EACCES:
    case EPERM:
    case EROFS: return kErrorAccessDenied;
    case EEXIST: return kErrorAlreadyExists;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EINVAL: return kErrorInvalidParameter;
    case ENAMETOOLONG: return kErrorInvalidName;
    case EIO: return kErrorReadFault;
    case ENOSPC: return 112;  // ERROR_DISK_FULL
    default: return kErrorInvalidFunction;
  }
}

bool Fail(DWORD error) {
  t_last_error = error;
  return false;
}

bool EqualNoCase(const std::wstring& a, const std::wstring& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towlower(static_cast<std::wint_t>(x)) == std::towlower(static_cast<std::wint_t>(y));
         });
}

std::wstring Trim(const std::wstring& s) {
  const auto first = s.find_first_not_of(L" \t\r\n");
  if (first == std::wstring::npos) return L"";
  const auto last = s.find_last_not_of(L" \t\r\n");
  return s.substr(first, last - first + 1);
}

// Copies text into a Win32 caller buffer, truncating; returns the count copied.
DWORD CopyOut(const std::wstring& text, wchar_t* buffer, DWORD size) {
  if (buffer == nullptr || size == 0) return 0;
  const std::size_t n = std::min<std::size_t>(text.size(), size - 1);
  std::copy_n(text.data(), n, buffer);
  buffer[n] = 0;
  return static_cast<DWORD>(n);
}

// --- the version resource of the library on Linux: a small block of our own shape.
constexpr char kVersionMagic[4] = {'K', 'V', 'I', '1'};
struct VersionBlock {
  char magic[4];
  std::uint16_t translation[2];
  wchar_t file_version[32];
};

std::wstring LibraryVersionText() { return FromUtf8(KORU_VERSION_STRING); }

// The path of the object that holds this code: libkoru_mft.so, or the program
// that linked the core statically.
std::string OwnObjectPath() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&OwnObjectPath), &info) == 0 || info.dli_fname == nullptr) return {};
  std::error_code ec;
  auto canonical = std::filesystem::canonical(info.dli_fname, ec);
  return ec ? std::string(info.dli_fname) : canonical.string();
}

std::string ExecutablePath() {
  std::error_code ec;
  auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : p.string();
}

bool IsLibraryObject(const std::string& path) {
  const std::string name = std::filesystem::path(path).filename().string();
  return name.rfind("libkoru_mft.so", 0) == 0;
}

HMODULE ProcessModule() { return reinterpret_cast<HMODULE>(std::uintptr_t{1}); }

// --- INI files
std::vector<std::wstring> ReadLines(const std::string& path, bool* exists) {
  std::vector<std::wstring> lines;
  std::ifstream in(path, std::ios::binary);
  *exists = static_cast<bool>(in);
  if (!in) return lines;
  std::stringstream buffer;
  buffer << in.rdbuf();
  std::string bytes = buffer.str();
  if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) bytes.erase(0, 3);
  std::wstring text = FromUtf8(bytes);
  std::wstring line;
  for (wchar_t c : text) {
    if (c == L'\n') {
      if (!line.empty() && line.back() == L'\r') line.pop_back();
      lines.push_back(line);
      line.clear();
    } else {
      line.push_back(c);
    }
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

bool IsSection(const std::wstring& line, std::wstring* name) {
  const std::wstring t = Trim(line);
  if (t.size() < 2 || t.front() != L'[') return false;
  const auto close = t.find(L']');
  if (close == std::wstring::npos) return false;
  *name = Trim(t.substr(1, close - 1));
  return true;
}

bool IsKey(const std::wstring& line, std::wstring* key, std::wstring* value) {
  const auto eq = line.find(L'=');
  if (eq == std::wstring::npos) return false;
  *key = Trim(line.substr(0, eq));
  *value = Trim(line.substr(eq + 1));
  return true;
}

// First value of section/key, as Windows finds it.
bool IniLookup(const std::string& path, const std::wstring& section, const std::wstring& key, std::wstring* value) {
  bool exists = false;
  const auto lines = ReadLines(path, &exists);
  bool in_section = false;
  for (const auto& line : lines) {
    std::wstring name, k, v;
    if (IsSection(line, &name)) {
      if (in_section) return false;  // first matching section only
      in_section = EqualNoCase(name, section);
      continue;
    }
    if (in_section && IsKey(line, &k, &v) && EqualNoCase(k, key)) {
      if (v.size() >= 2 && ((v.front() == L'"' && v.back() == L'"') || (v.front() == L'\'' && v.back() == L'\'')))
        v = v.substr(1, v.size() - 2);
      *value = v;
      return true;
    }
  }
  return false;
}

}  // namespace

std::string ToUtf8(const std::wstring& text) { return koru::Utf8FromWide(text); }
std::wstring FromUtf8(const std::string& text) { return koru::WideFromUtf8(text); }

std::string HostPath(const wchar_t* windows_path) {
  if (windows_path == nullptr) return {};
  std::wstring p(windows_path);
  if (p.size() >= 2 && p[1] == L':') {
    if (std::towupper(static_cast<std::wint_t>(p[0])) != L'Z') return {};
    p = p.substr(2);
    if (p.empty()) p = L"/";
  }
  std::replace(p.begin(), p.end(), L'\\', L'/');
  return ToUtf8(p);
}

std::wstring WindowsPath(const std::string& host_path) {
  std::wstring p = FromUtf8(host_path);
  if (p.empty() || p.front() != L'/') return p;
  std::replace(p.begin(), p.end(), L'/', L'\\');
  return L"Z:" + p;
}

Env& DefaultBackend() {
  static PosixEnv* env = new PosixEnv;  // lives for the process: tracing may run at unload
  return *env;
}

DWORD PosixEnv::GetLastError() { return t_last_error; }
void PosixEnv::SetLastError(DWORD error) { t_last_error = error; }

HMODULE PosixEnv::GetModuleHandleW(const wchar_t* module_name) {
  if (module_name == nullptr) return ProcessModule();
  std::wstring name(module_name);
  const std::string own = OwnObjectPath();
  // The library answers to its Windows name when it is the shared object, and the
  // program answers to its own file name.
  if (EqualNoCase(name, L"KORU_MFT.DLL") && IsLibraryObject(own)) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(&OwnObjectPath), &info);
    return info.dli_fbase;
  }
  const std::wstring exe_name = FromUtf8(std::filesystem::path(ExecutablePath()).filename().string());
  if (EqualNoCase(name, exe_name)) return ProcessModule();
  t_last_error = 126;  // ERROR_MOD_NOT_FOUND
  return nullptr;
}

DWORD PosixEnv::GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD size) {
  std::string path;
  if (module == nullptr || module == ProcessModule()) {
    path = ExecutablePath();
  } else {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&OwnObjectPath), &info) != 0 && info.dli_fbase == module) path = OwnObjectPath();
  }
  if (path.empty()) {
    t_last_error = 126;
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
  const std::string host = HostPath(file_name);
  std::error_code ec;
  const auto canonical = std::filesystem::canonical(host, ec);
  if (ec) {
    t_last_error = kErrorFileNotFound;
    return 0;
  }
  if (!IsLibraryObject(canonical.string())) {
    t_last_error = kErrorResourceTypeNotFound;
    return 0;
  }
  return sizeof(VersionBlock);
}

bool PosixEnv::GetFileVersionInfoW(const wchar_t* file_name, DWORD size, void* data) {
  if (GetFileVersionInfoSizeW(file_name) == 0) return false;
  if (data == nullptr || size < sizeof(VersionBlock)) return Fail(kErrorInsufficientBuffer);
  VersionBlock block{};
  std::memcpy(block.magic, kVersionMagic, 4);
  block.translation[0] = 0x0409;
  block.translation[1] = 0x04B0;
  const std::wstring version = LibraryVersionText();
  CopyOut(version, block.file_version, 32);
  std::memcpy(data, &block, sizeof block);
  return true;
}

bool PosixEnv::VerQueryValueW(const void* block_data, const wchar_t* sub_block, const void** value, UINT* length) {
  if (block_data == nullptr || sub_block == nullptr || value == nullptr) return Fail(kErrorInvalidParameter);
  const auto* block = static_cast<const VersionBlock*>(block_data);
  if (std::memcmp(block->magic, kVersionMagic, 4) != 0) return Fail(kErrorResourceTypeNotFound);
  const std::wstring query(sub_block);
  if (EqualNoCase(query, L"\\VarFileInfo\\Translation")) {
    *value = block->translation;
    if (length) *length = sizeof block->translation;
    return true;
  }
  wchar_t expected[64];
  std::swprintf(expected, 64, L"\\StringFileInfo\\%4.4X%4.4X\\FileVersion", unsigned{block->translation[0]},
                unsigned{block->translation[1]});
  if (EqualNoCase(query, expected)) {
    *value = block->file_version;
    if (length) *length = static_cast<UINT>(std::wcslen(block->file_version) + 1);
    return true;
  }
  return Fail(kErrorResourceTypeNotFound);
}

DWORD PosixEnv::GetPrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* default_value,
                                         wchar_t* buffer, DWORD size, const wchar_t* file_name) {
  std::wstring value;
  const std::string path = HostPath(file_name);
  if (section == nullptr || key == nullptr || path.empty() || !IniLookup(path, section, key, &value)) {
    value = Trim(default_value ? default_value : L"");
    t_last_error = kErrorFileNotFound;
  }
  return CopyOut(value, buffer, size);
}

UINT PosixEnv::GetPrivateProfileIntW(const wchar_t* section, const wchar_t* key, int default_value,
                                     const wchar_t* file_name) {
  std::wstring value;
  const std::string path = HostPath(file_name);
  if (section == nullptr || key == nullptr || path.empty() || !IniLookup(path, section, key, &value))
    return static_cast<UINT>(default_value);
  // Leading digits only, as Windows reads them; none gives 0.
  std::size_t i = 0;
  bool negative = false;
  if (i < value.size() && (value[i] == L'-' || value[i] == L'+')) negative = value[i++] == L'-';
  int base = 10;
  if (i + 1 < value.size() && value[i] == L'0' && (value[i + 1] == L'x' || value[i + 1] == L'X')) {
    base = 16;
    i += 2;
  }
  std::uint64_t n = 0;
  for (; i < value.size(); ++i) {
    const wchar_t c = value[i];
    int digit = -1;
    if (c >= L'0' && c <= L'9') digit = c - L'0';
    else if (base == 16 && std::iswxdigit(static_cast<std::wint_t>(c))) digit = std::towlower(c) - L'a' + 10;
    if (digit < 0) break;
    n = std::min<std::uint64_t>(n * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit), UINT32_MAX);
  }
  const auto result = static_cast<UINT>(n);
  return negative ? static_cast<UINT>(0u - result) : result;
}

bool PosixEnv::WritePrivateProfileStringW(const wchar_t* section, const wchar_t* key, const wchar_t* value,
                                          const wchar_t* file_name) {
  const std::string path = HostPath(file_name);
  if (section == nullptr || path.empty()) return Fail(kErrorInvalidParameter);
  bool exists = false;
  std::vector<std::wstring> lines = ReadLines(path, &exists);
  const std::wstring new_line = key ? std::wstring(key) + L"=" + (value ? value : L"") : L"";
  std::ptrdiff_t section_at = -1;
  std::ptrdiff_t section_end = static_cast<std::ptrdiff_t>(lines.size());
  std::ptrdiff_t key_at = -1;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::wstring name, k, v;
    if (IsSection(lines[i], &name)) {
      if (section_at >= 0) {
        section_end = static_cast<std::ptrdiff_t>(i);
        break;
      }
      if (EqualNoCase(name, section)) section_at = static_cast<std::ptrdiff_t>(i);
      continue;
    }
    if (section_at >= 0 && key_at < 0 && key && IsKey(lines[i], &k, &v) && EqualNoCase(k, key))
      key_at = static_cast<std::ptrdiff_t>(i);
  }
  if (section_at < 0) {
    if (key == nullptr) return true;
    lines.push_back(L"[" + std::wstring(section) + L"]");
    lines.push_back(new_line);
  } else if (key == nullptr) {
    lines.erase(lines.begin() + section_at, lines.begin() + section_end);
  } else if (key_at >= 0) {
    if (value == nullptr) lines.erase(lines.begin() + key_at);
    else lines[static_cast<std::size_t>(key_at)] = new_line;
  } else if (value != nullptr) {
    // After the section's last non-blank line.
    std::ptrdiff_t at = section_end;
    while (at - 1 > section_at && Trim(lines[static_cast<std::size_t>(at - 1)]).empty()) --at;
    lines.insert(lines.begin() + at, new_line);
  }
  std::string out;
  for (const auto& line : lines) out += ToUtf8(line) + "\r\n";
  const std::string temp = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream file(temp, std::ios::binary | std::ios::trunc);
    if (!file) return Fail(FromErrno(errno));
    file << out;
    if (!file.flush()) return Fail(kErrorAccessDenied);
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    return Fail(FromErrno(e));
  }
  return true;
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
  while (done < want) {
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
  ::close(it->second.fd);
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
  struct stat st{};
  if (::fstat(file.fd, &st) != 0) return Fail(FromErrno(errno));
  if (size) *size = file.is_device && file.device.length >= 0 ? file.device.length : st.st_size;
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

DWORD PosixEnv::GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) {
  const auto value = name ? posix::WindowsVariable(name) : std::nullopt;
  if (!value) {
    t_last_error = kErrorEnvVarNotFound;
    return 0;
  }
  if (buffer == nullptr || value->size() + 1 > size) return static_cast<DWORD>(value->size() + 1);
  return CopyOut(*value, buffer, size);
}

UINT PosixEnv::GetWindowsDirectoryW(wchar_t* buffer, UINT size) {
  const std::wstring folder = posix::WindowsVariable(L"windir").value_or(L"C:\\Windows");
  if (buffer == nullptr || folder.size() + 1 > size) return static_cast<UINT>(folder.size() + 1);
  return CopyOut(folder, buffer, size);
}

LONG PosixEnv::SHGetFolderPathW(int csidl, DWORD, wchar_t* path) {
  const auto public_folder = posix::WindowsVariable(L"PUBLIC");
  if (csidl != kCsidlCommonDocuments || path == nullptr || !public_folder) return kEFail;
  CopyOut(*public_folder + L"\\Documents", path, 260);
  return kSOk;
}

DWORD PosixEnv::GetNetworkParams(void* fixed_info, DWORD* size) {
  if (size == nullptr) return kErrorInvalidParameter;
  constexpr DWORD kNeeded = 2 * kFixedInfoHostNameSize;  // host and domain names, as far as they are read
  if (fixed_info == nullptr || *size < kNeeded) {
    *size = kNeeded;
    return kErrorBufferOverflow;
  }
  char host[kFixedInfoHostNameSize] = {};
  if (::gethostname(host, sizeof host - 1) != 0) return FromErrno(errno);
  std::memset(fixed_info, 0, kNeeded);
  std::memcpy(fixed_info, host, std::strlen(host));
  return kErrorSuccess;
}

std::int64_t PosixEnv::Time64() { return static_cast<std::int64_t>(std::time(nullptr)); }

int PosixEnv::LocalTime64(std::int64_t time, std::tm* out) {
  if (out == nullptr) return EINVAL;
  const auto t = static_cast<std::time_t>(time);
  return ::localtime_r(&t, out) != nullptr ? 0 : (errno ? errno : EINVAL);
}

void PosixEnv::GetLocalTime(SystemTime* time) {
  struct timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm{};
  localtime_r(&ts.tv_sec, &tm);
  time->wYear = static_cast<std::uint16_t>(tm.tm_year + 1900);
  time->wMonth = static_cast<std::uint16_t>(tm.tm_mon + 1);
  time->wDayOfWeek = static_cast<std::uint16_t>(tm.tm_wday);
  time->wDay = static_cast<std::uint16_t>(tm.tm_mday);
  time->wHour = static_cast<std::uint16_t>(tm.tm_hour);
  time->wMinute = static_cast<std::uint16_t>(tm.tm_min);
  time->wSecond = static_cast<std::uint16_t>(tm.tm_sec);
  time->wMilliseconds = static_cast<std::uint16_t>(ts.tv_nsec / 1000000);
}

DWORD PosixEnv::GetCurrentThreadId() { return static_cast<DWORD>(::syscall(SYS_gettid)); }

std::wostream& PosixEnv::StdOut() { return std::wcout; }

bool PosixEnv::GetVersionExW(OsVersionInfo* info) {
  // Not Windows: a version no classification row matches.
  if (info == nullptr) return Fail(kErrorInvalidParameter);
  *info = OsVersionInfo{};
  return true;
}

bool PosixEnv::GetProductInfo(DWORD, DWORD, DWORD, DWORD, DWORD* product_type) {
  if (product_type) *product_type = 0;
  return Fail(kErrorProcNotFound);
}

UINT PosixEnv::GetSystemDirectoryW(wchar_t*, UINT) {
  t_last_error = kErrorCallNotImplemented;
  return 0;
}

UINT PosixEnv::GetSystemWow64DirectoryW(wchar_t*, UINT) {
  t_last_error = kErrorCallNotImplemented;
  return 0;
}

LONG PosixEnv::RegOpenKeyExW(HKEY, const wchar_t*, DWORD, DWORD, HKEY* result) {
  if (result) *result = 0;
  return static_cast<LONG>(kErrorFileNotFound);
}

LONG PosixEnv::RegQueryValueExW(HKEY, const wchar_t*, DWORD*, void*, DWORD*) {
  return static_cast<LONG>(kErrorInvalidHandle);
}

LONG PosixEnv::RegCloseKey(HKEY) { return static_cast<LONG>(kErrorInvalidHandle); }

LONG PosixEnv::RegUnLoadKeyW(HKEY, const wchar_t*) { return static_cast<LONG>(kErrorFileNotFound); }

DWORD PosixEnv::HostToNetworkLong(DWORD value) { return htonl(value); }

bool PosixEnv::InetNtoa(DWORD network_order, char* buffer, std::size_t size) {
  struct in_addr address{};
  address.s_addr = network_order;
  if (buffer == nullptr || size == 0) return Fail(kErrorInvalidParameter);
  return ::inet_ntop(AF_INET, &address, buffer, static_cast<socklen_t>(size)) != nullptr || Fail(kErrorInvalidParameter);
}

bool PosixEnv::OpenProcessToken(DWORD, HANDLE* token) {
  if (token) *token = InvalidHandle();
  return Fail(kErrorCallNotImplemented);
}

bool PosixEnv::LookupPrivilegeValueW(const wchar_t*, Luid*) { return Fail(kErrorNoSuchPrivilege); }

bool PosixEnv::AdjustTokenPrivileges(HANDLE, const TokenPrivileges*, DWORD, TokenPrivileges*, DWORD*) {
  return Fail(kErrorInvalidHandle);
}

}  // namespace platform
