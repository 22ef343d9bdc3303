#include "koru_mft/tool.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "api/extent_chain.h"
#include "base/ntfs_layout.h"
#include "disk/volume.h"
#include "platform/disks.h"
#include "support/trace.h"

namespace koru::tool {

bool AttachDisk(const std::string& arg, std::string* error) { return platform::AttachDisk(arg, error); }

bool PinVolume(const std::string& arg, std::string* error) { return platform::PinVolume(arg, error); }

std::vector<VolumeInfo> ListVolumes() {
  std::vector<VolumeInfo> out;
  for (const auto& v : platform::ListVolumes())
    out.push_back({v.letter, v.volume_name, v.disk, v.offset, v.length, v.bytes_per_sector, v.kind, v.disk_path,
                   v.disk_format, v.disk_files});
  return out;
}

std::string FileLevelProblem(wchar_t letter) {
  std::string why = platform::FileLevelProblem(letter);
  // A caller that stops here has the reason in the trace too.
  if (!why.empty()) varnel::Trace().Trace(varnel::kTraceWarning, L"koru::tool::FileLevelProblem", L"sReason", why);
  return why;
}

namespace {

bool IsBitLocker(wchar_t letter) {
  const auto volumes = platform::ListVolumes();
  return std::any_of(volumes.begin(), volumes.end(),
                     [letter](const auto& v) { return v.letter == letter && v.kind == L"BitLocker"; });
}

}  // namespace

bool ReadBitLockerFilesThrough(wchar_t letter, wchar_t copy) {
  if (!IsBitLocker(letter)) return false;
  platform::ReadFilesThrough(letter, copy);
  return true;
}

namespace {

// A record's first four bytes: quoted when printable, else in hexadecimal.
std::wstring Signature(Bytes record) {
  std::wstring text = L"\"";
  std::wostringstream hex;
  hex << std::hex << std::setfill(L'0');
  bool printable = true;
  for (std::size_t i = 0; i < 4; ++i) {
    const unsigned c = le8Or0(record, layout::kRecSignature + i);
    printable = printable && c >= 0x20 && c < 0x7F;
    text += static_cast<wchar_t>(c);
    hex << (i ? L" " : L"") << std::setw(2) << c;
  }
  return printable ? text + L"\"" : hex.str();
}

// The sectors one extent of the volume holds on its disk, [first, end).
struct Span {
  platform::DWORD disk;
  std::uint64_t first, end;
};

std::wstring RangeText(std::uint64_t first, std::uint64_t end) {
  return L"[" + std::to_wstring(first) + L", " + std::to_wstring(end) + L")";
}

}  // namespace

bool CheckMftRanges(wchar_t letter, const std::vector<std::pair<std::uint64_t, std::uint64_t>>& ranges,
                    std::wstring* why) {
  varnel::FnTrace fn(L"CheckMftRanges");
  const std::wstring volume = std::wstring(1, letter) + L":";
  const auto fail = [&](const std::wstring& reason) {
    fn.End(reason.c_str(), varnel::kTraceWarning);
    if (why) *why = reason;
    return false;
  };

  varnel::string name;
  std::vector<DISK_EXTENT> extents;
  if (!GetVolumeNameFromDL(letter, name)) return fail(L"there is no volume " + volume);
  if (!GetVolumeDiskExtentList(name, extents)) return fail(L"the disk extents of volume " + volume + L" cannot be read");
  if (extents.empty()) return fail(L"volume " + volume + L" lies on no disk");
  // Asked before the boot sector is read again, which would announce BitLocker twice.
  if (IsBitLocker(letter)) return fail(volume + L" is a BitLocker volume: its MFT cannot be read below the encryption");

  std::vector<Span> spans;
  for (const DISK_EXTENT& extent : extents) {
    const std::wstring disk = L"disk " + std::to_wstring(extent.DiskNumber);
    ExtentPlace place;
    switch (LocateExtent(fn, extent, place)) {
      case ExtentStep::kOk: break;
      case ExtentStep::kGeometryFailed:
        return fail(L"the geometry of " + disk + L", which holds volume " + volume + L", cannot be read");
      case ExtentStep::kBootSectorFailed:
        return fail(L"the boot sector of " + volume + L" (" + disk + L", sector " + std::to_wstring(place.start_sector) +
                    L") cannot be read");
      case ExtentStep::kNoClusterSize:
        return fail(L"the boot sector of " + volume + L" gives no cluster size (its sectors-per-cluster byte is 0), "
                    L"so its MFT cannot be placed");
    }
    const std::wstring record0 =
        L"MFT record 0 of " + volume + L" (" + disk + L", sector " + std::to_wstring(place.mft_sector) + L")";
    MFT reader = MakeReader(place, letter, place.mft_sector);
    layout::RecordBuffer record{};
    std::vector<std::pair<std::uint64_t, std::uint64_t>> whole;
    const bool read = reader.ReadMftRecord(place.mft_sector, record);
    const bool mapped = read && reader.GetMftRanges(whole);
    reader.CloseHandles();
    if (!read) {
      const std::uint64_t sectors = (layout::kRecordSize + place.bytes_per_sector - 1) / place.bytes_per_sector;
      if (place.mft_sector + sectors > place.disk_sectors)
        return fail(record0 + L" lies past the end of the disk (" + std::to_wstring(place.disk_sectors) + L" sectors)");
      return fail(record0 + L" cannot be read");
    }
    if (Signature(Bytes(record)) != L"\"FILE\"")
      return fail(record0 + L" is not signed \"FILE\" (it begins " + Signature(Bytes(record)) + L")");
    if (!mapped)
      return fail(record0 + L" does not map the whole MFT: a $DATA attribute is resident or its run list is cut, "
                  L"or the attribute walk left the record (the trace log says which)");
    const auto length = static_cast<std::uint64_t>(std::max<std::int64_t>(extent.ExtentLength, 0)) / place.bytes_per_sector;
    spans.push_back({extent.DiskNumber, place.start_sector, std::min(place.start_sector + length, place.disk_sectors)});
  }

  if (ranges.empty()) return fail(L"no MFT sector ranges were found for volume " + volume);
  for (const auto& range : ranges) {
    const std::uint64_t first = range.first, end = range.second;
    if (first >= end) return fail(L"the MFT range " + RangeText(first, end) + L" of " + volume + L" is empty or reversed");
    const bool inside = std::any_of(spans.begin(), spans.end(),
                                    [&](const Span& s) { return first >= s.first && end <= s.end; });
    if (!inside) {
      std::wstring held;
      for (const Span& s : spans)
        held += (held.empty() ? L"" : L", ") + RangeText(s.first, s.end) + L" of disk " + std::to_wstring(s.disk);
      return fail(L"the MFT range " + RangeText(first, end) + L" lies outside volume " + volume + L", which holds " +
                  L"sectors " + held);
    }
  }
  return true;
}

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
