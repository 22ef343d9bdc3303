// The hard-link info file: one INI section per multiply-linked file with every name
// it has, its link count and size, then the totals. 8-bit text, CR LF line ends,
// the same bytes on every platform.
#pragma once

#include "koru_mft/hard_link_map.h"
#include "koru_mft/varnel_string.h"

namespace koru {

// Writes the file for `map` (traced as VMFT::WriteHLInfo): names are asked for
// through `wcVssDrive` and written under `wcWindows`. False only when the file
// cannot be opened; a character above U+00FF ends the output there, still true.
bool WriteHardLinkInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive,
                       const HardLinkMap& map);

}  // namespace koru
