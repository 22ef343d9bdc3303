#include <memory>
#include <ostream>
#include <string>

#include "base/utf8.h"
#include "command.h"
#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"

namespace {

// The library's progress lines, passed on to standard output as each one ends.
class ProgressOut : public std::wstreambuf {
 public:
  ~ProgressOut() override { sync(); }

 protected:
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) text_ += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const wchar_t* s, std::streamsize n) override {
    text_.append(s, static_cast<std::size_t>(n));
    return n;
  }
  int sync() override {
    if (!text_.empty()) vmft::Out(text_);
    text_.clear();
    return 0;
  }

 private:
  std::wstring text_;
};

vmft::Registrar hlinfo(40, [](CLI::App& app, vmft::Global&) -> vmft::Command {
  auto* sub = app.add_subcommand(
      "hlinfo", "Write the hard-link info file of a Windows volume: every file with several names, all its names");
  auto file = std::make_shared<std::string>();
  auto windows = std::make_shared<std::string>();
  auto vss = std::make_shared<std::string>();
  sub->add_option("file", *file, "The info file to write (left as it is when no file has more than one link)")->required();
  sub->add_option("windows", *windows, "Drive letter of the Windows volume, written into the names")->required();
  sub->add_option("vss", *vss, "Drive letter through which the volume is read (default: the Windows letter)");
  return {sub, [file, windows, vss] {
    const wchar_t wcWindows = vmft::DriveLetter(*windows);
    const wchar_t wcVssDrive = vss->empty() ? wcWindows : vmft::DriveLetter(*vss);
    if (wcWindows == 0 || wcVssDrive == 0) {
      vmft::Err(L"vmft: not a drive letter: " + vmft::Widen(wcWindows == 0 ? *windows : *vss) + L"\n");
      return 2;
    }
    // The names come from the file system; where it cannot be read, an inventory would
    // come out empty and look complete. A BitLocker volume is read through its copy,
    // the VSS letter, on Linux.
    const bool bitlocker = wcVssDrive != wcWindows && koru::tool::ReadBitLockerFilesThrough(wcWindows, wcVssDrive);
    for (const wchar_t letter : {wcVssDrive, wcWindows}) {
      if (letter == wcWindows && bitlocker) continue;
      const std::string why = koru::tool::FileLevelProblem(letter);
      if (!why.empty()) {
        vmft::Err(L"vmft: cannot make the hard-link inventory: " + vmft::Widen(why) + L"\n");
        return 1;
      }
    }
    ProgressOut console;
    std::wostream progress(&console);
    VMFT vmft_object(progress);
    if (!vmft_object.CreateHLInfo(varnel::string(koru::WideFromUtf8(*file).c_str()), wcWindows, wcVssDrive)) {
      std::wstring reason = koru::tool::LastTraceProblem();
      if (reason.empty()) reason = L"the hard-link info file could not be made";
      vmft::Err(L"vmft: " + reason + L"\n");
      return 1;
    }
    return 0;
  }};
});

}  // namespace
