#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>
#include <sstream>

#include "command.h"
#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"

namespace {

std::optional<wchar_t> Letter(const std::string& text) {
  if (text.empty() || text.size() > 2 || (text.size() == 2 && text[1] != ':') ||
      !std::isalpha(static_cast<unsigned char>(text[0])))
    return std::nullopt;
  return static_cast<wchar_t>(std::toupper(static_cast<unsigned char>(text[0])));
}

int Fail(const std::wstring& text) {
  vmft::Err(L"vmft: " + text + L"\n");
  return 1;
}

std::wstring Reason(const wchar_t* otherwise) {
  const std::wstring reason = koru::tool::LastTraceProblem();
  return reason.empty() ? otherwise : reason;
}

// The absolute sector where MFT record `number` begins, found by walking the MFT's
// own data runs; nothing (with the reason said) when it cannot be dumped.
std::optional<std::uint64_t> RecordSector(wchar_t letter, std::uint64_t number) {
  koru::tool::MftGeometry geometry;
  if (!koru::tool::GetMftGeometry(letter, &geometry)) {
    Fail(Reason(L"the volume's boot sector could not be read"));
    return std::nullopt;
  }
  const std::uint64_t record_size = geometry.bytes_per_record;
  const std::uint64_t sector_size = geometry.bytes_per_sector;
  if (record_size == 0) {
    Fail(L"the boot sector of " + std::wstring(1, letter) + L": gives no usable file-record size");
    return std::nullopt;
  }
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  if (!VMFT::GetMFTSectorRanges(letter, ranges)) {
    Fail(Reason(L"the MFT's data runs could not be read"));
    return std::nullopt;
  }
  std::uint64_t sectors = 0;
  for (const auto& [first, end] : ranges) sectors += end - first;
  if (number > std::numeric_limits<std::uint64_t>::max() / record_size ||
      number * record_size / sector_size >= sectors) {
    Fail(L"MFT record " + std::to_wstring(number) + L" lies past the end of the MFT's data runs (" +
         std::to_wstring(sectors * sector_size / record_size) + L" records)");
    return std::nullopt;
  }
  const std::uint64_t offset = number * record_size;
  std::uint64_t index = offset / sector_size;
  for (const auto& [first, end] : ranges) {
    if (index >= end - first) {
      index -= end - first;
      continue;
    }
    if (offset % sector_size == 0) return first + index;
    Fail(L"MFT record " + std::to_wstring(number) + L" does not begin on a sector boundary (" +
         std::to_wstring(record_size) + L"-byte records on " + std::to_wstring(sector_size) +
         L"-byte sectors: it starts " + std::to_wstring(offset % sector_size) + L" bytes into sector " +
         std::to_wstring(first + index) + L"), and a record dump starts at the beginning of a sector");
    return std::nullopt;
  }
  return std::nullopt;  // not reached: the index was checked against the total
}

vmft::Registrar record(40, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  auto* sub = app.add_subcommand(
      "record", "Dump one MFT record as text: the record at an absolute disk SECTOR (0 or none: the MFT's first "
                "record), or MFT record N");
  auto letter = std::make_shared<std::string>();
  auto sector = std::make_shared<std::uint64_t>(0);
  auto number = std::make_shared<std::uint64_t>(0);
  sub->add_option("letter", *letter, "Drive letter of the volume (C, C: ...)")->required();
  auto* sector_option = sub->add_option("sector", *sector, "Absolute sector on the volume's disk where the record begins");
  sub->add_option("--record", *number, "MFT record number, found through the MFT's data runs")
      ->type_name("N")
      ->excludes(sector_option);
  return {sub, [sub, letter, sector, number] {
    const auto wcDL = Letter(*letter);
    if (!wcDL) {
      vmft::Err(L"vmft: not a drive letter: " + vmft::Widen(*letter) + L"\n");
      return 2;
    }
    std::uint64_t target = *sector;
    if (sub->count("--record") != 0) {
      const auto found = RecordSector(*wcDL, *number);
      if (!found) return 1;
      target = *found;
    }
    std::wostringstream out;
    if (!VMFT::ReadMFTRecord(out, *wcDL, target)) return Fail(Reason(L"the volume could not be read"));
    if (out.str().empty()) return Fail(Reason(L"the record could not be read"));
    vmft::Out(out.str());
    return 0;
  }};
});

}  // namespace
