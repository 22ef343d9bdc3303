// The INI files behind PosixEnv's private-profile calls, read and written as Windows
// does: case-insensitive sections and keys, the first match wins, blanks around names
// and values dropped, CRLF lines.
#pragma once

#include <optional>
#include <string>

#include "platform/env.h"

namespace platform::ini {

// The value of `key` in the first `section` of the file at host path `path`, without
// the quotes around it; nothing when the file, section or key is missing.
std::optional<std::wstring> Lookup(const std::string& path, const std::wstring& section, const std::wstring& key);

std::wstring Trim(const std::wstring& text);

// A value as GetPrivateProfileIntW reads it: an optional sign, then decimal digits
// (or hex after 0x) as far as they go, none giving 0; large values stop at 2^32 - 1.
UINT LeadingNumber(const std::wstring& value);

// Sets `key` of `section` (the section is added when missing), deletes the key when
// `value` is null, or the whole section when `key` is null. The file is replaced
// whole. 0, or the errno of the failure.
int Write(const std::string& path, const std::wstring& section, const wchar_t* key, const wchar_t* value);

}  // namespace platform::ini
