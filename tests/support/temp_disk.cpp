#include "support/temp_disk.h"

#include <fstream>
#include <stdexcept>

#include "koru_mft/tool.h"
#include "support/image_env.h"
#if !defined(_WIN32)
#include "platform/posix_disks.h"
#endif

namespace koru::test {

struct TempDisk::Served {
  Served(const std::vector<std::byte>& bytes, std::uint32_t sector_size)
      : env(platform::Env::Default(), bytes, sector_size), scope(env) {}
  ImageEnv env;
  platform::ScopedEnv scope;
};

TempDisk::TempDisk(const std::vector<std::byte>& bytes, std::uint32_t sector_size) {
  dir_.Write("disk.img", std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
#if defined(_WIN32)
  served_ = std::make_unique<Served>(bytes, sector_size);
#else
  platform::posix::ResetDisks();
  std::string error;
  const std::string path = (dir_ / "disk.img").string();
  if (!koru::tool::AttachDisk(sector_size ? path + ":" + std::to_string(sector_size) : path, &error))
    throw std::runtime_error(error);
#endif
}

TempDisk::~TempDisk() {
#if !defined(_WIN32)
  platform::posix::ResetDisks();
#endif
}

void PutLe(std::vector<std::byte>& b, std::size_t at, std::uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) b.at(at + static_cast<std::size_t>(i)) = static_cast<std::byte>(v >> (8 * i));
}
void PutText(std::vector<std::byte>& b, std::size_t at, const char* text) {
  for (std::size_t i = 0; text[i]; ++i) b.at(at + i) = static_cast<std::byte>(text[i]);
}

std::vector<std::byte> ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::vector<std::byte> bytes(static_cast<std::size_t>(in.tellg()));
  in.seekg(0).read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

std::string SharedImage(const std::string& relative) { return std::string(KORU_SHARED_DIR) + "/images/" + relative; }

}  // namespace koru::test
