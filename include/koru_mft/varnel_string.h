// varnel::string: the library's wide-character string. Short texts live inline;
// longer ones in a heap buffer that grows exactly and never shrinks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "koru_mft/export.h"

namespace varnel {

class KORU_MFT_API string {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  static constexpr std::size_t kInline = 8;

  string();
  string(const wchar_t* text);  // NOLINT: implicit like the wide literal it wraps
  string(const wchar_t* text, std::size_t length);
  explicit string(const char* narrow);
  string(const string& other);
  string(string&& other) noexcept;
  ~string();

  string& operator=(const string& other);
  string& operator=(string&& other) noexcept;
  string& operator=(const wchar_t* text);
  string& operator+=(const wchar_t* text);
  string& operator+=(const string& other);
  string& operator+=(wchar_t c);

  const wchar_t* c_str() const;
  std::size_t length() const { return m_uiLength; }
  std::size_t size() const { return m_uiLength; }
  std::size_t capacity() const { return m_uiCapacity; }
  bool empty() const { return m_uiLength == 0; }
  bool is_inline() const { return m_pwszHeap == nullptr || m_wszInline[0] != 0; }
  wchar_t operator[](std::size_t i) const { return c_str()[i]; }
  void set_at(std::size_t i, wchar_t c);

  // Last occurrence of c, or npos.
  std::size_t rfind(wchar_t c) const;
  // Removes everything from pos on (no effect when pos >= length).
  void erase(std::size_t pos);
  // Makes the text `length` characters long, zero-filled past the old end.
  void resize(std::size_t length);
  // Case-insensitive comparison (<0, 0, >0).
  int compare_nocase(const string& other) const;
  bool operator==(const string& other) const;
  bool operator==(const wchar_t* other) const;

  // Narrow (multibyte) copy, owned by the string until the next call or destruction.
  // Characters that cannot be converted become "?".
  const char* narrow() const;

 private:
  void assign(const wchar_t* text, std::size_t length);
  wchar_t* reserve_for(std::size_t length, bool keep);

  wchar_t m_wszInline[kInline];
  wchar_t* m_pwszHeap;
  std::uint64_t m_uiLength;
  std::uint64_t m_uiCapacity;
  mutable char* m_pszNarrow;
};

}  // namespace varnel
