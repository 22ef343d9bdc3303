// Any bytes as a disk, attached twice (a disk and its clone): the partition scan must
// end and read only inside the disk, whatever its tables say (looping EBR chains,
// GPT entry counts and sizes, tables past the end), and every volume found must keep
// a name of its own that leads back to it. The first byte picks the sector size given:
// 0 none, 1 to 8 512 to 65536, anything else one that is not a sector size.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/disk_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t* disk = data + 1;
  const std::size_t length = size - 1;
  platform::DiskSource source;
  source.size = static_cast<std::int64_t>(length);
  source.sector_size = data[0] == 0 ? 0 : data[0] <= 8 ? 256u << data[0] : data[0];
  source.read_at = [disk, length](std::uint64_t offset, std::span<std::byte> out) {
    if (offset > length || out.size() > length - offset) __builtin_trap();  // the map bounds every read
    if (!out.empty()) std::memcpy(out.data(), disk + offset, out.size());
    return true;
  };
  const platform::DiskMap map({source, source}, {{L'C', 1, 1}, {L'D', 0, 5}});
  for (std::size_t i = 0; i < map.volumes().size(); ++i) {
    const auto& v = map.volumes()[i];
    if (v.offset < 0 || v.length <= 0 || v.offset >= static_cast<std::int64_t>(length)) __builtin_trap();
    platform::DeviceWindow device;
    platform::DWORD error = 0, returned = 0;
    if (!map.Resolve(L"\\\\?\\Volume" + v.guid, &device, &error) || device.volume != static_cast<int>(i))
      __builtin_trap();
    unsigned char out[64];
    map.DeviceIoControl(device, platform::kIoctlVolumeGetVolumeDiskExtents, out, sizeof out, &returned, &error);
    map.DeviceIoControl(device, platform::kIoctlDiskGetDriveGeometryEx, out, sizeof out, &returned, &error);
    if (v.letter != 0) {
      const wchar_t path[] = {L'\\', L'\\', L'.', L'\\', v.letter, L':', 0};
      if (!map.Resolve(path, &device, &error) || device.volume != static_cast<int>(i)) __builtin_trap();
    }
  }
  return 0;
}
