#include "support/trace.h"

#include <array>
#include <cctype>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <iomanip>
#include <sstream>
#include <vector>

#include "base/format.h"
#include "support/system_environment.h"
#include "base/utf8.h"
#include "platform/device_io.h"

namespace varnel {
namespace {

using platform::kPathChars;

thread_local std::wstring t_last_problem;


const wchar_t* Marker(platform::DWORD level) {
  switch (level) {
    case kTraceError: return L":[E]: ";
    case kTraceWarning: return L":[W]: ";
    case kTraceInfo: return L":[I]: ";
    case kTraceVerbose: return L":[V]: ";
    default: return nullptr;
  }
}

std::wstring NamedChar(wchar_t c) {
  switch (c) {
    case 0: return L"<NULL>";
    case 7: return L"<Alert>";
    case 8: return L"<BS>";
    case 12: return L"<FF>";
    case 10: return L"<LF>";
    case 13: return L"<CR>";
    case 9: return L"<Tab>";
    case 11: return L"<VT>";
    default: return std::wstring(1, c);
  }
}

std::wstring Ipv6Text(const std::wstring& text) {
  std::size_t colons = 0;
  for (wchar_t c : text) colons += (c == L':');
  if (colons == 0 || colons >= 8) return L"<Invalid IPv6 address>";
  // Split at "::" (first one); each side is a list of groups.
  auto parse = [](const std::wstring& part) {
    std::vector<std::uint16_t> groups;
    if (part.empty()) return groups;
    std::uint32_t value = 0;
    for (wchar_t c : part + L":") {
      if (c == L':') {
        groups.push_back(static_cast<std::uint16_t>(value & 0xFFFF));
        value = 0;
      } else if (std::iswxdigit(static_cast<std::wint_t>(c)) && c < 0x80) {
        const std::uint32_t digit = (c <= L'9') ? c - L'0' : (std::towlower(c) - L'a' + 10);
        value = ((value << 4) | digit) & 0xFFFFF;
      }
    }
    return groups;
  };
  std::vector<std::uint16_t> groups;
  const std::size_t gap = text.find(L"::");
  if (gap == std::wstring::npos) {
    groups = parse(text);
  } else {
    std::vector<std::uint16_t> head = parse(text.substr(0, gap));
    std::wstring rest = text.substr(gap + 2);
    // A second "::" counts as a plain separator.
    for (std::size_t p; (p = rest.find(L"::")) != std::wstring::npos;) rest.erase(p, 1);
    std::vector<std::uint16_t> tail = parse(rest);
    groups = head;
    const std::size_t used = head.size() + tail.size();
    if (used < 8) groups.insert(groups.end(), 8 - used, 0);
    groups.insert(groups.end(), tail.begin(), tail.end());
  }
  groups.resize(8, 0);
  std::wostringstream out;
  out << std::hex << std::setfill(L'0');
  for (std::size_t i = 0; i < 8; ++i) {
    if (i) out << L':';
    out << std::setw(4) << groups[i];
  }
  return out.str();
}

platform::DWORD MaskFor(platform::DWORD level, platform::DWORD current) {
  switch (level) {
    case 0: return 0;
    case 1: return 1;
    case 2: return 3;
    case 3: return 7;
    case 4: return 15;
    default: return current;
  }
}

}  // namespace

std::wstring Widen(const char* text) {
  string s(text);
  return std::wstring(s.c_str(), s.length());
}

CTrace::CTrace(const wchar_t* log_file_name, const wchar_t* level_key_name)
    : CTrace(log_file_name, level_key_name, platform::Env::Default()) {}

CTrace::CTrace(const wchar_t* log_file_name, const wchar_t* level_key_name, platform::Env& env)
    : m_env(env), m_sFileName(log_file_name), m_sLevelKey(level_key_name) {
  string dir;
  GetLogDir(dir);
  m_sLogFilePath = PathIn(dir);
  if (m_env.PathFileExistsW(m_sLogFilePath.c_str())) {
    string old_path = m_sLogFilePath;
    const std::size_t dot = old_path.rfind(L'.');
    if (dot != string::npos) old_path.erase(dot);
    old_path += L".old";
    m_env.CopyFileW(m_sLogFilePath.c_str(), old_path.c_str(), false);
    m_env.DeleteFileW(m_sLogFilePath.c_str());
  }
  m_dwEnvironment = SystemEnvironment::Get().m_dwEnvironment;
}

string CTrace::PathIn(const string& dir) const {
  string path = dir;
  path += L"\\";
  path += m_sFileName;
  return path;
}

CTrace::~CTrace() = default;

bool CTrace::GetOwnDir(string& dir) {
  const auto name = platform::ModuleFileName(m_env, nullptr);
  dir = name ? string(name->c_str(), name->size()) : string(L"X:\\Program Files\\Varnel\\KORU\\");
  const std::size_t cut = dir.rfind(L'\\');
  if (cut != string::npos) dir.erase(cut);
  return true;
}

bool CTrace::GetLogDir(string& dir) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_sLogDir.empty()) {
      dir = m_sLogDir;
      return true;
    }
  }
  string own;
  GetOwnDir(own);
  string fallback;
  if (EnvironmentKind() == 20) {
    fallback = L"Z:\\KORU\\Logfiles";
  } else {
    fallback = own;
    fallback += L"\\Logfiles";
  }
  string ini = own;
  ini += L"\\kor.ini";
  wchar_t buffer[kPathChars] = {};
  m_env.GetPrivateProfileStringW(L"File Locations", L"Logfiles", fallback.c_str(), buffer, kPathChars,
                                 ini.c_str());
  string result(buffer);
  if (!m_env.PathFileExistsW(result.c_str())) m_env.CreateDirectoryW(result.c_str());
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_sLogDir.empty()) m_sLogDir = result;  // unless SetLogDir came first
  dir = m_sLogDir;
  return true;
}

bool CTrace::SetLogDir(const string& dir) {
  if (!m_env.PathIsDirectoryW(dir.c_str())) return false;
  const string path = PathIn(dir);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sLogDir = dir;
  m_sLogFilePath = path;
  return true;
}

void CTrace::SetLevel(DWORD level) {
  m_dwMask.store(MaskFor(level, m_dwMask.load(std::memory_order_relaxed)), std::memory_order_relaxed);
}

void CTrace::ReadLevel() {
  string dir;
  if (EnvironmentKind() == 20) {
    dir = L"Z:\\KORU";
  } else {
    GetOwnDir(dir);
  }
  dir += L"\\trace.ini";
  SetLevel(m_env.GetPrivateProfileIntW(L"Main", m_sLevelKey.c_str(), 5, dir.c_str()));
}

void CTrace::Restart(const string& dir, DWORD level) {
  if (dir.empty()) return;
  SetLevel(level);
  const string path = PathIn(dir);
  // Under the lock, so that no entry lands in the new file before it is deleted.
  std::lock_guard<std::mutex> lock(m_mutex);
  m_sLogFilePath = path;
  m_env.DeleteFileW(m_sLogFilePath.c_str());
}

bool CTrace::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  platform::HANDLE h = m_env.CreateFileW(m_sLogFilePath.c_str(), platform::kGenericWrite,
                                         platform::kFileShareRead, platform::kCreateAlways, 0);
  if (platform::IsValid(h)) m_env.CloseHandle(h);
  return true;
}

void CTrace::StartFresh() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_bStarted) return;
  m_bStarted = true;
  platform::HANDLE h = m_env.CreateFileW(m_sLogFilePath.c_str(), platform::kGenericWrite,
                                         platform::kFileShareRead, platform::kCreateAlways, 0);
  if (platform::IsValid(h)) m_env.CloseHandle(h);
}

string CTrace::LogFilePath() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_sLogFilePath;
}

DWORD CTrace::GetLevel() { return m_dwMask.load(std::memory_order_relaxed); }

std::wstring CTrace::LastProblem() { return t_last_problem; }
void CTrace::ClearLastProblem() { t_last_problem.clear(); }

void CTrace::SetObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_observer = std::move(observer);
}

std::wstring CTrace::Prefix(DWORD level) {
  platform::SystemTime t{};
  m_env.GetLocalTime(&t);
  wchar_t stamp[26];
  FormatFixed(stamp, 26, L"[%4.4u-%2.2u-%2.2u %2.2u:%2.2u:%2.2u.%3.3u]", unsigned{t.wYear}, unsigned{t.wMonth},
              unsigned{t.wDay}, unsigned{t.wHour}, unsigned{t.wMinute}, unsigned{t.wSecond},
              unsigned{t.wMilliseconds});
  std::wostringstream out;
  out << stamp << L':' << std::hex << std::setw(4) << std::setfill(L'0') << m_env.GetCurrentThreadId();
  if (const wchar_t* marker = Marker(level)) out << marker;
  return out.str();
}

bool CTrace::AppendToFile(const std::wstring& text) {
  platform::HANDLE h = m_env.CreateFileW(m_sLogFilePath.c_str(), platform::kFileAppendData,
                                         platform::kFileShareRead | platform::kFileShareWrite,
                                         platform::kOpenAlways, 0);
  if (!platform::IsValid(h)) return false;
  const std::string bytes = koru::Utf8FromWide(text);
  platform::DWORD written = 0;
  m_env.WriteFile(h, bytes.data(), static_cast<platform::DWORD>(bytes.size()), &written);
  m_env.CloseHandle(h);
  return true;
}

void CTrace::Write(DWORD level, const std::wstring& body) {
  if (level == kTraceError || level == kTraceWarning) t_last_problem = body;
  if (!Enabled(level)) return;
  std::lock_guard<std::mutex> lock(m_mutex);
  const wchar_t* marker = Marker(level);
  std::wstring line = Prefix(level);
  if (marker != nullptr) line += body;
  line += L"\n";
  if (!AppendToFile(line)) return;
  if (m_observer) {
    const std::wstring shown = marker ? std::wstring(marker + 1) + body : std::wstring();
    m_observer(shown);
  }
}

void CTrace::WriteRaw(const std::wstring& text) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (AppendToFile(text) && m_observer) m_observer(text);
}

std::wstring CTrace::ValueLine(const wchar_t* function, const wchar_t* name, const std::wstring& value_text) {
  std::wstring body = function ? function : L"";
  body += L" : ";
  body += name ? name : L"";
  body += value_text;
  return body;
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* message) {
  std::wstring body = function ? function : L"";
  body += L" : ";
  body += message ? message : L"";
  Write(level, body);
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, wchar_t value) {
  Write(level, ValueLine(function, name, L" = '" + NamedChar(value) + L"'"));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, char value) {
  wchar_t wide = static_cast<wchar_t>(static_cast<unsigned char>(value));
  if (std::isprint(static_cast<unsigned char>(value))) {
    wchar_t converted = 0;
    if (std::mbtowc(&converted, &value, 1) == 1) wide = converted;
  }
  Trace(level, function, name, wide);
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, const wchar_t* value) {
  Write(level, ValueLine(function, name, std::wstring(L" = \"") + (value ? value : L"<null>") + L"\""));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, const char* value) {
  if (value == nullptr) return Trace(level, function, name, static_cast<const wchar_t*>(nullptr));
  Trace(level, function, name, Widen(value).c_str());
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, const std::wstring& value) {
  Trace(level, function, name, value.c_str());
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, const std::string& value) {
  Trace(level, function, name, value.c_str());
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, const string& value) {
  Trace(level, function, name, value.c_str());
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, std::int64_t value) {
  Write(level, ValueLine(function, name, L" = " + std::to_wstring(value)));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, std::uint64_t value) {
  Write(level, ValueLine(function, name, L" = " + std::to_wstring(value)));
}

void CTrace::TracePadded(DWORD level, const wchar_t* function, const wchar_t* name, const std::uint32_t* value) {
  std::wostringstream out;
  out << L" = ";
  if (value == nullptr) {
    out << L"<null>";
  } else {
    out << std::setw(4) << std::setfill(L'0') << *value;
  }
  Write(level, ValueLine(function, name, out.str()));
}

void CTrace::TraceHex(DWORD level, const wchar_t* function, const wchar_t* name, std::uint64_t value) {
  std::wostringstream out;
  out << L" = 0x" << std::hex << value;
  Write(level, ValueLine(function, name, out.str()));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, Bool32 value) {
  Write(level, ValueLine(function, name, value.value ? L" = true" : L" = false"));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, bool value) {
  Write(level, ValueLine(function, name, value ? L" = true" : L" = false"));
}

void CTrace::Trace(DWORD level, const wchar_t* function, const wchar_t* name, double value) {
  std::wostringstream out;
  out << L" = " << value * 10000.0 / 10000.0;
  Write(level, ValueLine(function, name, out.str()));
}

void CTrace::TraceBytes(DWORD level, const wchar_t* function, const wchar_t* name, const void* bytes,
                        std::size_t count) {
  if (!Enabled(level)) return;
  const auto* p = static_cast<const unsigned char*>(bytes);
  std::wostringstream out;
  out << L" = ";
  if (p == nullptr) count = 0;
  if (count > 32) out << L"\n";
  out << std::hex << std::setfill(L'0');
  for (std::size_t i = 0; i < count; ++i) {
    out << std::setw(2) << static_cast<unsigned>(p[i]);
    // The final line end comes from the entry itself.
    if ((i + 1) % 32 == 0) {
      out << L"\n";
    } else {
      out << L' ';
    }
  }
  std::wstring text = out.str();
  Write(level, ValueLine(function, name, text));
}

void CTrace::Banner(const wchar_t* message) {
  if (GetLevel() == 0) return;
  const std::wstring inner = std::wstring(L"** ") + (message ? message : L"") + L" **";
  const std::wstring stars(inner.size(), L'*');
  WriteRaw(L"\n" + stars + L"\n" + inner + L"\n" + stars + L"\n\n");
}

void CTrace::TraceIPv4(DWORD level, const wchar_t* function, const wchar_t* name, std::uint32_t address,
                       bool host_order) {
  if (!Enabled(level)) return;
  const std::uint32_t network = host_order ? m_env.HostToNetworkLong(address) : address;
  char text[16] = {};
  std::wstring shown = L"<invalid>";
  if (m_env.InetNtoa(network, text, sizeof text)) {
    text[sizeof text - 1] = 0;
    shown = Widen(text);
  }
  Write(level, ValueLine(function, name, L" = " + shown));
}

void CTrace::TraceIPv6(DWORD level, const wchar_t* function, const wchar_t* name, const wchar_t* address) {
  Write(level, ValueLine(function, name, L" = " + Ipv6Text(address ? address : L"")));
}

void CTrace::TraceIPv6(DWORD level, const wchar_t* function, const wchar_t* name, const char* address) {
  TraceIPv6(level, function, name, Widen(address).c_str());
}

void CTrace::TraceGuid(DWORD level, const wchar_t* function, const wchar_t* name, const Guid& g) {
  wchar_t text[37];
  FormatFixed(text, 37, L"%8.8X-%4.4X-%4.4X-%2.2X%2.2X-%2.2X%2.2X%2.2X%2.2X%2.2X%2.2X", unsigned{g.Data1},
              unsigned{g.Data2}, unsigned{g.Data3}, unsigned{g.Data4[0]}, unsigned{g.Data4[1]},
              unsigned{g.Data4[2]}, unsigned{g.Data4[3]}, unsigned{g.Data4[4]}, unsigned{g.Data4[5]},
              unsigned{g.Data4[6]}, unsigned{g.Data4[7]});
  Write(level, ValueLine(function, name, std::wstring(L" = { ") + text + L" }"));
}

void CTrace::TraceTime(DWORD level, const wchar_t* function, const wchar_t* name, const platform::SystemTime& t) {
  static const std::array<std::wstring, 7> kDays = {L"Sunday",   L"Monday", L"Tuesday", L"Wednesday",
                                                    L"Thursday", L"Friday", L"Saturday"};
  std::wostringstream out;
  out << L" = " << (t.wDayOfWeek < 7 ? kDays[t.wDayOfWeek] : std::wstring(L"?")) << L", "
      << std::setfill(L'0') << std::setw(2) << t.wDay << L"/" << std::setw(2) << t.wMonth << L"/"
      << std::setw(4) << t.wYear << L" " << std::setw(2) << t.wHour << L":" << std::setw(2) << t.wMinute
      << L":" << std::setw(2) << t.wSecond;
  Write(level, ValueLine(function, name, out.str()));
}

CTrace& Trace() {
  // Never destroyed: static destructors of other modules may still trace at unload.
  static CTrace* trace = new CTrace(L"VMFT_trace.log", L"VMFT_TraceLevel");
  return *trace;
}

namespace {
// Built at load, as the library's users expect the log to be rotated before any call.
[[maybe_unused]] const bool g_trace_built_at_load = (Trace(), true);
}  // namespace

}  // namespace varnel
