#include "koru_mft/tool.h"

#include "platform/disks.h"
#include "support/trace.h"

namespace koru::tool {

bool AttachDisk(const std::string& arg, std::string* error) { return platform::AttachDisk(arg, error); }

bool PinVolume(const std::string& arg, std::string* error) { return platform::PinVolume(arg, error); }

std::vector<VolumeInfo> ListVolumes() {
  std::vector<VolumeInfo> out;
  for (const auto& v : platform::ListVolumes())
    out.push_back({v.letter, v.volume_name, v.disk, v.offset, v.length, v.bytes_per_sector, v.kind});
  return out;
}

std::string FileLevelProblem(wchar_t letter) { return platform::FileLevelProblem(letter); }

void SetTraceLevel(unsigned level) { varnel::Trace().SetLevel(level); }

std::wstring TraceLogPath() {
  const varnel::string path = varnel::Trace().LogFilePath();
  return std::wstring(path.c_str(), path.length());
}

std::wstring LastTraceProblem() { return varnel::CTrace::LastProblem(); }

}  // namespace koru::tool
