// Windows paths of the Linux file system, as under Wine: Z: is the root.
#pragma once

#include <string>

namespace platform {

// "Z:\a\b" and "/a/b" name /a/b; a relative path keeps its place, with "\" turned
// into "/". Other drive letters have no host path here ("").
std::string HostPath(const wchar_t* windows_path);
// The Windows form that the core cuts at backslashes: /a/b -> Z:\a\b.
std::wstring WindowsPath(const std::string& host_path);

}  // namespace platform
