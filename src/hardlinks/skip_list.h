// Places kept out of the hard-link inventory: volatile, private or product-owned
// folders, the library's own trace file, and names that no longer exist.
#pragma once

#include "koru_mft/varnel_string.h"

namespace koru {

// True when the link name `sPath` is left out of a file's name list: it lies in a
// listed place (case ignored) or does not exist.
bool ShouldSkip(const varnel::string& sPath);

// True when the directory walk must not descend into `sDir` (case kept).
bool InWalkSkipList(const varnel::string& sDir);

}  // namespace koru
