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
  // Bytes per MFT file record, filled with the cluster size; 0 when the field is
  // not a power of two from 256 bytes to 64 KiB.
  platform::DWORD m_dwFileRecordSize = 0;

  bool GetMftSector(const VolumeStart& volume, std::uint64_t& uiMftSector);
  bool GetSectorsPerCluster(platform::DWORD& dwSectorsPerCluster);
};

}  // namespace koru
