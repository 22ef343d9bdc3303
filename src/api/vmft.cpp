#include "koru_mft/vmft.h"

#include <vector>

#include "platform/device_io.h"
#include "support/fn_trace.h"
#include "base/format.h"
#include "support/trace.h"

using platform::DWORD;
using varnel::FnTrace;

namespace {
// A module's file name, empty when the system will not say.
varnel::string ModuleFile(platform::Env& env, platform::HMODULE module) {
  const auto name = platform::ModuleFileName(env, module);
  return name ? varnel::string(name->c_str(), name->size()) : varnel::string();
}
}  // namespace

VMFT::VMFT(std::wostream& os) : m_os(os) {
  varnel::CTrace& trace = varnel::Trace();
  trace.ReadLevel();
  trace.StartFresh();
  trace.Trace(varnel::kTraceInfo, L"VMFT::VMFT", L"Constructor");
  varnel::string sVersion;
  GetResourceVersionStr(varnel::string(L"KORU_MFT.DLL"), sVersion);
  trace.Trace(varnel::kTraceInfo, L"VMFT::VMFT", L"sVersion", sVersion);
  varnel::string sDescription;
  GetModuleProperty(GMP_CAT_DESCRIPTION, sDescription);
  trace.Trace(varnel::kTraceInfo, L"VMFT::VMFT", L"sDescription", sDescription);
}

VMFT::~VMFT() = default;

std::uint32_t VMFT::GetModuleProperty(GMP_CAT category, varnel::string& sProperty) {
  switch (category) {
    case GMP_CAT_DESCRIPTION: {
      wchar_t text[100];
      // %ls: the portable spelling of the Windows wide printf's %S for these narrow build texts.
      varnel::FormatFixed(text, 100, L"Varnel MFT Library (VMFT) created on %ls at %ls",
                          varnel::string(KORU_BUILD_DATE).c_str(), varnel::string(KORU_BUILD_TIME).c_str());
      sProperty = text;
      return 0;
    }
    case GMP_CAT_VERSION:
      GetResourceVersionStr(varnel::string(L"KORU_MFT.DLL"), sProperty);
      return 0;
  }
  return 1;
}

void VMFT::GetResourceVersionStr(const varnel::string& sDllName, varnel::string& sVersion) {
  FnTrace fn(L"VMFT::GetResourceVersionStr");
  if (sDllName.empty()) return fn.EndText(L"... ending( Empty DLL name parameter )");
  sVersion = L"Error";
  platform::Env& env = platform::Env::Default();

  platform::HMODULE module = env.GetModuleHandleW(sDllName.c_str());
  if (module == nullptr) {
    fn.Message(L"No module handle, running as static lib?");
    module = env.GetModuleHandleW(nullptr);
    if (module == nullptr) return fn.EndText(L"... ending( null module )");
  }

  const varnel::string file = ModuleFile(env, module);
  if (file.empty()) {
    return fn.FailedAs(L"VMFT::GetResourceVersionStr : ... ending( GetModuleFileNameW failed )", env.GetLastError());
  }

  const DWORD size = env.GetFileVersionInfoSizeW(file.c_str());
  if (size == 0) {
    return fn.FailedAs(L"VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfoSize failed )",
                       env.GetLastError());
  }
  std::vector<unsigned char> block(size, 0);
  if (!env.GetFileVersionInfoW(file.c_str(), size, block.data())) {
    return fn.FailedAs(L"VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfo failed )", env.GetLastError());
  }

  unsigned language = 0x0809, code_page = 0x04B0;
  const void* translation = nullptr;
  platform::UINT length = 0;
  if (env.VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", &translation, &length) &&
      translation != nullptr && length >= 4) {
    const auto* words = static_cast<const unsigned char*>(translation);
    language = static_cast<unsigned>(words[0] | (words[1] << 8));
    code_page = static_cast<unsigned>(words[2] | (words[3] << 8));
  } else {
    fn.FailedAs(L"VMFT::GetResourceVersionStr : VerQueryValue failed", env.GetLastError());
  }

  wchar_t query[37];
  varnel::FormatFixed(query, 37, L"\\StringFileInfo\\%4.4X%4.4X\\%ls", language, code_page, L"FileVersion");
  const void* value = nullptr;
  if (env.VerQueryValueW(block.data(), query, &value, &length)) {
    if (value != nullptr && length > 0 && *static_cast<const wchar_t*>(value) != 0) {
      // The block's text is terminated within `length` characters; never read past it.
      const auto* text = static_cast<const wchar_t*>(value);
      std::size_t n = 0;
      while (n < length && text[n] != 0) ++n;
      sVersion = varnel::string(text, n);
      varnel::string log_dir;
      if (GetLogDir(log_dir)) {
        log_dir += L"\\Version.log";
        env.WritePrivateProfileStringW(sDllName.c_str(), L"Version", sVersion.c_str(), log_dir.c_str());
      }
    }
  } else {
    fn.FailedAs(L"VMFT::GetResourceVersionStr : VerQueryValue failed", env.GetLastError());
  }
}

bool VMFT::GetOwnDir(varnel::string& sDir) {
  varnel::string file = ModuleFile(platform::Env::Default(), nullptr);
  if (file.empty()) return false;
  const std::size_t cut = file.rfind(L'\\');
  if (cut != varnel::string::npos) file.erase(cut);
  sDir = file;
  return true;
}

bool VMFT::GetLogDir(varnel::string& sDir) {
  varnel::string own;
  if (!GetOwnDir(own)) return false;
  varnel::string ini = own;
  ini += L"\\kor.ini";
  wchar_t buffer[platform::kPathChars] = {};
  platform::Env::Default().GetPrivateProfileStringW(L"File Locations", L"Log Files", L".\\Logfiles", buffer,
                                                    platform::kPathChars, ini.c_str());
  sDir = buffer;
  return true;
}
