#include <cerrno>
#include <climits>
#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <string>

#include "koru_mft/varnel_string.h"

namespace varnel {

string::string() : m_wszInline{}, m_pwszHeap(nullptr), m_uiLength(0), m_uiCapacity(0), m_pszNarrow(nullptr) {}

string::string(const wchar_t* text) : string() {
  if (text != nullptr) assign(text, std::wcslen(text));
}

string::string(const wchar_t* text, std::size_t length) : string() {
  if (text != nullptr) assign(text, length);
}

string::string(const char* narrow) : string() {
  if (narrow == nullptr || *narrow == '\0') return;
  const std::size_t bytes = std::strlen(narrow);
  std::wstring buffer(bytes + 1, L'\0');
  std::mbstate_t state{};
  const char* src = narrow;
  std::size_t converted = std::mbsrtowcs(buffer.data(), &src, bytes + 1, &state);
  if (converted == static_cast<std::size_t>(-1) || converted == 0) {
    // A failed conversion still gives a string of the expected length.
    buffer.assign(bytes, L'?');
    converted = bytes;
  }
  assign(buffer.data(), converted);
}

string::string(const string& other) : string() { assign(other.c_str(), other.m_uiLength); }

string::string(string&& other) noexcept : string() {
  std::wmemcpy(m_wszInline, other.m_wszInline, kInline);
  m_pwszHeap = other.m_pwszHeap;
  m_uiLength = other.m_uiLength;
  m_uiCapacity = other.m_uiCapacity;
  other.m_pwszHeap = nullptr;
  other.m_wszInline[0] = 0;
  other.m_uiLength = 0;
  other.m_uiCapacity = 0;
}

string::~string() {
  delete[] m_pwszHeap;
  delete[] m_pszNarrow;
}

string& string::operator=(const string& other) {
  if (this != &other) assign(other.c_str(), other.m_uiLength);
  return *this;
}

string& string::operator=(string&& other) noexcept {
  if (this != &other) {
    delete[] m_pwszHeap;
    std::wmemcpy(m_wszInline, other.m_wszInline, kInline);
    m_pwszHeap = other.m_pwszHeap;
    m_uiLength = other.m_uiLength;
    m_uiCapacity = other.m_uiCapacity;
    other.m_pwszHeap = nullptr;
    other.m_wszInline[0] = 0;
    other.m_uiLength = 0;
    other.m_uiCapacity = 0;
  }
  return *this;
}

string& string::operator=(const wchar_t* text) {
  if (text == nullptr) {
    assign(L"", 0);
  } else {
    // The text may point into this string; copy it first.
    std::wstring copy(text);
    assign(copy.data(), copy.size());
  }
  return *this;
}

string& string::operator+=(const wchar_t* text) {
  if (text == nullptr) return *this;
  std::wstring joined(c_str(), m_uiLength);
  joined.append(text);
  assign(joined.data(), joined.size());
  return *this;
}

string& string::operator+=(const string& other) {
  std::wstring joined(c_str(), m_uiLength);
  joined.append(other.c_str(), other.m_uiLength);
  assign(joined.data(), joined.size());
  return *this;
}

string& string::operator+=(wchar_t c) {
  const wchar_t text[2] = {c, 0};
  return *this += text;
}

const wchar_t* string::c_str() const {
  if (m_pwszHeap != nullptr && m_wszInline[0] == 0) return m_pwszHeap;
  return m_wszInline;
}

void string::set_at(std::size_t i, wchar_t c) {
  if (i >= m_uiLength) return;
  const_cast<wchar_t*>(c_str())[i] = c;
}

wchar_t* string::reserve_for(std::size_t length, bool keep) {
  if (m_pwszHeap == nullptr && length + 1 <= kInline) return m_wszInline;
  if (m_pwszHeap != nullptr && length <= m_uiCapacity) {
    // Shrinking keeps the heap buffer; the text moves there.
    if (keep && m_wszInline[0] != 0) std::wmemcpy(m_pwszHeap, m_wszInline, m_uiLength + 1);
    m_wszInline[0] = 0;
    return m_pwszHeap;
  }
  // Exact growth: the old buffer goes first.
  std::wstring saved;
  if (keep) saved.assign(c_str(), m_uiLength);
  delete[] m_pwszHeap;
  m_pwszHeap = nullptr;
  m_uiCapacity = 0;
  m_pwszHeap = new wchar_t[length + 1];
  m_uiCapacity = length;
  std::wmemcpy(m_pwszHeap, saved.data(), saved.size());
  m_pwszHeap[saved.size()] = 0;
  m_wszInline[0] = 0;
  return m_pwszHeap;
}

void string::assign(const wchar_t* text, std::size_t length) {
  std::wstring copy(text, length);  // text may alias our own buffer
  wchar_t* dest = reserve_for(length, false);
  std::wmemcpy(dest, copy.data(), length);
  dest[length] = 0;
  m_uiLength = length;
}

void string::resize(std::size_t length) {
  std::wstring text(c_str(), m_uiLength);
  text.resize(length, L'\0');
  wchar_t* dest = reserve_for(length, false);
  std::wmemcpy(dest, text.data(), length);
  dest[length] = 0;
  m_uiLength = length;
}

std::size_t string::rfind(wchar_t c) const {
  const wchar_t* text = c_str();
  for (std::size_t i = m_uiLength; i > 0; --i)
    if (text[i - 1] == c) return i - 1;
  return npos;
}

void string::erase(std::size_t pos) {
  if (pos >= m_uiLength) return;
  std::wstring head(c_str(), pos);
  assign(head.data(), head.size());
}

int string::compare_nocase(const string& other) const {
  const wchar_t* a = c_str();
  const wchar_t* b = other.c_str();
  for (;; ++a, ++b) {
    const std::wint_t ca = std::towlower(static_cast<std::wint_t>(*a));
    const std::wint_t cb = std::towlower(static_cast<std::wint_t>(*b));
    if (ca != cb) return ca < cb ? -1 : 1;
    if (*a == 0) return 0;
  }
}

bool string::operator==(const string& other) const {
  return m_uiLength == other.m_uiLength && std::wmemcmp(c_str(), other.c_str(), m_uiLength) == 0;
}

bool string::operator==(const wchar_t* other) const {
  return other != nullptr && std::wcscmp(c_str(), other) == 0;
}

const char* string::narrow() const {
  // Character by character: each one that the locale cannot express becomes one "?",
  // the rest converts normally.
  std::string out;
  const wchar_t* text = c_str();
  char mb[MB_LEN_MAX];
  std::mbstate_t state{};
  for (std::size_t i = 0; i < m_uiLength; ++i) {
    const std::size_t n = std::wcrtomb(mb, text[i], &state);
    if (n == static_cast<std::size_t>(-1)) {
      out.push_back('?');
      state = std::mbstate_t{};
    } else {
      out.append(mb, n);
    }
  }
  char* buffer = new char[out.size() + 1];
  std::memcpy(buffer, out.c_str(), out.size() + 1);
  delete[] m_pszNarrow;
  m_pszNarrow = buffer;
  return m_pszNarrow;
}

}  // namespace varnel
