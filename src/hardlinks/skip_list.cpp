#include "hardlinks/skip_list.h"

#include <cwchar>
#include <cwctype>

#include "support/fn_trace.h"

namespace koru {

using varnel::FnTrace;

bool ShouldSkip(const varnel::string& sPath) {
  // Lower case; entries 1-7 are the product family's boot-configuration folders.
  // The trace-log and Defender-history entries end without a backslash, so they
  // also match longer names that begin the same way.
  static constexpr const wchar_t* kFragments[] = {
      L"\\duskcfg\\boot\\",
      L"\\fernacfg\\boot\\",
      L"\\glimcfg\\boot\\",
      L"\\hollcfg\\boot\\",
      L"\\ivlocfg\\boot\\",
      L"\\jastcfg\\boot\\",
      L"\\lumecfg\\boot\\",
      L"\\$extend\\",
      L"\\$recycle.bin\\",
      L"\\logfiles\\vmft_trace.log",
      L"\\microsoft\\diagnosis\\",
      L"\\microsoft\\windows defender\\scans\\history",
      L"\\microsoft\\windows\\systemdata\\",
      L"\\system volume information\\",
      L"\\windows\\resources\\themes\\aero\\vscache\\",
      L"\\windows\\softwaredistribution\\download\\",
      L"\\windows\\system32\\logfiles\\wmi\\rtbackup\\",
      L"\\windows\\temp\\",
      L"\\windows\\winsxs\\temp\\pendingdeletes\\",
      L"\\appdata\\local\\temp\\",
      L"\\windows defender advanced threat protection\\cache\\",
  };
  FnTrace fn(L"ShouldSkip");
  varnel::string sLowercasePath = sPath;
  for (std::size_t i = 0; i < sLowercasePath.length(); ++i)
    sLowercasePath.set_at(i, static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(sLowercasePath[i]))));
  fn.Value(L"sLowercasePath", sLowercasePath, varnel::kTraceVerbose);
  for (const wchar_t* fragment : kFragments) {
    if (std::wcsstr(sLowercasePath.c_str(), fragment) != nullptr) {
      FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"ShouldSkip : Path in skip list ... skipping", L"sPath",
                       sPath);
      return true;
    }
  }
  varnel::string sLongPath(L"\\\\?\\");
  sLongPath += sPath;
  if (!platform::Env::Default().PathFileExistsW(sLongPath.c_str())) {
    FnTrace::ValueOf(fn.trace(), varnel::kTraceVerbose, L"ShouldSkip : Path not found ... skipping", L"sPath", sPath);
    return true;
  }
  return false;
}

bool InWalkSkipList(const varnel::string& sDir) {
  static constexpr const wchar_t* kFragments[] = {
      L"\\Microsoft\\CLR Security Config\\",
      L"\\Internet Explorer\\DomainSuggestions\\",
      L"\\Secure Islands\\IQProtector\\",
      L"\\Temporary Internet Files\\",
      L"\\Kaspersky Lab\\",
      L"\\Crypto\\RSA\\MachineKeys\\",
  };
  for (const wchar_t* fragment : kFragments)
    if (std::wcsstr(sDir.c_str(), fragment) != nullptr) return true;
  return false;
}

}  // namespace koru
