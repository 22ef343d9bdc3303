// The process-wide classification of the running Windows system. Computed once,
// on first use, under its own mutex.
#pragma once

#include <mutex>

#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace varnel {

using platform::DWORD;

struct SystemEnvironment {
  DWORD m_dwEnvironment = 1;  // 1: unknown
  std::mutex m_mutex;
  DWORD m_dwMajor = 0;
  DWORD m_dwMinor = 0;
  DWORD m_dwBuild = 0;
  bool m_bWorkstation = false;
  bool m_bDomainController = false;
  bool m_bServerCore = false;
  bool m_b64Bit = false;
  bool m_bWinPE = false;
  bool m_bHaveProductInfo = false;  // GetProductInfo exists and answered
  DWORD m_dwProductInfo = 0;
  string m_sProduct;
  string m_sProductName;
  string m_sInstallationType;
  string m_sCSDVersion;
  string m_sCurrentVersion;
  const wchar_t* const m_wszMiniNT = L"SYSTEM\\CurrentControlSet\\Control\\MiniNT";
  const wchar_t* const m_wszMyMiniNT = L"SYSTEM\\CurrentControlSet\\Control\\MyMiniNT";

  // Fills this record from `env`. Public so tests can classify fake systems.
  void Compute(platform::Env& env);

  // The one record of the process, computed through Env::Default() on first call.
  static SystemEnvironment& Get();
};

}  // namespace varnel
