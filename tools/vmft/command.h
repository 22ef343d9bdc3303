// vmft subcommands register themselves here, so each lives in its own file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace vmft {

struct Global {
  std::vector<std::string> disks;    // --disk PATH[:SECTOR_SIZE]
  std::vector<std::string> volumes;  // --volume L=DISK:PARTITION
  int trace_level = -1;              // --trace-level N
};

// A subcommand and what it does when chosen (the result is the exit code).
struct Command {
  CLI::App* sub;
  std::function<int()> run;
};
using Setup = std::function<Command(CLI::App& app, Global& global)>;

struct Registrar {
  Registrar(int order, Setup setup);
};

struct Entry {
  int order;
  Setup setup;
};
std::vector<Entry>& Registry();

// "C", "c" or "C:" as the upper-case letter; 0 for anything else.
inline wchar_t DriveLetter(const std::string& text) {
  const bool form = (text.size() == 1 || (text.size() == 2 && text[1] == ':')) &&
                    ((text[0] >= 'A' && text[0] <= 'Z') || (text[0] >= 'a' && text[0] <= 'z'));
  return form ? static_cast<wchar_t>(text[0] & ~0x20) : 0;
}

// Writes a wide text to stdout / stderr as UTF-8.
void Out(const std::wstring& text);
void Err(const std::wstring& text);
// UTF-8 text (an argument, a reason) as wide text.
std::wstring Widen(const std::string& text);

}  // namespace vmft
