#pragma once

#include <cstddef>

namespace varnel {

// Formats into a fixed buffer of `count` characters; a result that does not fit is
// cut at the buffer's end and -1 is reported.
int FormatFixed(wchar_t* buffer, std::size_t count, const wchar_t* format, ...);

}  // namespace varnel
