// UTF-8 <-> wide text for logs, INI files, host paths and the command line. wchar_t
// is UTF-16 on Windows and UTF-32 on Linux; both go through here. Decoding is
// strict: overlong forms, encoded surrogates and code points past U+10FFFF are no
// characters (an overlong "/" must never pass a path check). Whatever cannot be
// decoded or encoded becomes U+FFFD, one per maximal subpart as Unicode recommends,
// so a conversion never fails.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace koru {

inline constexpr std::uint32_t kReplacementCharacter = 0xFFFD;

inline void AppendUtf8(std::string& out, std::uint32_t c) {
  if (c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) c = kReplacementCharacter;
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

inline void AppendWide(std::wstring& out, std::uint32_t c) {
  if (sizeof(wchar_t) == 2 && c >= 0x10000) {
    out.push_back(static_cast<wchar_t>(0xD800 + ((c - 0x10000) >> 10)));
    out.push_back(static_cast<wchar_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
  } else {
    out.push_back(static_cast<wchar_t>(c));
  }
}

inline std::wstring WideFromUtf8(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  const auto at = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (std::size_t i = 0; i < text.size();) {
    const unsigned lead = at(i);
    if (lead < 0x80) {
      out.push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    }
    // The well-formed sequences: how many bytes follow the lead, and the range of
    // the first of them (narrower after E0, ED, F0 and F4; 80..BF otherwise).
    std::size_t follow = 0;
    unsigned low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      follow = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      follow = 2;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      follow = 3;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    }
    std::uint32_t c = lead & (0x7Fu >> (follow + 1));
    std::size_t n = 1;  // bytes of the sequence that are well-formed so far
    for (; follow != 0 && n <= follow && i + n < text.size(); ++n) {
      const unsigned b = at(i + n);
      if (b < low || b > high) break;
      c = (c << 6) | (b & 0x3F);
      low = 0x80;
      high = 0xBF;
    }
    if (follow == 0 || n <= follow) {
      out.push_back(static_cast<wchar_t>(kReplacementCharacter));  // one for the maximal subpart
    } else {
      AppendWide(out, c);
    }
    i += n;
  }
  return out;
}

}  // namespace koru
