#include "koru_mft/tool.h"

#include "support/trace.h"

namespace koru::tool {

void SetTraceLevel(unsigned level) { varnel::Trace().SetLevel(level); }

std::wstring TraceLogPath() {
  const varnel::string path = varnel::Trace().LogFilePath();
  return std::wstring(path.c_str(), path.length());
}

std::wstring LastTraceProblem() { return varnel::CTrace::LastProblem(); }

}  // namespace koru::tool
