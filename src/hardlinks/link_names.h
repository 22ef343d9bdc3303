// What the live file system says about one file: its path from its NTFS file
// reference, and every name (hard link) it has, with its size.
#pragma once

#include <cstdint>
#include <vector>

#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace koru {

// Appends the volume path (leading backslash, no drive letter) of the file whose
// reference (sequence number in the top 16 bits) is `uiFileRef`, opened by id
// relative to the volume hint handle.
bool GetFileNameFromId(platform::HANDLE hVolumeHint, const std::uint64_t& uiFileRef, varnel::string& sFileName);

// Appends every name of the file at `sFileName` (reachable now, through
// `wcVssDrive`) as `wcWindows` + ":" + path, sorted without regard to case, and
// measures its size. The first name the system gives is kept whatever the skip list
// says; the others pass through ShouldSkip. A skipped `sFileName` gives true and
// nothing.
bool GetHardlinkNames(const varnel::string& sFileName, wchar_t wcWindows, wchar_t wcVssDrive,
                      std::vector<varnel::string>& names, std::uint64_t& uiSize);

}  // namespace koru
