// The one way the library reads on-disk bytes: a span that knows its bounds and
// explicit little-endian loads. A load that would leave the span reports failure
// (or gives 0 through the *Or forms) instead of reading past the buffer.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace koru {

using Bytes = std::span<const std::byte>;
using MutableBytes = std::span<std::byte>;

// True when [offset, offset + size) lies inside a buffer of `length` bytes.
constexpr bool Fits(std::size_t length, std::size_t offset, std::size_t size) {
  return offset <= length && size <= length - offset;
}

template <typename T>
std::optional<T> LoadLe(Bytes view, std::size_t offset) {
  if (!Fits(view.size(), offset, sizeof(T))) return std::nullopt;
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value |= static_cast<T>(static_cast<T>(std::to_integer<std::uint8_t>(view[offset + i])) << (8 * i));
  return value;
}

inline std::optional<std::uint8_t> le8(Bytes v, std::size_t off) { return LoadLe<std::uint8_t>(v, off); }
inline std::optional<std::uint16_t> le16(Bytes v, std::size_t off) { return LoadLe<std::uint16_t>(v, off); }
inline std::optional<std::uint32_t> le32(Bytes v, std::size_t off) { return LoadLe<std::uint32_t>(v, off); }
inline std::optional<std::uint64_t> le64(Bytes v, std::size_t off) { return LoadLe<std::uint64_t>(v, off); }

// For fields that are printed or compared where an absent value reads as 0; the
// caller has already checked the enclosing structure fits, or 0 is harmless.
inline std::uint8_t le8Or0(Bytes v, std::size_t off) { return le8(v, off).value_or(0); }
inline std::uint16_t le16Or0(Bytes v, std::size_t off) { return le16(v, off).value_or(0); }
inline std::uint32_t le32Or0(Bytes v, std::size_t off) { return le32(v, off).value_or(0); }
inline std::uint64_t le64Or0(Bytes v, std::size_t off) { return le64(v, off).value_or(0); }

inline bool StoreLe16(MutableBytes v, std::size_t off, std::uint16_t value) {
  if (!Fits(v.size(), off, 2)) return false;
  v[off] = static_cast<std::byte>(value & 0xFF);
  v[off + 1] = static_cast<std::byte>(value >> 8);
  return true;
}

// The sub-view [offset, offset + size), clipped to the view; empty when offset is outside.
inline Bytes Sub(Bytes v, std::size_t offset, std::size_t size) {
  if (offset >= v.size()) return {};
  return v.subspan(offset, std::min(size, v.size() - offset));
}

}  // namespace koru
