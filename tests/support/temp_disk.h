// A disk image written by a test and attached as \\.\PhysicalDrive0, so the core
// reads it through the same calls as a real disk: through PosixEnv on Linux, and on
// Windows through an ImageEnv installed for the object's life. Its volumes are
// lettered from C: on both.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace koru::test {

class TempDisk {
 public:
  // `bytes` is the whole disk; `sector_size` 0 lets the platform detect it.
  explicit TempDisk(const std::vector<std::byte>& bytes, std::uint32_t sector_size = 0);
  ~TempDisk();
  TempDisk(const TempDisk&) = delete;
  TempDisk& operator=(const TempDisk&) = delete;

 private:
  struct Served;  // Windows: the ImageEnv and its scope
  TempDir dir_;
  std::unique_ptr<Served> served_;
};

// Little helpers to build on-disk structures byte by byte.
void PutLe(std::vector<std::byte>& b, std::size_t at, std::uint64_t v, int bytes);
inline void Put16(std::vector<std::byte>& b, std::size_t at, std::uint16_t v) { PutLe(b, at, v, 2); }
inline void Put32(std::vector<std::byte>& b, std::size_t at, std::uint32_t v) { PutLe(b, at, v, 4); }
inline void Put64(std::vector<std::byte>& b, std::size_t at, std::uint64_t v) { PutLe(b, at, v, 8); }
void PutText(std::vector<std::byte>& b, std::size_t at, const char* text);
std::vector<std::byte> ReadFileBytes(const std::string& path);
std::string SharedImage(const std::string& relative);  // path under ../shared/images

}  // namespace koru::test
