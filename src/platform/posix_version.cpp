#include "platform/posix_version.h"

#include <dlfcn.h>
#include <wchar.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <iterator>

#include "base/utf8.h"

namespace platform::posix {
namespace {

constexpr char kMagic[4] = {'K', 'V', 'I', '1'};
struct VersionBlock {
  char magic[4];
  std::uint16_t translation[2];
  wchar_t file_version[32];
};

bool EqualNoCase(const std::wstring& a, const std::wstring& b) { return ::wcscasecmp(a.c_str(), b.c_str()) == 0; }

// libkoru_mft.so, or the program that linked the core statically.
std::string OwnObjectPath() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&OwnObjectPath), &info) == 0 || info.dli_fname == nullptr) return {};
  std::error_code ec;
  auto canonical = std::filesystem::canonical(info.dli_fname, ec);
  return ec ? std::string(info.dli_fname) : canonical.string();
}

void* OwnObjectBase() {
  Dl_info info{};
  return ::dladdr(reinterpret_cast<void*>(&OwnObjectPath), &info) != 0 ? info.dli_fbase : nullptr;
}

std::string ExecutablePath() {
  std::error_code ec;
  auto p = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : p.string();
}

bool IsLibraryObject(const std::string& path) {
  return std::filesystem::path(path).filename().string().rfind("libkoru_mft.so", 0) == 0;
}

}  // namespace

HMODULE ProcessModule() { return reinterpret_cast<HMODULE>(std::uintptr_t{1}); }

HMODULE ModuleNamed(const std::wstring& name) {
  if (EqualNoCase(name, L"KORU_MFT.DLL") && IsLibraryObject(OwnObjectPath())) return OwnObjectBase();
  if (EqualNoCase(name, koru::WideFromUtf8(std::filesystem::path(ExecutablePath()).filename().string())))
    return ProcessModule();
  return nullptr;
}

std::string ModulePath(HMODULE module) {
  if (module == nullptr || module == ProcessModule()) return ExecutablePath();
  return module == OwnObjectBase() ? OwnObjectPath() : std::string();
}

DWORD VersionInfoSize(const std::string& host_path, DWORD* error) {
  std::error_code ec;
  const auto canonical = std::filesystem::canonical(host_path, ec);
  *error = ec ? kErrorFileNotFound : IsLibraryObject(canonical.string()) ? kErrorSuccess : kErrorResourceTypeNotFound;
  return *error == kErrorSuccess ? sizeof(VersionBlock) : 0;
}

void FillVersionInfo(void* data) {
  VersionBlock block{};
  std::memcpy(block.magic, kMagic, sizeof kMagic);
  block.translation[0] = 0x0409;  // U.S. English, Unicode
  block.translation[1] = 0x04B0;
  const std::wstring version = koru::WideFromUtf8(KORU_VERSION_STRING);
  ::wcsncpy(block.file_version, version.c_str(), std::size(block.file_version) - 1);
  std::memcpy(data, &block, sizeof block);
}

bool QueryVersionValue(const void* data, const std::wstring& sub_block, const void** value, UINT* length) {
  const auto* block = static_cast<const VersionBlock*>(data);
  if (std::memcmp(block->magic, kMagic, sizeof kMagic) != 0) return false;
  if (EqualNoCase(sub_block, L"\\VarFileInfo\\Translation")) {
    *value = block->translation;
    if (length) *length = sizeof block->translation;
    return true;
  }
  wchar_t expected[64];
  std::swprintf(expected, 64, L"\\StringFileInfo\\%4.4X%4.4X\\FileVersion", unsigned{block->translation[0]},
                unsigned{block->translation[1]});
  if (!EqualNoCase(sub_block, expected)) return false;
  *value = block->file_version;
  if (length) *length = static_cast<UINT>(std::wcslen(block->file_version) + 1);
  return true;
}

}  // namespace platform::posix
