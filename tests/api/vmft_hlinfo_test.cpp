// VMFT::CreateHLInfo end to end: letter -> extents -> boot sector -> MFT scan -> info
// file, on bare volumes held in memory, the file system's answers from a table.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "hardlinks/scan_volume.h"
#include "koru_mft/vmft.h"
#include "support/fake_files_env.h"
#include "support/image_env.h"
#include "support/temp_dir.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::FakeFilesEnv;
constexpr std::uint16_t kFile = layout::kRecFlagInUse;

struct Outcome {
  bool ok = false;
  std::string file;  // "(none)" when not written
  std::wstring console;
  std::vector<std::wstring> trace;
  bool Traced(const std::wstring& line) const { return std::find(trace.begin(), trace.end(), line) != trace.end(); }
};

// CreateHLInfo(`name` in a fresh directory, `letter`, V) on the volume of `image`,
// whose files are `table`, with `fault` injected; hl.ini there holds "old" first.
Outcome CreateHLInfo(const std::vector<std::byte>& image, std::vector<FakeFilesEnv::File> table, wchar_t letter,
                     const std::function<void(test::FaultEnv&)>& fault, const std::string& name) {
  test::TempDir dir;
  dir.Write("hl.ini", "old");
  test::ImageEnv disk(platform::Env::Default(), image, 512);
  FakeFilesEnv files(disk);
  files.files = std::move(table);
  test::FaultEnv faults(static_cast<platform::Env&>(files));
  platform::ScopedEnv scope(faults);
  test::TraceCapture trace;
  std::wostringstream progress;
  VMFT vmft(progress);
  if (fault) fault(faults);
  Outcome out;
  out.ok = vmft.CreateHLInfo(dir.win(name).c_str(), letter, L'V');
  out.file = dir.Exists(name) ? dir.Read(name) : "(none)";
  out.console = faults.captured_stdout().str();
  out.trace = trace.lines();
  return out;
}

// Nothing found leaves an old file as it was; a scan that fails adds nothing and does
// not turn to the directory walk; the other failures fail the call.
TEST(CreateHLInfo, NothingFoundAndFailures) {
  test::ScanVolume none(512, 1024, 64, {{16, 48}}), v = none;
  none.PutRecord(17, kFile, 1);
  v.PutRecord(17, kFile, 2);
  const std::vector<FakeFilesEnv::File> table{{1ull << 48 | 17, {L"\\a", L"\\b"}, 1}};
  std::vector<std::byte> cut = v.image();
  cut.resize(16 * 512);
  const auto bitlocker = test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-aes-xts-128.first64k"));
  const std::wstring ending = L"[E]: VMFT::CreateHLInfo : ... ending(";
  const struct {
    std::vector<std::byte> image;
    wchar_t letter;
    std::function<void(test::FaultEnv&)> fault;
    std::string name;
    bool ok;
    std::string file;
    std::wstring trace;
  } cases[] = {
      {none.image(), L'C', nullptr, "hl.ini", true, "old", L"[I]: MFT::GetHardLinkList : HardLinkListCount = 0"},
      {cut, L'C', nullptr, "hl.ini", true, "old", L"[E]: MFT::GetHardLinkList : ... ending(GetMftRanges() failed"},
      {v.image(), L'D', nullptr, "hl.ini", false, "old", ending + L"GetVolumeDiskExtentList() failed)"},
      // The first control call lists the extents, the second asks for the geometry.
      {v.image(), L'C', [](test::FaultEnv& f) { f.FailCall(Call::DeviceIoControl, 1, 2); }, "hl.ini", false, "old",
       ending + L"GetDiskGeometryEx() failed)"},
      // A BitLocker volume turns to the walk, which fails where no ProgramData is named.
      {bitlocker, L'C', nullptr, "hl.ini", false, "old", ending + L"HardLinkInfo::Create() failed)"},
      {v.image(), L'C', nullptr, "no/such/dir/hl.ini", false, "(none)", ending + L"WriteHLInfo() failed)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    const Outcome out = CreateHLInfo(c.image, table, c.letter, c.fault, c.name);
    EXPECT_EQ(out.ok, c.ok);
    EXPECT_TRUE(out.Traced(c.trace));
    EXPECT_EQ(out.file, c.file);
    EXPECT_EQ(out.console.empty(), c.image != bitlocker);
  }
}

}  // namespace
}  // namespace koru
