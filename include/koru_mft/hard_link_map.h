// The hard-link map: file key -> one volume-relative path of the file (leading
// backslash, no drive letter), in plain unsigned key order. The first entry
// inserted for a key is kept.
#pragma once

#include <cstdint>
#include <map>

#include "koru_mft/varnel_string.h"

struct FileRefCmp {
  bool operator()(std::uint64_t a, std::uint64_t b) const { return a < b; }
};

using HardLinkMap = std::map<std::uint64_t, varnel::string, FileRefCmp>;
