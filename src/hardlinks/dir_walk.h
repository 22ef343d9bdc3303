// The slow way to the hard-link map: a walk through the system folders of a volume
// reachable under a drive letter (a snapshot), for when its MFT cannot be read
// (BitLocker). Each file with more than one link is keyed by its file index.
#pragma once

#include <cstdint>
#include <vector>

#include "koru_mft/hard_link_map.h"
#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace koru {

class HardLinkInfo {
 public:
  // Walks the roots in their fixed order (ProgramData, Program Files, Program Files
  // (x86), Windows, Windows.old, each profile's AppData, inetpub) on `wcVssDrive`.
  // All or nothing: the first root that cannot be walked fails the whole call.
  // `dwEnvironment` (the system's environment kind) picks the profiles root when the
  // system cannot name it.
  static bool Create(platform::DWORD dwEnvironment, wchar_t wcVssDrive, HardLinkMap& map);
  // `sDir` with its drive letter and no trailing backslash; depth first, reparse
  // points never followed.
  static bool RecurseHardLinks(const varnel::string& sDir, HardLinkMap& map);
  // The file index of a file with several links; 0 for a single link.
  static bool GetFileId(const varnel::string& sFile, std::uint64_t& uiId);
  // The folders (not reparse points) directly under `sRoot`.
  static bool GetUserList(const varnel::string& sRoot, std::vector<varnel::string>& users);
};

// The profiles root (C:\Users): the common documents folder cut after its first
// component, or the default of the environment kind when the system cannot say.
void GetDocumentsAndSettings(platform::DWORD dwEnvironment, varnel::string& sDocumentsAndSettings);

}  // namespace koru
