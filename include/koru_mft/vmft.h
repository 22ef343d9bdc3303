// KORU_MFT: the NTFS MFT library of the bare-metal backup and recovery product.
#pragma once

#include <cstdint>
#include <ostream>
#include <utility>
#include <vector>

#include "koru_mft/export.h"
#include "koru_mft/hard_link_map.h"
#include "koru_mft/varnel_string.h"

class KORU_MFT_API VMFT {
 public:
  enum GMP_CAT { GMP_CAT_DESCRIPTION = 1, GMP_CAT_VERSION = 2 };

  explicit VMFT(std::wostream& os);
  ~VMFT();
  VMFT(const VMFT&) = delete;
  VMFT& operator=(const VMFT&) = delete;

  // The disk-sector ranges [first, second) that hold the MFT of the volume behind
  // the drive letter, appended to `ranges` in absolute sectors of its physical disk.
  static bool GetMFTSectorRanges(wchar_t wcDL, std::vector<std::pair<std::uint64_t, std::uint64_t>>& ranges);

  // Writes a text dump of the MFT record that begins at absolute disk sector
  // `uiSectorNo` (0: the MFT's own first record) of the volume behind the letter.
  static bool ReadMFTRecord(std::wostream& os, wchar_t wcDL, std::uint64_t uiSectorNo);

  // Writes the hard-link info file of the Windows volume `wcWindows`, read through
  // `wcVssDrive`; progress goes to the stream given at construction.
  bool CreateHLInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive);

  static std::uint32_t GetModuleProperty(GMP_CAT category, varnel::string& sProperty);

 private:
  static bool WriteHLInfo(const varnel::string& sHLInfoFile, wchar_t wcWindows, wchar_t wcVssDrive,
                          const HardLinkMap& map);
  static void GetResourceVersionStr(const varnel::string& sDllName, varnel::string& sVersion);
  static bool GetOwnDir(varnel::string& sDir);
  static bool GetLogDir(varnel::string& sDir);

  std::wostream& m_os;
};
