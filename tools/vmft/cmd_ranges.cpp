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
    if (letter->empty() || letter->size() > 2 || (letter->size() == 2 && (*letter)[1] != ':') ||
        !std::isalpha(static_cast<unsigned char>((*letter)[0]))) {
      vmft::Err(L"vmft: not a drive letter: " + vmft::Widen(*letter) + L"\n");
      return 2;
    }
    const auto wcDL = static_cast<wchar_t>(std::toupper(static_cast<unsigned char>((*letter)[0])));
    std::vector<std::pair<std::uint64_t, std::uint64_t>> result;
    if (!VMFT::GetMFTSectorRanges(wcDL, result)) {
      std::wstring reason = koru::tool::LastTraceProblem();
      if (reason.empty()) reason = L"the MFT ranges could not be read";
      vmft::Err(L"vmft: " + reason + L"\n");
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
