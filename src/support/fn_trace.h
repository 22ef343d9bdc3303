// FnTrace: the tracing pattern every function of the library follows, in one place.
// "starting ..." on entry, "... ending" on every exit unless End() gave the reason.
#pragma once

#include <string>
#include <type_traits>

#include "support/trace.h"

namespace varnel {

class FnTrace {
 public:
  explicit FnTrace(const wchar_t* function, CTrace& trace = varnel::Trace())
      : m_function(function), m_trace(trace) {
    if (Wanted(m_trace, kTraceVerbose)) m_trace.Trace(kTraceVerbose, m_function, L"starting ...");
  }
  ~FnTrace() {
    if (!m_ended && Wanted(m_trace, kTraceVerbose)) m_trace.Trace(kTraceVerbose, m_function, L"... ending");
  }
  FnTrace(const FnTrace&) = delete;
  FnTrace& operator=(const FnTrace&) = delete;

  const wchar_t* name() const { return m_function; }
  CTrace& trace() { return m_trace; }

  // "... ending(reason)"; the destructor then writes nothing more.
  void End(const wchar_t* reason, DWORD level = kTraceVerbose) {
    m_ended = true;
    if (!Wanted(m_trace, level)) return;
    std::wstring text = L"... ending(";
    text += reason;
    text += L")";
    m_trace.Trace(level, m_function, text.c_str());
  }
  // An ending written verbatim (for texts whose parentheses are not balanced).
  void EndText(const wchar_t* text, DWORD level = kTraceVerbose) {
    if (Wanted(m_trace, level)) m_trace.Trace(level, m_function, text);
    m_ended = true;
  }
  // "... ending" now, for exits that must trace it before later work (closing handles).
  void Ended() {
    if (!m_ended && Wanted(m_trace, kTraceVerbose)) m_trace.Trace(kTraceVerbose, m_function, L"... ending");
    m_ended = true;
  }
  void Message(const wchar_t* text, DWORD level = kTraceInfo) {
    if (Wanted(m_trace, level)) m_trace.Trace(level, m_function, text);
  }

  // A failed system call: function + " : " + what, value dwLastError (error level).
  // A `what` that is an ending ("... ending(...)") ends the function's trace too.
  void Failed(const wchar_t* what, DWORD last_error) {
    const std::wstring text(what);
    const std::wstring function = std::wstring(m_function) + L" : " + text;
    m_trace.Trace(kTraceError, function.c_str(), L"dwLastError", static_cast<std::int64_t>(last_error));
    if (text.rfind(L"... ending", 0) == 0) m_ended = true;
  }

  // The same, with the whole function text written out ("Fn : ... ending( what )"),
  // for texts that are kept verbatim where they are written.
  void FailedAs(const wchar_t* function_text, DWORD last_error) {
    m_trace.Trace(kTraceError, function_text, L"dwLastError", static_cast<std::int64_t>(last_error));
    if (std::wstring(function_text).find(L" : ... ending") != std::wstring::npos) m_ended = true;
  }

  template <typename T>
  void Value(const wchar_t* name, const T& value, DWORD level = kTraceInfo) {
    ValueOf(m_trace, level, m_function, name, value);
  }

  template <typename T>
  static void ValueOf(CTrace& trace, DWORD level, const wchar_t* function, const wchar_t* name,
                      const T& value) {
    if (!Wanted(trace, level)) return;
    if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char> ||
                  std::is_same_v<T, Bool32> || std::is_same_v<T, double>) {
      trace.Trace(level, function, name, value);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      trace.Trace(level, function, name, static_cast<std::int64_t>(value));
    } else if constexpr (std::is_integral_v<T>) {
      trace.Trace(level, function, name, static_cast<std::uint64_t>(value));
    } else if constexpr (std::is_array_v<T>) {
      trace.Trace(level, function, name, static_cast<const std::remove_extent_t<T>*>(value));
    } else {
      trace.Trace(level, function, name, value);
    }
  }

  // Information and verbose entries that the level mask drops are skipped before
  // their text is built (hot loops trace at these levels); errors and warnings
  // always go to the trace, which keeps the last one for the command line.
  static bool Wanted(CTrace& trace, DWORD level) {
    return level == kTraceError || level == kTraceWarning || (trace.GetLevel() & level) != 0;
  }

 private:
  const wchar_t* m_function;
  CTrace& m_trace;
  bool m_ended = false;
};

}  // namespace varnel
