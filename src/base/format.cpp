#include "base/format.h"

#include <algorithm>
#include <cstdarg>
#include <cwchar>
#include <string>

namespace varnel {

int FormatFixed(wchar_t* buffer, std::size_t count, const wchar_t* format, ...) {
  if (buffer == nullptr || count == 0) return -1;
  va_list args;
  va_start(args, format);
  const int n = std::vswprintf(buffer, count, format, args);
  va_end(args);
  buffer[count - 1] = 0;
  if (n < 0 || static_cast<std::size_t>(n) >= count) {
    // vswprintf leaves the buffer unspecified on overflow: format whole, then cut.
    va_list again;
    va_start(again, format);
    std::wstring big(4096, L'\0');
    const int m = std::vswprintf(big.data(), big.size(), format, again);
    va_end(again);
    if (m > 0) {
      const std::size_t keep = std::min<std::size_t>(static_cast<std::size_t>(m), count - 1);
      std::wmemcpy(buffer, big.data(), keep);
      buffer[keep] = 0;
    }
    return -1;
  }
  return n;
}

}  // namespace varnel
