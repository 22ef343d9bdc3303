// MFT: reads 1024-byte file records straight from the physical disk and applies
// their update-sequence fix-ups. One object serves one volume extent of one call.
#pragma once

#include <cstdint>
#include <ostream>

#include "koru_mft/hard_link_map.h"
#include "mft/attribute.h"
#include "base/ntfs_layout.h"
#include "platform/env.h"

namespace koru {

using layout::RecordBuffer;

class MFT {
 public:
  wchar_t m_wszPhysicalDrive[260] = {};
  platform::HANDLE m_hDisk = platform::InvalidHandle();
  wchar_t m_wcDriveLetter = 0;
  platform::HANDLE m_hVolumeHint = platform::InvalidHandle();
  platform::DWORD m_dwBytesPerSector = 0;
  platform::DWORD m_dwSectorsPerCluster = 0;
  std::uint64_t m_uiVolumeStartSector = 0;
  std::uint64_t m_uiMftSector = 0;
  // Bytes per file record from the boot sector; 0 when unknown.
  platform::DWORD m_dwBytesPerFileRecord = 0;

  bool ReadMftRecord(std::uint64_t uiSectorNo, RecordBuffer& record);
  bool SetVolumeHintHandle();
  // Appends the absolute sector ranges of the MFT's own $DATA runs.
  bool GetMftRanges(SectorRanges& ranges);
  // Dumps the record at m_uiMftSector as it lies on the disk (no fix-ups).
  bool Read(std::wostream& os);
  // Scans the whole MFT for multiply-linked files, one path each, with progress lines.
  void GetHardLinkList(HardLinkMap& map, std::wostream& progress);
  // Closes whichever handle is open (the owner's duty once a call is done).
  void CloseHandles();

  // m_wszPhysicalDrive := "\\.\PhysicalDrive<disk>".
  void SetPhysicalDrive(platform::DWORD disk);
  // Opens the disk handle unless it is open; false with the last error when it stays invalid.
  bool OpenDisk(platform::DWORD* error);
};

// The text MFT::Read writes for a record read from `sector`: its header, then each
// attribute's dump. Reads nothing outside `record`.
void WriteRecordDump(std::wostream& os, Bytes record, std::uint64_t sector, platform::DWORD sectors_per_cluster);

}  // namespace koru
