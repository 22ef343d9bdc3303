#include "koru_mft/tool.h"

namespace koru::tool {

bool AttachDisk(const std::string&, std::string* error) {
  *error = "attaching disks is not available yet";
  return false;
}

bool PinVolume(const std::string&, std::string* error) {
  *error = "pinning volumes is not available yet";
  return false;
}

std::vector<VolumeInfo> ListVolumes() { return {}; }

}  // namespace koru::tool
