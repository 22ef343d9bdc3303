// VMFT's version property, and its three services end to end: letter -> extents ->
// geometry -> boot sector -> the MFT's record 0 -> its runs, the record dumped into the
// caller's stream, or the MFT scanned into an info file; on small disks attached as
// \\.\PhysicalDrive0 or held in memory.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "hardlinks/scan_volume.h"
#include "koru_mft/vmft.h"
#include "mft/record_fixture.h"
#include "platform/disk_map.h"
#include "support/disk_image.h"
#include "support/fake_files_env.h"
#include "support/fake_system_env.h"
#include "support/fault_env.h"
#include "support/image_env.h"
#include "support/temp_dir.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using platform::DWORD;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;
using test::Call;
using test::FakeSystemEnv;
using test::FaultEnv;
using test::TempDir;
using test::TempDisk;
using test::TraceCapture;

constexpr const wchar_t* kUsQuery = L"\\StringFileInfo\\040904B0\\FileVersion";
constexpr const wchar_t* kUkQuery = L"\\StringFileInfo\\080904B0\\FileVersion";

// The description's form is checked on `vmft version` by the foundation integration test.
TEST(VmftModuleProperty, UnknownCategoriesReturnOneAndLeaveTheText) {
  for (int category : {0, 3}) {
    varnel::string text(L"as it was");
    EXPECT_EQ(VMFT::GetModuleProperty(static_cast<VMFT::GMP_CAT>(category), text), 1u);
    EXPECT_STREQ(text.c_str(), L"as it was");
  }
}

// A program in a temporary directory whose kor.ini sends "Log Files" to Logs/.
class VmftVersion : public ::testing::Test {
 protected:
  VmftVersion() : faults_(static_cast<platform::Env&>(fake_)), scoped_(faults_) {
    fake_.exe_path = dir_.win("vmft");
    fake_.version_strings[kUsQuery] = L"1.2.3.4";
    fake_.version_strings[kUkQuery] = L"1.2.3.4-uk";
    const std::wstring logs = dir_.win("Logs");
    dir_.Write("kor.ini", "[File Locations]\r\nLog Files=" + std::string(logs.begin(), logs.end()) + "\r\n");
    std::filesystem::create_directories(dir_ / "Logs");
  }
  std::wstring Version() {
    varnel::string text(L"untouched");
    EXPECT_EQ(VMFT::GetModuleProperty(VMFT::GMP_CAT_VERSION, text), 0u);
    return text.c_str();
  }

  TempDir dir_;
  FakeSystemEnv fake_;
  FaultEnv faults_;
  platform::ScopedEnv scoped_;
  TraceCapture trace_;
};

// The other modules' entries in Version.log are kept by the profile writer
// (PosixIni.WritingReplacesOrAddsTheKeyKeepsTheRestAndMakesNoDirectory).
TEST_F(VmftVersion, ReadsTheFileVersionOfTheLibraryOrElseTheProgramAndRecordsIt) {
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_EQ(fake_.version_queries, (std::vector<std::wstring>{L"\\VarFileInfo\\Translation", kUsQuery}));
  EXPECT_EQ(dir_.Read("Logs/Version.log"), "[KORU_MFT.DLL]\r\nVersion=1.2.3.4\r\n");
  faults_.FailCall(Call::GetModuleHandleW, 126);  // KORU_MFT.DLL's: a static build
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_TRUE(trace_.Has(L"[I]: VMFT::GetResourceVersionStr : No module handle, running as static lib?"));
}

TEST_F(VmftVersion, WithoutATranslationTable0809And04B0AreUsed) {
  faults_.FailCall(Call::VerQueryValueW, platform::kErrorResourceTypeNotFound);
  EXPECT_EQ(Version(), L"1.2.3.4-uk");
  EXPECT_TRUE(trace_.Has(L"[E]: VMFT::GetResourceVersionStr : VerQueryValue failed : dwLastError = 1813"));
  EXPECT_EQ(fake_.version_queries, (std::vector<std::wstring>{kUkQuery}));
}

TEST_F(VmftVersion, EveryFailureLeavesErrorAndSaysWhy) {
  const struct {
    Call call;
    int nth;
    const wchar_t* line;
  } cases[] = {
      {Call::GetModuleHandleW, 0, L"[V]: VMFT::GetResourceVersionStr : ... ending( null module )"},
      {Call::GetModuleFileNameW, 1, L"[E]: VMFT::GetResourceVersionStr : ... ending( GetModuleFileNameW failed ) : dwLastError = 5"},
      {Call::GetFileVersionInfoSizeW, 1,
       L"[E]: VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfoSize failed ) : dwLastError = 5"},
      {Call::GetFileVersionInfoW, 1,
       L"[E]: VMFT::GetResourceVersionStr : ... ending( GetFileVersionInfo failed ) : dwLastError = 5"},
      {Call::VerQueryValueW, 2, L"[E]: VMFT::GetResourceVersionStr : VerQueryValue failed : dwLastError = 5"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.line);
    trace_.Reset();
    faults_.Clear();
    faults_.FailCall(c.call, platform::kErrorAccessDenied, c.nth);
    EXPECT_EQ(Version(), L"Error");
    EXPECT_TRUE(trace_.Has(c.line));
    // An early ending is the only ending; a failed value query ends normally.
    EXPECT_EQ(trace_.Has(L"[V]: VMFT::GetResourceVersionStr : ... ending"), c.call == Call::VerQueryValueW);
  }
  EXPECT_FALSE(dir_.Exists("Logs/Version.log"));
}

TEST_F(VmftVersion, NoLogDirectoryMeansNoVersionLog) {
  faults_.FailCall(Call::GetModuleFileNameW, platform::kErrorAccessDenied, 2);  // GetOwnDir's
  EXPECT_EQ(Version(), L"1.2.3.4");
  EXPECT_FALSE(dir_.Exists("Logs/Version.log"));
}

// A disk of 512-byte sectors whose one MBR partition (type 7) at LBA 2048 holds a
// 128-sector NTFS volume: `spc_byte` in its boot sector, `record0` at cluster
// `mft_cluster` of 8 sectors.
std::vector<std::byte> Disk(const std::vector<std::byte>& record0, std::uint8_t spc_byte = 8,
                            std::uint64_t mft_cluster = 4) {
  std::vector<std::byte> disk =
      test::DiskImage(2048 + 128).Entry(0, 0, 0x07, 2048, 128).Boot(2048, boot::kNtfsOemId, spc_byte, mft_cluster);
  const std::size_t at = (2048 + mft_cluster * 8) * 512;
  if (at + record0.size() <= disk.size()) std::copy(record0.begin(), record0.end(), disk.begin() + at);
  return disk;
}

// Both services fail with the step that failed; the caller's entries and stream are
// left as they were.
TEST(ExtentChain, BitLockerMissingVolumeAndBadGeometryFailBothServices) {
  const auto fails = [](wchar_t letter, const std::wstring& why) {
    TraceCapture trace;
    Ranges ranges{{1, 2}};
    std::wostringstream os;
    EXPECT_FALSE(VMFT::GetMFTSectorRanges(letter, ranges));
    EXPECT_FALSE(VMFT::ReadMFTRecord(os, letter, 0));
    EXPECT_EQ(ranges, (Ranges{{1, 2}}));
    EXPECT_EQ(os.str(), L"");
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::GetMFTSectorRanges : ... ending(" + why + L")"));
    EXPECT_TRUE(trace.Has(L"[E]: VMFT::ReadMFTRecord : ... ending(" + why + L")"));
  };
  {
    TempDisk bitlocker(test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-aes-xts-128.first64k")));
    test::FaultEnv env(platform::Env::Default());  // BitLocker's notice goes to its stdout
    platform::ScopedEnv scoped(env);
    fails(L'C', L"BootSector::GetMftSector() failed");
  }
  TempDisk disk(Disk({}), 512);
  fails(L'D', L"GetVolumeDiskExtentList() failed");
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  // A failed geometry query takes the same way: VolumeOnDisk.GeometryOfTheAttachedDiskAndItsFailures,
  // CreateHLInfo.Failures.
  env.AnswerIoctl([](DWORD code, void* out, DWORD size, DWORD* returned, DWORD* error) {
    if (code != platform::kIoctlDiskGetDriveGeometryEx)
      return platform::AnswerVolumeDiskExtents({{0, 2048 * 512, 128 * 512}}, out, size, returned, error);
    *static_cast<platform::DISK_GEOMETRY_EX*>(out) = {};  // 0 bytes a sector: would divide by zero
    return true;
  });
  fails(L'C', L"GetDiskGeometryEx() failed");
}

// An extent without a cluster size, or whose MFT cannot be read, fails neither
// service: the ranges and the stream stay as they were, every handle opened is closed.
TEST(ExtentChain, NoClusterSizeOrAnUnreadableMftAddNothingButDoNotFail) {
  const struct {
    std::uint8_t spc;
    std::uint64_t mft_cluster;
    const wchar_t *ranges_line, *record_line;
  } cases[] = {
      // A cluster size of 0 skips the extent before any record is read.
      {0, 4, L"[V]: VMFT::GetMFTSectorRanges : ... ending", L"[V]: VMFT::ReadMFTRecord : ... ending"},
      // MFT cluster past the end of the disk: the record read comes up short.
      {8, 1000, L"[E]: MFT::GetMftRanges : ... ending(ReadMftRecord() failed)",
       L"[E]: MFT::Read : ... ending(Didn't read the whole MFT record)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.ranges_line)));
    TempDisk disk(Disk({}, c.spc, c.mft_cluster), 512);
    test::FaultEnv env(platform::Env::Default());
    platform::ScopedEnv scoped(env);
    TraceCapture trace;
    Ranges ranges{{1, 2}};
    std::wostringstream os;
    EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', ranges));
    EXPECT_TRUE(VMFT::ReadMFTRecord(os, L'C', 0));
    EXPECT_EQ(ranges, (Ranges{{1, 2}}));
    EXPECT_EQ(os.str(), L"");
    EXPECT_TRUE(trace.Has(c.ranges_line));
    EXPECT_TRUE(trace.Has(c.record_line));
    EXPECT_EQ(trace.Contains(L": MFT::"), c.spc != 0);  // a reader was made
    EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
  }
}

// Any other sector is read as given: record_windows_test.sh dumps every record by its sector.
TEST(ReadMFTRecord, SectorZeroMeansTheMftsFirstRecordAndTheHandlesAreClosed) {
  TempDisk disk(Disk(test::RecordFixture().End().OnDisk()), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  TraceCapture trace;
  std::wostringstream os;
  EXPECT_TRUE(VMFT::ReadMFTRecord(os, L'C', 0));
  EXPECT_NE(os.str().find(L"Absolute Sectors                 : 2080 & 2081\n"), std::wstring::npos);
  // The argument as passed, not the sector it stands for.
  EXPECT_TRUE(trace.Has(L"[I]: VMFT::ReadMFTRecord : Requested sector : uiSectorNo = 0"));
  EXPECT_EQ(env.Count(test::Call::CreateFileW), env.Count(test::Call::CloseHandle));
}

// A scan that fails adds nothing and does not turn to the directory walk; the other
// failures fail the call. Nothing found, and the walk of a BitLocker volume, are run
// on real volumes by hlinfo_mkntfs_test.sh and hlinfo_bitlocker_test.sh.
TEST(CreateHLInfo, Failures) {
  test::ScanVolume v(512, 1024, 64, {{16, 48}});
  v.PutRecord(17, layout::kRecFlagInUse, 2);
  const std::vector<test::FakeFilesEnv::File> table{{1ull << 48 | 17, {L"\\a", L"\\b"}, 1}};
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
      {v.image(), L'C', [](test::FaultEnv& f) { f.FailCall(test::Call::DeviceIoControl, 1, 2); }, "hl.ini", false, "old",
       ending + L"GetDiskGeometryEx() failed)"},
      {v.image(), L'C', nullptr, "no/such/dir/hl.ini", false, "(none)", ending + L"WriteHLInfo() failed)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    // Each case on a fresh directory whose hl.ini holds "old".
    test::TempDir dir;
    dir.Write("hl.ini", "old");
    test::ImageEnv disk(platform::Env::Default(), c.image, 512);
    test::FakeFilesEnv files(disk);
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
