#include <sstream>

#include "command.h"
#include "koru_mft/tool.h"

namespace {

// " on PATH (FORMAT)": the disk a volume is on, where the library names one.
std::wstring DiskText(const koru::tool::VolumeInfo& v) {
  if (v.disk_path.empty()) return L"";
  std::wstring files;
  if (v.disk_files > 1) files = L", " + std::to_wstring(v.disk_files) + (v.disk_format == L"E01" ? L" segments" : L" parts");
  return L" on " + v.disk_path + L" (" + v.disk_format + files + L")";
}

std::wstring JsonString(const std::wstring& text) {
  std::wstring out = L"\"";
  for (wchar_t c : text) {
    if (c == L'"' || c == L'\\') out += L'\\';
    out += c;
  }
  return out + L"\"";
}

vmft::Registrar volumes(20, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  auto* sub = app.add_subcommand("volumes", "List the NTFS and BitLocker volumes on the attached disks");
  auto json = std::make_shared<bool>(false);
  sub->add_flag("--json", *json, "Print a JSON array");
  return {sub, [json] {
    const auto list = koru::tool::ListVolumes();
    if (list.empty()) {
      vmft::Err(L"vmft: no NTFS or BitLocker volume found on the attached disks\n");
      return 1;
    }
    std::wostringstream out;
    if (*json) {
      out << L"[";
      for (std::size_t i = 0; i < list.size(); ++i) {
        const auto& v = list[i];
        out << (i ? L",\n " : L"") << L"{\"letter\": \"" << v.letter << L"\", \"volume_name\": "
            << JsonString(v.volume_name) << L", \"disk\": " << v.disk << L", \"offset\": " << v.offset
            << L", \"length\": " << v.length << L", \"bytes_per_sector\": " << v.bytes_per_sector
            << L", \"kind\": \"" << v.kind << L"\"";
        if (!v.disk_path.empty())
          out << L", \"disk_path\": " << JsonString(v.disk_path) << L", \"disk_format\": \"" << v.disk_format
              << L"\", \"disk_files\": " << v.disk_files;
        out << L"}";
      }
      out << L"]\n";
    } else {
      for (const auto& v : list)
        out << v.letter << L": " << v.volume_name << L" disk " << v.disk << L" offset " << v.offset << L" length "
            << v.length << L" sector " << v.bytes_per_sector << L" " << v.kind << DiskText(v) << L"\n";
    }
    vmft::Out(out.str());
    return 0;
  }};
});

}  // namespace
