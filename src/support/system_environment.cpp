#include "support/system_environment.h"

#include <algorithm>
#include <array>
#include <cwchar>

#include "support/registry.h"

namespace varnel {
namespace {

constexpr platform::UINT kPathChars = 260;
constexpr const wchar_t* kCurrentVersionKey = L"Microsoft\\Windows NT\\CurrentVersion";

// Product types of Server Core installations as GetProductInfo reports them.
constexpr std::array<DWORD, 19> kServerCoreProducts = {12, 13, 14, 29, 39, 40, 41, 42, 43, 44,
                                                       45, 46, 53, 63, 64, 98, 99, 100, 101};

// Leading decimal digits, as a plain decimal conversion reads them; none gives 0.
DWORD DecimalValue(const string& text) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < text.length() && text[i] >= L'0' && text[i] <= L'9'; ++i)
    value = std::min<std::uint64_t>(value * 10 + static_cast<std::uint64_t>(text[i] - L'0'), 0xFFFFFFFFu);
  return static_cast<DWORD>(value);
}

DWORD KindOf(const SystemEnvironment& e) {
  const DWORD major = e.m_dwMajor, minor = e.m_dwMinor;
  const bool ws = e.m_bWorkstation;
  if (e.m_bWinPE) {
    if (major == 5 && minor == 2) return 20;
    if (major == 6 && minor == 0) return 21;
    if (major == 6 && minor == 1) return 22;
    if (major == 6 && minor == 2) return 23;
    if (major == 6 && minor == 3) {
      if (e.m_sProductName == L"Windows (TM) 10 Preinstallation Environment") return e.m_dwBuild < 22000 ? 25 : 26;
      return 24;
    }
    if (major == 10 && minor == 0) return 25;
    if (major == 11 && minor == 0) return 26;
    return e.m_dwEnvironment;
  }
  if (major == 11) return ws ? 18 : (e.m_dwBuild < 26100 ? 17 : 19);
  if (major == 10) return ws ? 14 : (e.m_dwBuild < 17623 ? 15 : 16);
  if (major == 6 && minor == 0) return ws ? 6 : 7;
  // Workstation 9, server 8: the other way round from its neighbours, as the
  // products that read the kind expect.
  if (major == 6 && minor == 1) return ws ? 9 : 8;
  if (major == 6 && minor == 2) return ws ? 10 : 11;
  if (major == 6 && minor == 3) return ws ? 12 : 13;
  if (major == 5 && minor == 0) return ws ? 2 : 3;
  if (major == 5 && minor == 1) return 4;
  if (major == 5 && minor == 2) return ws ? 4 : 5;
  return e.m_dwEnvironment;
}

}  // namespace

// Nothing here traces: the trace object asks for this record while it is being built.
void SystemEnvironment::Compute(platform::Env& env) {
  Registry_Software software(env);

  platform::OsVersionInfo version;
  const bool have_version = env.GetVersionExW(&version);
  if (have_version) {
    m_dwMajor = version.dwMajorVersion;
    m_dwMinor = version.dwMinorVersion;
  } else {
    // Without the version query, the "major.minor" text the registry keeps.
    version = platform::OsVersionInfo{};
    if (software.ReadStringValue(kCurrentVersionKey, L"CurrentVersion", m_sCurrentVersion)) {
      m_dwMajor = DecimalValue(m_sCurrentVersion);
      const std::size_t dot = m_sCurrentVersion.rfind(L'.');
      if (dot != string::npos) m_dwMinor = DecimalValue(string(m_sCurrentVersion.c_str() + dot + 1));
    }
  }
  DWORD product = 0;
  m_bHaveProductInfo = env.GetProductInfo(version.dwMajorVersion, version.dwMinorVersion,
                                          version.wServicePackMajor, version.wServicePackMinor, &product);
  if (m_bHaveProductInfo) m_dwProductInfo = product;

  string text;
  if (software.ReadStringValue(kCurrentVersionKey, L"CurrentBuild", text)) m_dwBuild = DecimalValue(text);
  if (have_version && software.ReadStringValue(kCurrentVersionKey, L"CurrentVersion", text)) m_sCurrentVersion = text;
  if (software.ReadStringValue(kCurrentVersionKey, L"InstallationType", text)) m_sInstallationType = text;
  if (software.ReadStringValue(kCurrentVersionKey, L"CSDVersion", text)) m_sCSDVersion = text;
  if (software.ReadStringValue(kCurrentVersionKey, L"ProductName", text)) m_sProductName = text;

  // A 6.3 answer hides the real generation from programs without a manifest.
  const bool workstation = version.wProductType == 1;
  if (m_dwMajor == 6 && m_dwMinor == 3) {
    const DWORD eleven = workstation ? 22000 : 19504;
    const DWORD ten = workstation ? 10000 : 9800;
    if (m_dwBuild >= eleven) {
      m_dwMajor = 11;
      m_dwMinor = 0;
    } else if (m_dwBuild >= ten) {
      m_dwMajor = 10;
      m_dwMinor = 0;
    }
  }

  m_bWorkstation = workstation;
  m_bDomainController = version.wProductType == 2;
  if (!m_bDomainController) {
    Registry_System system(env);
    m_bDomainController = system.ReadStringValue(L"CurrentControlSet\\Services\\NTDS\\Parameters", L"Root Domain", text);
  }
  m_bServerCore = m_bHaveProductInfo && std::find(kServerCoreProducts.begin(), kServerCoreProducts.end(),
                                                  m_dwProductInfo) != kServerCoreProducts.end();
  if (std::wcsstr(m_sInstallationType.c_str(), L"Core") != nullptr) m_bServerCore = true;

  wchar_t directory[kPathChars] = {};
  m_b64Bit = env.GetSystemWow64DirectoryW(directory, kPathChars) != 0;

  const platform::UINT n = env.GetSystemDirectoryW(directory, kPathChars);
  if (n != 0 && n < kPathChars) {
    string ini(directory);
    ini += L"\\prodspec.ini";
    wchar_t product_text[kPathChars] = {};
    env.GetPrivateProfileStringW(L"Product Specification", L"Product", L"", product_text, kPathChars, ini.c_str());
    if (product_text[0] != 0) {
      m_sProduct = product_text;
      m_bWinPE = m_sProduct.compare_nocase(string(L"WindowsPE")) == 0;
    }
  }
  if (m_bWinPE) m_bWorkstation = true;

  m_dwEnvironment = KindOf(*this);
}

SystemEnvironment& SystemEnvironment::Get() {
  static SystemEnvironment* record = [] {
    auto* r = new SystemEnvironment;  // lives for the process: the trace may use it at unload
    std::lock_guard<std::mutex> lock(r->m_mutex);
    r->Compute(platform::Env::Default());
    return r;
  }();
  return *record;
}

}  // namespace varnel
