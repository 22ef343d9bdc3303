#include <sstream>

#include "command.h"
#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"

namespace {

vmft::Registrar ranges(30, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  auto* sub = app.add_subcommand("ranges", "Print the disk-sector ranges [FIRST, END) that hold a volume's MFT");
  auto letter = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);
  sub->add_option("letter", *letter, "Drive letter of the volume (C, C: ...)")->required();
  sub->add_flag("--json", *json, "Print [[first,end],...]");
  return {sub, [letter, json] {
    const auto ascii_letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); };
    if (letter->empty() || letter->size() > 2 || (letter->size() == 2 && (*letter)[1] != ':') ||
        !ascii_letter((*letter)[0])) {
      vmft::Err(L"vmft: not a drive letter: " + vmft::Widen(*letter) + L"\n");
      return 2;
    }
    const auto wcDL = static_cast<wchar_t>(std::toupper(static_cast<unsigned char>((*letter)[0])));
    // The library's answer is passed on only when it holds up against the volume:
    // a partial or nonsensical map must never look like a success.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> result;
    const bool answered = VMFT::GetMFTSectorRanges(wcDL, result);
    std::wstring why;
    if (!koru::tool::CheckMftRanges(wcDL, result, &why) || !answered) {
      if (why.empty())
        why = L"the MFT ranges of " + std::wstring(1, wcDL) + L": could not be read (trace log: " +
              koru::tool::TraceLogPath() + L")";
      vmft::Err(L"vmft: " + why + L"\n");
      return 1;
    }
    std::wostringstream out;
    if (*json) {
      out << L"[";
      for (std::size_t i = 0; i < result.size(); ++i)
        out << (i ? L"," : L"") << L"[" << result[i].first << L"," << result[i].second << L"]";
      out << L"]\n";
    } else {
      for (const auto& [first, end] : result) out << first << L" " << end << L"\n";
    }
    vmft::Out(out.str());
    return 0;
  }};
});

}  // namespace
