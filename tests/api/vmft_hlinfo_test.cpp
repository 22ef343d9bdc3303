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

// A scan that fails adds nothing and does not turn to the directory walk; the other
// failures fail the call. Nothing found, and the walk of a BitLocker volume, are run
// on real volumes by hlinfo_mkntfs_test.sh and hlinfo_bitlocker_test.sh.
TEST(CreateHLInfo, Failures) {
  test::ScanVolume v(512, 1024, 64, {{16, 48}});
  v.PutRecord(17, kFile, 2);
  const std::vector<FakeFilesEnv::File> table{{1ull << 48 | 17, {L"\\a", L"\\b"}, 1}};
  std::vector<std::byte> cut = v.image();
  cut.resize(16 * 512);
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
      {cut, L'C', nullptr, "hl.ini", true, "old", L"[E]: MFT::GetHardLinkList : ... ending(GetMftRanges() failed"},
      {v.image(), L'D', nullptr, "hl.ini", false, "old", ending + L"GetVolumeDiskExtentList() failed)"},
      // The first control call lists the extents, the second asks for the geometry.
      {v.image(), L'C', [](test::FaultEnv& f) { f.FailCall(Call::DeviceIoControl, 1, 2); }, "hl.ini", false, "old",
       ending + L"GetDiskGeometryEx() failed)"},
      {v.image(), L'C', nullptr, "no/such/dir/hl.ini", false, "(none)", ending + L"WriteHLInfo() failed)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    // Each case on a fresh directory whose hl.ini holds "old".
    test::TempDir dir;
    dir.Write("hl.ini", "old");
    test::ImageEnv disk(platform::Env::Default(), c.image, 512);
    FakeFilesEnv files(disk);
    files.files = table;
    test::FaultEnv faults(static_cast<platform::Env&>(files));
    platform::ScopedEnv scope(faults);
    test::TraceCapture trace;
    std::wostringstream progress;
    VMFT vmft(progress);
    if (c.fault) c.fault(faults);
    EXPECT_EQ(vmft.CreateHLInfo(dir.win(c.name).c_str(), c.letter, L'V'), c.ok);
    EXPECT_TRUE(trace.Has(c.trace));
    EXPECT_EQ(dir.Exists(c.name) ? dir.Read(c.name) : "(none)", c.file);
    EXPECT_EQ(faults.captured_stdout().str(), L"");
  }
}

}  // namespace
}  // namespace koru
