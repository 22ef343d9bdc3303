// MFT::GetHardLinkList over volumes held in memory, the file system's answers from a
// table that names every file id "\f<id>".
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "api/extent_chain.h"
#include "hardlinks/scan_volume.h"
#include "mft/mft.h"
#include "support/fake_files_env.h"
#include "support/image_env.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::ScanVolume;
using Keys = std::vector<std::uint64_t>;
constexpr std::uint16_t kFile = layout::kRecFlagInUse;
constexpr std::uint16_t kDirectory = layout::kRecFlagInUse | layout::kRecFlagDirectory;

std::wstring NameOf(std::uint64_t id) { return L"\\f" + std::to_wstring(id); }

struct Scan {
  Keys keys;
  HardLinkMap map;
  std::wstring progress;
  std::vector<std::wstring> trace;
  bool Traced(const std::wstring& line) const { return std::find(trace.begin(), trace.end(), line) != trace.end(); }
};

// Scans the volume of `image` through its boot sector as drive `letter`, with
// `fault` injected once the volume is located.
Scan RunScan(const std::vector<std::byte>& image, std::uint32_t sector,
             const std::function<void(test::FaultEnv&)>& fault = nullptr, wchar_t letter = L'C') {
  test::ImageEnv disk(platform::Env::Default(), image, sector);
  test::FakeFilesEnv files(disk);
  files.name_unknown_id = NameOf;
  test::FaultEnv faults(static_cast<platform::Env&>(files));
  platform::ScopedEnv scope(faults);
  test::TraceCapture trace;
  ExtentPlace place;
  varnel::FnTrace fn(L"RunScan");
  EXPECT_EQ(LocateExtent(fn, DISK_EXTENT{0, 0, static_cast<std::int64_t>(image.size())}, place), ExtentStep::kOk);
  MFT mft = MakeReader(place, letter, place.mft_sector);
  if (fault) fault(faults);
  Scan scan;
  std::wostringstream progress;
  trace.Reset();
  mft.GetHardLinkList(scan.map, progress);
  mft.CloseHandles();
  EXPECT_EQ(files.open_handles(), 0u);
  for (const auto& entry : scan.map) scan.keys.push_back(entry.first);
  scan.progress = progress.str();
  scan.trace = trace.lines();
  return scan;
}

TEST(GetHardLinkList, FindsInUseBaseRecordsOfFilesWithSeveralLinksWhateverTheSectorAndRecordSize) {
  // 4096-byte records hold one sector each (mkntfs -s 4096); a step of two sectors
  // would miss every odd record there, and three of four 1024-byte records on 4096-byte sectors.
  const struct {
    std::uint32_t sector, record;
  } cases[] = {{512, 1024}, {4096, 4096}, {4096, 1024}, {512, 4096}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sector << "-byte sectors, " << c.record << "-byte records");
    const std::uint32_t clusters = 24 * c.record / c.sector;
    ScanVolume v(c.sector, c.record, 16 + clusters + 2, {{16, clusters}});
    v.PutRecord(16, kFile, 2);
    v.OldLayout(16);  // no number field: its place in the MFT stands for it
    v.PutRecord(17, kFile, 2);
    v.PutRecord(18, kFile, 3);
    v.PutRecord(19, kDirectory, 3);
    v.PutRecord(20, kFile, 2, 18);  // an extension record of 18
    v.PutRecord(21, 0, 2);          // free
    v.PutRecord(22, kFile, 1);
    v.PutRecord(23, kFile, 2, 0, 5, 17);  // a record that says it is 17: the first entry stays
    const Scan scan = RunScan(v.image(), c.sector);
    EXPECT_EQ(scan.map, (HardLinkMap{{16, NameOf(1ull << 48 | 16).c_str()},
                                     {17, NameOf(1ull << 48 | 17).c_str()},
                                     {18, NameOf(1ull << 48 | 18).c_str()}}));
    EXPECT_TRUE(scan.Traced(L"[I]: MFT::GetHardLinkList : uiProcessedMftSectors = 24"));  // none past the range
  }
}

TEST(GetHardLinkList, PrintsEachTenthOnceAndReadsTheLastRecordOfAnOddRangeAcrossItsEnd) {
  // 31 sectors hold 16 records, the last one starting in the range's last sector;
  // 68 more hold 34: 50 in all, 2 % each, so 0 % is never printed.
  ScanVolume v(512, 1024, 200, {{16, 31}, {100, 68}});
  v.Put((16 + 30) * 512, 15, kFile, 2);
  v.Put((100 + 66) * 512, 49, kFile, 2);
  const Scan scan = RunScan(v.image(), 512);
  EXPECT_EQ(scan.keys, (Keys{15, 49}));
  std::wstring lines;
  for (int percent = 10; percent <= 100; percent += 10) lines += L"\t... progress " + std::to_wstring(percent) + L"%\n";
  EXPECT_EQ(scan.progress, lines);
  EXPECT_TRUE(scan.Traced(L"[I]: MFT::GetHardLinkList : uiSectorsInRange = 32"));  // counted inclusively
  EXPECT_TRUE(scan.Traced(L"[I]: MFT::GetHardLinkList : uiTotalMftSectors = 50"));
}

TEST(GetHardLinkList, FailuresEndTheScanAndKeepWhatWasFound) {
  const auto fail_read = [](int nth) { return [nth](test::FaultEnv& env) { env.FailCall(Call::ReadFile, 30, nth); }; };
  const std::wstring ending = L"[E]: MFT::GetHardLinkList : ... ending(";
  const struct {
    std::uint32_t sector;
    std::function<void(test::FaultEnv&)> fault;
    wchar_t letter;
    Keys keys;
    std::wstring trace;
  } cases[] = {
      {512, nullptr, L'D', {}, ending + L"SetVolumeHintHandle() failed)"},
      {512, fail_read(1), L'C', {}, ending + L"GetMftRanges() failed"},  // kept without its parenthesis
      // Record 0 for the ranges, then one read per record: the 20th read is record 18.
      {512, fail_read(20), L'C', {13, 17}, ending + L"ReadMftRecord() failed)"},
      // Four records a read: the 6th holds records 16 to 19.
      {4096, fail_read(6), L'C', {13}, ending + L"ReadMftRecord() failed)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trace);
    ScanVolume v(c.sector, 1024, 16 + 48 * 512 / c.sector, {{16, 48 * 512 / c.sector}});
    for (std::uint32_t record : {13, 17, 19}) v.PutRecord(record, kFile, 2);
    const Scan scan = RunScan(v.image(), c.sector, c.fault, c.letter);
    EXPECT_EQ(scan.keys, c.keys);
    EXPECT_TRUE(scan.Traced(c.trace));
    EXPECT_FALSE(scan.Traced(L"[I]: MFT::GetHardLinkList : HardLinkListCount = " + std::to_wstring(c.keys.size())));
  }
}

}  // namespace
}  // namespace koru
