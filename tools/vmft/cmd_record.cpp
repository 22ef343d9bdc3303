#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <span>
#include <sstream>
#include <vector>

#include "base/bytes.h"
#include "base/ntfs_layout.h"
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
  // A range that runs backwards (cluster numbers wrapped on a broken volume) holds nothing.
  for (auto& [first, end] : ranges) end = std::max(first, end);
  constexpr std::uint64_t kMost = std::uint64_t{1} << 62;
  std::uint64_t sectors = 0;
  for (const auto& [first, end] : ranges) sectors = end - first >= kMost - sectors ? kMost : sectors + (end - first);
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

// Record `number` of a copied $MFT file: records follow each other at the size the
// file's first record gives as its own allocated size.
int DumpFromFile(const std::string& path, std::uint64_t number, std::uint32_t cluster_size) {
  std::ifstream in(std::filesystem::path(std::u8string(path.begin(), path.end())), std::ios::binary);
  if (!in) return Fail(L"cannot open " + vmft::Widen(path));
  std::vector<char> record(koru::layout::kRecordSize);
  in.read(record.data(), static_cast<std::streamsize>(record.size()));
  const std::uint32_t allocated = koru::le32Or0(std::as_bytes(std::span(record)), koru::layout::kRecBytesAllocated);
  const std::uint64_t record_size = allocated >= 1024 && allocated <= 65536 && (allocated & (allocated - 1)) == 0
                                        ? allocated
                                        : koru::layout::kRecordSize;
  if (number > std::numeric_limits<std::uint64_t>::max() / record_size) return Fail(L"no such record");
  in.clear();
  in.seekg(static_cast<std::streamoff>(number * record_size));
  in.read(record.data(), static_cast<std::streamsize>(record.size()));
  if (in.gcount() != static_cast<std::streamsize>(record.size()))
    return Fail(L"" + vmft::Widen(path) + L" ends before MFT record " + std::to_wstring(number));
  std::wostringstream out;
  koru::tool::DumpRecordBytes(out, record.data(), record.size(), number * record_size / 512, cluster_size / 512);
  vmft::Out(out.str());
  return 0;
}

vmft::Registrar record(40, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  auto* sub = app.add_subcommand(
      "record", "Dump one MFT record as text: the record at an absolute disk SECTOR (0 or none: the MFT's first "
                "record), or MFT record N");
  auto letter = std::make_shared<std::string>();
  auto sector = std::make_shared<std::uint64_t>(0);
  auto number = std::make_shared<std::uint64_t>(0);
  auto file = std::make_shared<std::string>();
  auto cluster_size = std::make_shared<std::uint32_t>(4096);
  auto* letter_option = sub->add_option("letter", *letter, "Drive letter of the volume (C, C: ...)");
  auto* sector_option = sub->add_option("sector", *sector, "Absolute sector on the volume's disk where the record begins");
  sub->add_option("--record", *number, "MFT record number, found through the MFT's data runs")
      ->type_name("N")
      ->excludes(sector_option);
  sub->add_option("--mft-file", *file, "Dump record N of a copied $MFT file instead of a volume's")
      ->type_name("PATH")
      ->excludes(letter_option)
      ->excludes(sector_option);
  sub->add_option("--cluster-size", *cluster_size,
                  "With --mft-file: the volume's cluster size in bytes, for the sectors of the data runs")
      ->check(CLI::Range(512u, 1u << 31))
      ->capture_default_str();
  return {sub, [sub, letter, sector, number, file, cluster_size] {
    if (!file->empty()) return DumpFromFile(*file, *number, *cluster_size);
    const auto wcDL = Letter(*letter);
    if (!wcDL) {
      vmft::Err(letter->empty() ? std::wstring(L"vmft: record needs a drive letter or --mft-file\n")
                                : L"vmft: not a drive letter: " + vmft::Widen(*letter) + L"\n");
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
