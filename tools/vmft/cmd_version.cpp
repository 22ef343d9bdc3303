#include <sstream>

#include "command.h"
#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"

namespace {

vmft::Registrar version(10, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  CLI::App* sub = app.add_subcommand("version", "Print the library's build description and file version");
  return {sub, [] {
    std::wostringstream sink;
    VMFT vmft_object(sink);
    varnel::string description, version_text;
    if (VMFT::GetModuleProperty(VMFT::GMP_CAT_DESCRIPTION, description) != 0 ||
        VMFT::GetModuleProperty(VMFT::GMP_CAT_VERSION, version_text) != 0) {
      vmft::Err(L"vmft: the library did not report its identity\n");
      return 1;
    }
    vmft::Out(std::wstring(description.c_str()) + L"\n" + version_text.c_str() + L"\n");
    return 0;
  }};
});

}  // namespace
