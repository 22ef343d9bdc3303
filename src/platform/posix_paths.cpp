#include "platform/posix_paths.h"

#include <algorithm>
#include <cwctype>

#include "base/utf8.h"

namespace platform {

std::string HostPath(const wchar_t* windows_path) {
  if (windows_path == nullptr) return {};
  std::wstring p(windows_path);
  if (p.size() >= 2 && p[1] == L':') {
    if (std::towupper(static_cast<std::wint_t>(p[0])) != L'Z') return {};
    p = p.substr(2);
    if (p.empty()) p = L"/";
  }
  std::replace(p.begin(), p.end(), L'\\', L'/');
  return koru::Utf8FromWide(p);
}

std::wstring WindowsPath(const std::string& host_path) {
  std::wstring p = koru::WideFromUtf8(host_path);
  if (p.empty() || p.front() != L'/') return p;
  std::replace(p.begin(), p.end(), L'/', L'\\');
  return L"Z:" + p;
}

}  // namespace platform
