// UTF-8 <-> wide text for logs, INI files and host paths. wchar_t is UTF-16 on
// Windows and UTF-32 on Linux; both go through here. What cannot be encoded or
// decoded becomes "?", so a conversion never fails.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace koru {

inline void AppendUtf8(std::string& out, std::uint32_t c) {
  if (c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) c = '?';
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

inline std::string Utf8FromWide(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = static_cast<std::uint32_t>(text[i]);
    // A pair of UTF-16 halves is one character, also in a 32-bit wchar_t that holds
    // names copied from disk unit by unit.
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size()) {
      const auto low = static_cast<std::uint32_t>(text[i + 1]);
      if (low >= 0xDC00 && low < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
    }
    AppendUtf8(out, c);
  }
  return out;
}

inline std::wstring WideFromUtf8(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const auto b = static_cast<unsigned char>(text[i]);
    std::uint32_t c = b;
    std::size_t extra = 0;
    if (b >= 0xF0 && b < 0xF8) {
      c = b & 0x07;
      extra = 3;
    } else if (b >= 0xE0 && b < 0xF0) {
      c = b & 0x0F;
      extra = 2;
    } else if (b >= 0xC0 && b < 0xE0) {
      c = b & 0x1F;
      extra = 1;
    } else if (b >= 0x80) {
      out.push_back(L'?');
      ++i;
      continue;
    }
    bool ok = true;
    for (std::size_t k = 1; k <= extra; ++k) {
      if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    if (!ok || c > 0x10FFFF) {
      out.push_back(L'?');
      ++i;
      continue;
    }
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
      out.push_back(static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)));
      out.push_back(static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<wchar_t>(c));
    }
    i += extra + 1;
  }
  return out;
}

}  // namespace koru
