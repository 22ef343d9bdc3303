#include "platform/posix_ini.h"

#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwctype>
#include <fstream>
#include <sstream>
#include <vector>

#include "base/utf8.h"

namespace platform::ini {
namespace {

bool EqualNoCase(const std::wstring& a, const std::wstring& b) { return ::wcscasecmp(a.c_str(), b.c_str()) == 0; }

std::vector<std::wstring> ReadLines(const std::string& path) {
  std::vector<std::wstring> lines;
  std::ifstream in(path, std::ios::binary);
  if (!in) return lines;
  std::stringstream buffer;
  buffer << in.rdbuf();
  std::string bytes = buffer.str();
  if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
  std::wstring line;
  for (wchar_t c : koru::WideFromUtf8(bytes)) {
    if (c != L'\n') {
      line.push_back(c);
      continue;
    }
    if (!line.empty() && line.back() == L'\r') line.pop_back();
    lines.push_back(line);
    line.clear();
  }
  if (!line.empty()) lines.push_back(line);
  return lines;
}

bool IsSection(const std::wstring& line, std::wstring* name) {
  const std::wstring t = Trim(line);
  const auto close = t.find(L']');
  if (t.size() < 2 || t.front() != L'[' || close == std::wstring::npos) return false;
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

}  // namespace

std::wstring Trim(const std::wstring& text) {
  const auto first = text.find_first_not_of(L" \t\r\n");
  if (first == std::wstring::npos) return L"";
  return text.substr(first, text.find_last_not_of(L" \t\r\n") - first + 1);
}

std::optional<std::wstring> Lookup(const std::string& path, const std::wstring& section, const std::wstring& key) {
  bool in_section = false;
  for (const auto& line : ReadLines(path)) {
    std::wstring name, k, v;
    if (IsSection(line, &name)) {
      if (in_section) return std::nullopt;  // only the first matching section counts
      in_section = EqualNoCase(name, section);
    } else if (in_section && IsKey(line, &k, &v) && EqualNoCase(k, key)) {
      if (v.size() >= 2 && (v.front() == L'"' || v.front() == L'\'') && v.back() == v.front()) v = v.substr(1, v.size() - 2);
      return v;
    }
  }
  return std::nullopt;
}

UINT LeadingNumber(const std::wstring& value) {
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

int Write(const std::string& path, const std::wstring& section, const wchar_t* key, const wchar_t* value) {
  std::vector<std::wstring> lines = ReadLines(path);
  const std::wstring new_line = key ? std::wstring(key) + L"=" + (value ? value : L"") : L"";
  std::ptrdiff_t section_at = -1, section_end = static_cast<std::ptrdiff_t>(lines.size()), key_at = -1;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::wstring name, k, v;
    if (IsSection(lines[i], &name)) {
      if (section_at >= 0) {
        section_end = static_cast<std::ptrdiff_t>(i);
        break;
      }
      if (EqualNoCase(name, section)) section_at = static_cast<std::ptrdiff_t>(i);
    } else if (section_at >= 0 && key_at < 0 && key && IsKey(lines[i], &k, &v) && EqualNoCase(k, key)) {
      key_at = static_cast<std::ptrdiff_t>(i);
    }
  }
  if (section_at < 0) {
    if (key == nullptr) return 0;
    lines.push_back(L"[" + section + L"]");
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
  for (const auto& line : lines) out += koru::Utf8FromWide(line) + "\r\n";
  // Written beside the file and renamed over it, so a reader never sees half a file.
  const std::string temp = path + ".tmp" + std::to_string(::getpid());
  {
    std::ofstream file(temp, std::ios::binary | std::ios::trunc);
    if (!file) return errno ? errno : EACCES;
    if (!(file << out).flush()) return EACCES;
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    return e;
  }
  return 0;
}

}  // namespace platform::ini
