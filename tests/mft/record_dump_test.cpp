#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "base/ntfs_layout.h"
#include "mft/mft.h"
#include "mft/record_fixture.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Put16;
using test::Put32;
using test::RecordFixture;
using test::Value;

std::wstring Dump(const std::vector<std::byte>& record, std::uint64_t sector = 7) {
  std::wostringstream os;
  WriteRecordDump(os, Bytes(record).first(std::min(record.size(), layout::kRecordSize)), sector, 8);
  return os.str();
}

bool Has(const std::wstring& text, const std::wstring& part) { return text.find(part) != std::wstring::npos; }

// record_tools.py checks every other header field against the bytes of real records,
// the flags and base record references among them.
TEST(RecordDump, HeaderVariants) {
  const struct {
    const char* what;
    std::function<void(std::vector<std::byte>&)> change;
    std::wstring line;
  } cases[] = {
      {"no update sequence array", [](auto& b) { Put16(b, layout::kRecUsaCount, 0); },
       L"Update Sequence Array            :\n"},
      // One byte shown per word counted, from the offset the record gives.
      {"array elsewhere", [](auto& b) { Put16(b, layout::kRecUsaOffset, 0x28), Put16(b, layout::kRecUsaCount, 5); },
       L"Update Sequence Array            : 0x00 0x00 0x00 0x00 0x11\n"},
      {"array cut by the record's end",
       [](auto& b) { Put16(b, layout::kRecUsaOffset, 0x3FE), Put16(b, layout::kRecUsaCount, 0xFFFF); },
       L"Update Sequence Array            : 0x00 0x00\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    RecordFixture r;
    r.Resident(layout::kData, 8).End();
    std::vector<std::byte>& b = r.bytes();
    Put32(b, layout::kRecNumber, 0x11);
    c.change(b);
    const std::wstring dump = Dump(b);
    EXPECT_TRUE(Has(dump, c.line)) << testing::PrintToString(dump);
    EXPECT_TRUE(Has(dump, L"\n$DATA\n"));
  }
}

// Every length, offset and count a record gives is read inside the record (the
// sanitizer build checks it), and a broken walk says so in the dump.
TEST(RecordDump, HostileRecordsEndInsideTheBuffer) {
  RecordFixture base;
  Value list(32 + 32);
  list.u32(0, layout::kData).u16(4, 32).u8(6, 2).u8(7, 26).u32(32, layout::kData).u16(36, 32);
  Value reparse(40);
  reparse.u32(0, 0xA000000C).u16(4, 30).u16(8, 0).u16(10, 8).u16(12, 8).u16(14, 8);
  base.Resident(layout::kStandardInformation, Value(72).bytes).Resident(layout::kAttributeList, list.bytes);
  base.Resident(layout::kFileName, Value(66 + 8).u8(64, 4).bytes).NonResident(layout::kData, {0x11, 0x04, 0x10}, u"ads")
      .Resident(layout::kReparsePoint, reparse.bytes).End();
  const std::size_t si = base.starts()[0], al = base.starts()[1], fn = base.starts()[2], data = base.starts()[3],
                    rp = base.starts()[4];

  const struct {
    const char* what;
    std::size_t at;
    std::uint32_t value;
    int width;
  } cases[] = {
      {"value length past the record", fn + layout::kAttrValueLength, 0xFFFFFFFF, 4},
      {"value cut by the record's end", si + layout::kAttrValueOffset, 0x3A0, 2},
      {"name past the record", data + layout::kAttrNameOffset, 0xFFFF, 2},
      {"run list offset past the record", data + layout::kAttrRunListOffset, 0xFFFF, 2},
      {"file name longer than its value", fn + 0x18 + layout::kFnNameLength, 0xFF, 1},
      {"list entry of length 0", al + 0x18 + layout::kAlRecordLength, 0, 2},
      {"list entry name past the value", al + 0x18 + layout::kAlNameOffset, 0xFF, 1},
      {"attribute length past the record", rp + layout::kAttrLength, 0x1000, 2},
      {"attribute length 0", data + layout::kAttrLength, 0, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto bytes = base.bytes();
    test::PutLe(bytes, c.at, c.value, c.width);
    test::TraceCapture trace;
    const std::wstring dump = Dump(bytes);
    EXPECT_TRUE(Has(dump, L"\n$STANDARD_INFORMATION\n"));
    const bool stopped = Has(dump, L"*** attribute walk stopped: ");
    EXPECT_EQ(stopped, trace.Contains(L"[E]: AttributeWalk::Next : attribute walk stopped"));
    // What was left out is said in the dump or traced.
    EXPECT_TRUE(stopped || trace.Contains(L"cut short by the end of the record or value") ||
                trace.Contains(L"... ending(value of") || trace.Contains(L"entry of length 0") ||
                trace.Contains(L"run list offset lies past"))
        << testing::PrintToString(dump);
  }
}

// Both readers of a record, each with its own endings, fail on every fault.
TEST(MftRead, EveryReadFailureOfEitherReaderWritesNothingAndTracesItsEnding) {
  test::TempDisk disk(test::DiskWith(RecordFixture().End().OnDisk(), 2, 4), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  const std::wstring seek = L"SetFilePointerEx() failed) : dwLastError = 25",
                     elsewhere = L"SetFilePointerEx() failed to seek to requested offset)",
                     hint = L"SetVolumeHintHandle() failed)", whole = L"Didn't read the whole MFT record)";
  const struct {
    std::function<void(MFT&)> inject;
    std::wstring read, record, record_detail;  // Read's ending, ReadMftRecord's, and its other line
  } cases[] = {
      // No volume C: on a disk without a partition table: the hint cannot open.
      {[](MFT& m) { m.CloseHandles(); }, hint, hint, L"[E]: MFT::SetVolumeHintHandle : Createfile() failed) : dwLastError = 2"},
      {[&](MFT&) { env.FailCall(test::Call::CreateFileW, platform::kErrorAccessDenied); },
       L"CreateFile() failed) : dwLastError = 5", L"CreateFie() failed) : dwLastError = 5",
       L"[E]: MFT::ReadMftRecord : m_wszPhysicalDrive = \"\\\\.\\PhysicalDrive0\""},
      {[&](MFT&) { env.FailCall(test::Call::SetFilePointerEx, platform::kErrorSeek); }, seek, seek, L""},
      {[&](MFT&) { env.SeekOff(-1); }, elsewhere, elsewhere, L""},
      {[&](MFT&) { env.FailCall(test::Call::ReadFile, platform::kErrorReadFault); },
       L"ReadFile() failed) : dwLastError = 30", L"ReadFile() failed)", L"[E]: MFT::ReadMftRecord : dwLastError = 30"},
      {[&](MFT&) { env.ShortRead(1023); }, whole, whole, L""},
  };
  for (const auto& c : cases) {
    for (const bool dump : {true, false}) {
      SCOPED_TRACE(testing::PrintToString((dump ? L"Read: " : L"ReadMftRecord: ") + c.read));
      MFT mft = test::DiskReader(512, 2);
      c.inject(mft);
      test::TraceCapture trace;
      std::wostringstream os;
      RecordBuffer bytes{};
      EXPECT_FALSE(dump ? mft.Read(os) : mft.ReadMftRecord(mft.m_uiMftSector, bytes));
      EXPECT_EQ(os.str(), L"");
      const std::wstring fn = dump ? L"[E]: MFT::Read : " : L"[E]: MFT::ReadMftRecord : ";
      EXPECT_TRUE(trace.Has(fn + L"... ending(" + (dump ? c.read : c.record)));
      EXPECT_TRUE(dump || c.record_detail.empty() || trace.Has(c.record_detail));
      mft.CloseHandles();
    }
  }
}

}  // namespace
}  // namespace koru
