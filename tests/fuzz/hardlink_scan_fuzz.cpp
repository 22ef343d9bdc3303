// Any bytes as the MFT of a volume, record 0 and its run list included: the hard-link
// scan, which maps the MFT through GetMftRanges first, must end, reading only inside
// its buffers, whatever the records and runs say.
// The first byte picks the sector size (512 or 4096), the second is the boot sector's
// file-record size field; the rest is the MFT, from cluster 16 on.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <vector>

#include "api/extent_chain.h"
#include "disk/boot_sector.h"
#include "mft/mft.h"
#include "support/fake_files_env.h"
#include "support/image_env.h"
#include "support/trace.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  varnel::Trace().SetLevel(0);
  const std::uint32_t sector = (data[0] & 1) ? 4096 : 512;
  // One sector a cluster, the MFT at cluster 16.
  std::vector<std::byte> image(16 * sector);
  std::memcpy(image.data() + 3, "NTFS    ", 8);
  image[0x0B] = static_cast<std::byte>(sector & 0xFF);
  image[0x0C] = static_cast<std::byte>(sector >> 8);
  image[0x0D] = std::byte{1};
  image[0x30] = std::byte{16};
  image[0x40] = static_cast<std::byte>(data[1]);
  for (std::size_t i = 2; i < size; ++i) image.push_back(static_cast<std::byte>(data[i]));
  image.resize(image.size() + sector);

  koru::test::ImageEnv disk(platform::Env::Default(), image, sector);
  koru::test::FakeFilesEnv files(disk);
  files.name_unknown_id = [](std::uint64_t) { return std::wstring(L"\\f"); };
  platform::ScopedEnv scope(files);
  koru::BootSector boot_sector;  // the record size as the chain decodes it
  boot_sector.m_dwBytesPerSector = sector;
  std::uint64_t mft_sector = 0;
  if (!boot_sector.GetMftSector(koru::VolumeStart{0, 0}, mft_sector)) return 0;
  koru::ExtentPlace place;
  place.bytes_per_sector = sector, place.sectors_per_cluster = boot_sector.m_dwSectorsPerCluster;
  place.bytes_per_record = boot_sector.m_dwBytesPerFileRecord;
  koru::MFT mft = koru::MakeReader(place, L'C', mft_sector);
  HardLinkMap map;
  std::wostringstream progress;
  mft.GetHardLinkList(map, progress);
  mft.CloseHandles();
  return 0;
}
