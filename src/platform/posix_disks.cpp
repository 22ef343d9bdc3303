#include "platform/posix_env.h"

namespace platform::posix {

bool ResolveDevice(const std::wstring&, DeviceBinding*, DWORD* error) {
  *error = kErrorFileNotFound;
  return false;
}

bool DeviceControl(const DeviceBinding&, DWORD, void*, DWORD, DWORD* returned, DWORD* error) {
  *returned = 0;
  *error = kErrorInvalidFunction;
  return false;
}

bool VolumeNameForMountPoint(const std::wstring&, std::wstring*, DWORD* error) {
  *error = kErrorFileNotFound;
  return false;
}

}  // namespace platform::posix
