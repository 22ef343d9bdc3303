// The NTFS boot sector, read from the physical disk: MFT start, cluster size, BitLocker.
#pragma once

#include <cstdint>

#include "platform/env.h"

namespace koru {

struct VolumeStart {
  platform::DWORD uiDiskNumber = 0;
  std::uint64_t uiStartSector = 0;
};

class BootSector {
 public:
  platform::DWORD m_dwBytesPerSector = 0;
  platform::DWORD m_dwSectorsPerCluster = 0;
  // The volume's file-record size in bytes, set with the MFT sector; 0 when the
  // boot sector gives none that fits in 32 bits.
  platform::DWORD m_dwBytesPerFileRecord = 0;

  bool GetMftSector(const VolumeStart& volume, std::uint64_t& uiMftSector);
  bool GetSectorsPerCluster(platform::DWORD& dwSectorsPerCluster);
};

}  // namespace koru
