#include <algorithm>
#include <clocale>
#include <cstdio>
#include <iostream>
#include <string>

#include "base/utf8.h"
#include "command.h"
#include "koru_mft/tool.h"

namespace vmft {

std::vector<Entry>& Registry() {
  static std::vector<Entry> entries;
  return entries;
}

Registrar::Registrar(int order, Setup setup) { Registry().push_back({order, std::move(setup)}); }

std::string Utf8(const std::wstring& text) { return koru::Utf8FromWide(text); }

void Out(const std::wstring& text) {
  std::cout << Utf8(text);
  std::cout.flush();
}

void Err(const std::wstring& text) {
  std::cerr << Utf8(text);
  std::cerr.flush();
}

std::wstring Widen(const std::string& text) { return koru::WideFromUtf8(text); }

}  // namespace vmft

namespace {

int Run(int argc, char** argv) {
  CLI::App app{"vmft - read the MFT of NTFS volumes below the file system"};
  app.require_subcommand(1);
  vmft::Global global;
  app.add_option("--disk", global.disks,
                 "Attach a block device or disk image as the next \\\\.\\PhysicalDriveN (PATH[:SECTOR_SIZE])")
      ->type_name("PATH[:SECTOR_SIZE]");
  app.add_option("--volume", global.volumes, "Pin a drive letter to a partition (L=DISK:PARTITION)")
      ->type_name("L=DISK:PARTITION");
  app.add_option("--trace-level", global.trace_level, "Trace level 0-4 for this run (as trace.ini sets it)")
      ->check(CLI::Range(0, 4));

  auto& entries = vmft::Registry();
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.order < b.order; });
  std::vector<vmft::Command> commands;
  for (auto& entry : entries) commands.push_back(entry.setup(app, global));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version are "errors" that succeed; every refused argument exits 2,
    // one code for scripts whatever CLI11 numbers the reason.
    const int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }

  if (global.trace_level >= 0) koru::tool::SetTraceLevel(static_cast<unsigned>(global.trace_level));
  for (const auto& arg : global.disks) {
    std::string error;
    if (!koru::tool::AttachDisk(arg, &error)) {
      vmft::Err(L"vmft: cannot attach disk " + vmft::Widen(arg) + L": " + vmft::Widen(error) + L"\n");
      return 2;
    }
  }
  for (const auto& arg : global.volumes) {
    std::string error;
    if (!koru::tool::PinVolume(arg, &error)) {
      vmft::Err(L"vmft: bad --volume " + vmft::Widen(arg) + L": " + vmft::Widen(error) + L"\n");
      return 2;
    }
  }
  for (auto& command : commands)
    if (command.sub->parsed()) return command.run();
  return 1;
}

}  // namespace

#if defined(_WIN32)
// Windows hands the arguments over in UTF-16; the options are parsed as UTF-8, as on Linux.
int wmain(int argc, wchar_t** argv) {
  std::setlocale(LC_ALL, "");
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) args.push_back(vmft::Utf8(argv[i]));
  std::vector<char*> pointers;
  for (auto& arg : args) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  return Run(argc, pointers.data());
}
#else
int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  return Run(argc, argv);
}
#endif
