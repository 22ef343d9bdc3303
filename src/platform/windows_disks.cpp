// The tool's disk view on Windows: the disks and letters are the system's own, so nothing is
// attached or pinned; the volume list is what the system reports.
#include "platform/disks.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <winioctl.h>

#include <cstring>
#include <string>
#include <vector>

namespace platform {
namespace {

constexpr const char* kRefusal = "disks are the system's own on Windows";

class Device {
 public:
  explicit Device(const std::wstring& path)
      : h_(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                         nullptr)) {}
  ~Device() {
    if (ok()) ::CloseHandle(h_);
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;
  bool ok() const { return h_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return h_; }

 private:
  HANDLE h_;
};

// The first extent of the volume and its disk's sector size; false when the system
// will not say (no rights, or Wine, which has no disk extents).
bool Locate(wchar_t letter, ListedVolume* info) {
  Device volume(std::wstring(L"\\\\.\\") + letter + L":");
  if (!volume.ok()) return false;
  // Room for a few extents: a spanned volume reports its first one here.
  alignas(8) unsigned char buffer[sizeof(VOLUME_DISK_EXTENTS) + 7 * sizeof(DISK_EXTENT)] = {};
  ::DWORD returned = 0;
  if (!::DeviceIoControl(volume.get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer, sizeof buffer,
                         &returned, nullptr) &&
      ::GetLastError() != ERROR_MORE_DATA)
    return false;
  VOLUME_DISK_EXTENTS extents{};
  if (returned < sizeof extents) return false;
  std::memcpy(&extents, buffer, sizeof extents);
  if (extents.NumberOfDiskExtents == 0) return false;
  info->disk = extents.Extents[0].DiskNumber;
  info->offset = extents.Extents[0].StartingOffset.QuadPart;
  info->length = extents.Extents[0].ExtentLength.QuadPart;

  Device disk(L"\\\\.\\PhysicalDrive" + std::to_wstring(info->disk));
  DISK_GEOMETRY_EX geometry{};
  if (disk.ok() && ::DeviceIoControl(disk.get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry,
                                     sizeof geometry, &returned, nullptr))
    info->bytes_per_sector = geometry.Geometry.BytesPerSector;
  return true;
}

}  // namespace

bool AttachDisk(const std::string&, std::string* error) {
  if (error) *error = kRefusal;
  return false;
}

bool PinVolume(const std::string&, std::string* error) {
  if (error) *error = kRefusal;
  return false;
}

std::string FileLevelProblem(wchar_t) { return {}; }  // the system answers them itself
void ReadFilesThrough(wchar_t, wchar_t) {}  // Windows reads an unlocked BitLocker volume itself

std::vector<ListedVolume> ListVolumes() {
  std::vector<ListedVolume> out;
  const ::DWORD drives = ::GetLogicalDrives();
  for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
    if ((drives & (1u << (letter - L'A'))) == 0) continue;
    const std::wstring root = std::wstring(1, letter) + L":\\";
    wchar_t file_system[MAX_PATH + 1] = {};
    if (!::GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, nullptr, file_system, MAX_PATH + 1))
      continue;
    if (std::wstring(file_system) != L"NTFS") continue;
    ListedVolume info;
    info.letter = letter;
    info.kind = L"NTFS";
    wchar_t name[MAX_PATH + 1] = {};
    if (::GetVolumeNameForVolumeMountPointW(root.c_str(), name, MAX_PATH + 1)) info.volume_name = name;
    if (!Locate(letter, &info)) continue;
    out.push_back(info);
  }
  return out;
}

}  // namespace platform
