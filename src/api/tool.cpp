#include "koru_mft/tool.h"

#include <algorithm>
#include <cstring>

#include "api/extent_chain.h"
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

// --- Record numbers to sectors --------------------------------------------------
bool GetMftGeometry(wchar_t letter, MftGeometry* geometry) {
  varnel::FnTrace fn(L"koru::tool::GetMftGeometry");
  std::vector<DISK_EXTENT> extents;
  if (!GetVolumeDiskExtentList(letter, extents)) {
    fn.End(L"GetVolumeDiskExtentList() failed", varnel::kTraceError);
    return false;
  }
  for (const auto& extent : extents) {
    ExtentPlace place;
    switch (LocateExtent(fn, extent, place)) {
      case ExtentStep::kOk:
        *geometry = {place.bytes_per_sector, place.bytes_per_record, place.mft_sector};
        return true;
      case ExtentStep::kGeometryFailed:
        fn.End(L"GetDiskGeometryEx() failed", varnel::kTraceError);
        return false;
      case ExtentStep::kBootSectorFailed:
        fn.End(L"BootSector::GetMftSector() failed", varnel::kTraceError);
        return false;
      case ExtentStep::kNoClusterSize: continue;
    }
  }
  fn.End(L"no extent with a cluster size", varnel::kTraceError);
  return false;
}

// --- Record dumps of a copied $MFT ------------------------------------------------
void DumpRecordBytes(std::wostream& os, const void* record, std::size_t size, std::uint64_t sector,
                     std::uint32_t sectors_per_cluster) {
  layout::RecordBuffer buffer{};
  std::memcpy(buffer.data(), record, std::min(size, buffer.size()));
  WriteRecordDump(os, Bytes(buffer), sector, sectors_per_cluster);
}

}  // namespace koru::tool
