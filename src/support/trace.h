// varnel::CTrace: the library's own log. One process-wide instance, built at load;
// the file is opened and closed around every entry so the log survives a crash.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "koru_mft/varnel_string.h"
#include "platform/env.h"

namespace varnel {

using platform::DWORD;

enum TraceLevel : DWORD { kTraceError = 1, kTraceWarning = 2, kTraceInfo = 4, kTraceVerbose = 8 };

// A Win32 BOOL, kept apart from plain integers so that a number is never printed as
// "true" by accident.
struct Bool32 {
  std::int32_t value;
};

struct Guid {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};

class CTrace {
 public:
  // Uses `env` for every system call it makes; the process-wide instance uses Env::Default().
  CTrace(const wchar_t* log_file_name, const wchar_t* level_key_name, platform::Env& env);
  CTrace(const wchar_t* log_file_name, const wchar_t* level_key_name);
  virtual ~CTrace();
  CTrace(const CTrace&) = delete;
  CTrace& operator=(const CTrace&) = delete;

  virtual bool GetLogDir(string& dir);
  virtual bool SetLogDir(const string& dir);
  virtual bool GetOwnDir(string& dir);
  virtual void SetLevel(DWORD level);
  virtual void ReadLevel();
  virtual void Restart(const string& dir, DWORD level);
  virtual bool Clear();
  virtual DWORD GetLevel();
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* message);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, wchar_t value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, char value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, const wchar_t* value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, const char* value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, const std::wstring& value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, const std::string& value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, const string& value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, std::int64_t value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, std::uint64_t value);
  virtual void TracePadded(DWORD level, const wchar_t* function, const wchar_t* name, const std::uint32_t* value);
  virtual void TraceHex(DWORD level, const wchar_t* function, const wchar_t* name, std::uint64_t value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, Bool32 value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, bool value);
  virtual void Trace(DWORD level, const wchar_t* function, const wchar_t* name, double value);
  virtual void TraceBytes(DWORD level, const wchar_t* function, const wchar_t* name, const void* bytes,
                          std::size_t count);
  virtual void Banner(const wchar_t* message);
  virtual void TraceIPv4(DWORD level, const wchar_t* function, const wchar_t* name, std::uint32_t address,
                         bool host_order);
  virtual void TraceIPv6(DWORD level, const wchar_t* function, const wchar_t* name, const wchar_t* address);
  virtual void TraceIPv6(DWORD level, const wchar_t* function, const wchar_t* name, const char* address);
  virtual void TraceGuid(DWORD level, const wchar_t* function, const wchar_t* name, const Guid& guid);
  virtual void TraceTime(DWORD level, const wchar_t* function, const wchar_t* name,
                         const platform::SystemTime& time);

  // Empties the log when the first VMFT object is made; later objects keep it.
  void StartFresh();
  string LogFilePath();
  DWORD EnvironmentKind() const { return m_dwEnvironment.load(std::memory_order_relaxed); }
  // Takes another environment kind than the process record's (a caller that
  // classified another system, and tests).
  void UseEnvironmentKind(DWORD kind) { m_dwEnvironment.store(kind, std::memory_order_relaxed); }

  // The body of the calling thread's most recent error or warning entry, whether or
  // not it reached the file: what a command-line caller reports on failure.
  static std::wstring LastProblem();
  static void ClearLastProblem();

  // Test hook: sees the marker and body of every entry written ("[V]: fn : text").
  using Observer = std::function<void(const std::wstring& line)>;
  void SetObserver(Observer observer);

 private:
  string PathIn(const string& dir) const;  // dir + "\\" + the log file name
  void Write(DWORD level, const std::wstring& body);
  void WriteRaw(const std::wstring& text);  // under the lock, no prefix
  bool AppendToFile(const std::wstring& text);
  std::wstring Prefix(DWORD level);
  std::wstring ValueLine(const wchar_t* function, const wchar_t* name, const std::wstring& value_text);

  bool Enabled(DWORD level) const { return (m_dwMask.load(std::memory_order_relaxed) & level) != 0; }

  platform::Env& m_env;
  // Read before the lock by every entry, so that a filtered entry costs no waiting.
  std::atomic<DWORD> m_dwMask{7};
  std::mutex m_mutex;
  std::atomic<DWORD> m_dwEnvironment{1};
  const string m_sFileName;
  const string m_sLevelKey;
  // Under m_mutex: where entries go, the cached directory, the start-afresh flag.
  string m_sLogFilePath;
  string m_sLogDir;
  bool m_bStarted = false;
  Observer m_observer;
};

// The process-wide trace object ("VMFT_trace.log", "VMFT_TraceLevel").
CTrace& Trace();

// Narrow text widened the way the library widens every narrow literal.
std::wstring Widen(const char* text);

}  // namespace varnel
