// Fuzzes telling a disk image by its content and walking the set it belongs to: the
// input is cut into up to three files, named as an EnCase set (d.E01, d.E02, ...) or a
// split raw set (d.001, ...), and the first is identified. Every walk must end with a
// set or a reason.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/posix_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::filesystem::path dir = [] {
    char name[] = "/tmp/image-identify-fuzz-XXXXXX";
    return std::filesystem::path(::mkdtemp(name));
  }();
  if (size == 0) return 0;
  const bool encase = (data[0] & 0x80) != 0;
  const std::size_t files = 1 + data[0] % 3, part = (size - 1) / files;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) std::filesystem::remove(entry.path(), ec);
  for (std::size_t i = 0; i < files; ++i) {
    const std::string name = encase ? "d.E0" + std::to_string(i + 1) : "d.00" + std::to_string(i + 1);
    std::ofstream(dir / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(data + 1 + i * part), static_cast<std::streamsize>(part));
  }
  platform::posix::ImageKind kind;
  std::string error;
  if (!platform::posix::IdentifyImage((dir / (encase ? "d.E01" : "d.001")).string(), &kind, &error) && error.empty())
    std::abort();  // a refusal always says why
  return 0;
}
