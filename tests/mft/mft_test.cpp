#include "mft/mft.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using test::Call;
using test::Put16;

// A disk with one record at `sector` whose update sequence is as the test sets it.
std::vector<std::byte> DiskWithRecord(std::uint64_t sector, std::uint32_t sector_size, std::uint16_t usa_count,
                                      std::uint16_t usn, std::uint16_t end1, std::uint16_t end2) {
  std::vector<std::byte> disk((sector + 4) * sector_size);
  const std::size_t at = sector * sector_size;
  test::PutText(disk, at, "FILE");
  Put16(disk, at + layout::kRecUsaCount, usa_count);
  Put16(disk, at + layout::kRecUpdateSequenceNumber, usn);
  Put16(disk, at + layout::kRecFixUp1, 0x1111);
  Put16(disk, at + layout::kRecFixUp2, 0x2222);
  Put16(disk, at + layout::kRecSectorEnd1, end1);
  Put16(disk, at + layout::kRecSectorEnd2, end2);
  return disk;
}

MFT Reader(std::uint32_t sector_size) {
  MFT mft;
  std::wcscpy(mft.m_wszPhysicalDrive, L"\\\\.\\PhysicalDrive0");
  mft.m_wcDriveLetter = L'C';
  mft.m_dwBytesPerSector = sector_size;
  // The disk stands in for the volume hint: the images here have no lettered volume.
  mft.m_hVolumeHint = platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                                           platform::kOpenExisting, 0);
  return mft;
}

std::uint16_t Word(const RecordBuffer& r, std::size_t at) { return le16Or0(Bytes(r), at); }

TEST(MftReadRecord, MatchingUpdateSequencePatchesBothSectorEnds) {
  test::TempDisk disk(DiskWithRecord(10, 512, 3, 0x0007, 0x0007, 0x0007), 512);
  MFT mft = Reader(512);
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(10, record));
  EXPECT_EQ(Word(record, layout::kRecSectorEnd1), 0x1111);
  EXPECT_EQ(Word(record, layout::kRecSectorEnd2), 0x2222);
  EXPECT_EQ(Word(record, layout::kRecUpdateSequenceNumber), 0x0007);  // the array itself is unchanged
  EXPECT_EQ(Word(record, layout::kRecFixUp1), 0x1111);
  mft.CloseHandles();
}

TEST(MftReadRecord, TornAndUnexpectedRecordsAreReturnedUnpatched) {
  struct Case {
    std::uint16_t usa_count, end1, end2;
    const wchar_t* trace;
  } cases[] = {
      {3, 0x0007, 0x0008, nullptr},
      {3, 0x0009, 0x0007, nullptr},
      {0, 0x0007, 0x0007, L"[V]: MFT::ReadMftRecord : Update Sequence Array Size zero"},
      {9, 0x0007, 0x0007,
       L"[W]: MFT::ReadMftRecord : Unexpected Update Sequence Array Size : "
       L"mft.header.MultiSectorHeader.UpdateSequenceArraySize = 9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.usa_count);
    test::TempDisk disk(DiskWithRecord(2, 512, c.usa_count, 0x0007, c.end1, c.end2), 512);
    MFT mft = Reader(512);
    test::TraceCapture trace;
    RecordBuffer record{};
    ASSERT_TRUE(mft.ReadMftRecord(2, record));
    EXPECT_EQ(Word(record, layout::kRecSectorEnd1), c.end1);
    EXPECT_EQ(Word(record, layout::kRecSectorEnd2), c.end2);
    if (c.trace) {
      EXPECT_TRUE(trace.Has(c.trace));
    }
    mft.CloseHandles();
  }
}

TEST(MftReadRecord, FourKSectorsStillReadOneKibibyteInTwoHalves) {
  test::TempDisk disk(DiskWithRecord(3, 4096, 3, 0x0042, 0x0042, 0x0042), 4096);
  MFT mft = Reader(4096);
  RecordBuffer record{};
  ASSERT_TRUE(mft.ReadMftRecord(3, record));
  EXPECT_EQ(std::memcmp(record.data(), "FILE", 4), 0);
  EXPECT_EQ(Word(record, layout::kRecSectorEnd2), 0x2222);
  mft.CloseHandles();
}

TEST(MftReadRecord, ReusesItsHandlesAndOpensTheVolumeHintFirst) {
  test::TempDisk disk(DiskWithRecord(2, 512, 3, 1, 1, 1), 512);
  test::FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  MFT mft = Reader(512);
  platform::Env::Default().CloseHandle(mft.m_hVolumeHint);
  mft.m_hVolumeHint = platform::InvalidHandle();
  RecordBuffer record{};
  // No volume C: on a disk without a partition table of NTFS: the hint cannot open.
  test::TraceCapture trace;
  EXPECT_FALSE(mft.ReadMftRecord(2, record));
  EXPECT_TRUE(trace.Has(L"[E]: MFT::SetVolumeHintHandle : Createfile() failed) : dwLastError = 2"));
  EXPECT_TRUE(trace.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetVolumeHintHandle() failed)"));
  // With a hint already set, two reads open the disk once.
  mft.m_hVolumeHint = platform::Env::Default().CreateFileW(L"\\\\.\\PhysicalDrive0", platform::kGenericRead, 0,
                                                           platform::kOpenExisting, 0);
  const int opens = env.Count(Call::CreateFileW);
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  ASSERT_TRUE(mft.ReadMftRecord(2, record));
  EXPECT_EQ(env.Count(Call::CreateFileW) - opens, 1);
  trace.Reset();
  EXPECT_TRUE(mft.SetVolumeHintHandle());
  EXPECT_TRUE(trace.Has(L"[V]: MFT::SetVolumeHintHandle : ... ending(already set)"));
  mft.CloseHandles();
}

class MftReadFaults : public ::testing::Test {
 protected:
  MftReadFaults()
      : disk_(DiskWithRecord(2, 512, 3, 1, 1, 1), 512), env_(platform::Env::Default()), scoped_(env_),
        mft_(Reader(512)) {}
  ~MftReadFaults() override { mft_.CloseHandles(); }
  bool Read() {
    RecordBuffer record{};
    return mft_.ReadMftRecord(2, record);
  }
  test::TempDisk disk_;
  test::FaultEnv env_;
  platform::ScopedEnv scoped_;
  MFT mft_;
  test::TraceCapture trace_;
};

TEST_F(MftReadFaults, DiskOpenFailure) {
  env_.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(CreateFie() failed) : dwLastError = 5"));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : m_wszPhysicalDrive = \"\\\\.\\PhysicalDrive0\""));
}

TEST_F(MftReadFaults, SeekFailureAndWrongPosition) {
  env_.FailCall(Call::SetFilePointerEx, platform::kErrorSeek);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetFilePointerEx() failed) : dwLastError = 25"));
  env_.SeekOff(-1);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(SetFilePointerEx() failed to seek to requested offset)"));
}

TEST_F(MftReadFaults, ReadFailureAndShortRead) {
  env_.FailCall(Call::ReadFile, platform::kErrorReadFault);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(ReadFile() failed)"));
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : dwLastError = 30"));
  env_.ShortRead(1023);
  EXPECT_FALSE(Read());
  EXPECT_TRUE(trace_.Has(L"[E]: MFT::ReadMftRecord : ... ending(Didn't read the whole MFT record)"));
  EXPECT_TRUE(Read());
}

}  // namespace
}  // namespace koru
