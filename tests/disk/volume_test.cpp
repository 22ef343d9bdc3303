#include "disk/boot_sector.h"
#include "disk/volume.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/disk_map.h"
#include "support/disk_image.h"
#include "support/fault_env.h"
#include "support/temp_disk.h"
#include "support/trace_capture.h"

namespace koru {
namespace {

using platform::DWORD;
using test::Call;
using test::FaultEnv;
using test::TraceCapture;

// Names, extents and geometry through an attached disk whose one partition is C:.
class VolumeOnDisk : public ::testing::Test {
 protected:
  VolumeOnDisk()
      : disk_(test::DiskImage(2048 + 128).Entry(0, 0, 0x07, 2048, 128).Boot(2048), 512),
        env_(platform::Env::Default()),
        scoped_(env_) {}
  // Answers the extents IOCTL as the system does for a volume on `extents`.
  void PlatformHas(std::vector<DISK_EXTENT> extents) {
    env_.AnswerIoctl([this, extents](DWORD code, void* out, DWORD out_size, DWORD* returned, DWORD* error) {
      EXPECT_EQ(code, platform::kIoctlVolumeGetVolumeDiskExtents);
      sizes_.push_back(out_size);
      return platform::AnswerVolumeDiskExtents(extents, out, out_size, returned, error);
    });
  }
  // disk, offset, length of each extent found for C:.
  using Extent = std::tuple<DWORD, std::int64_t, std::int64_t>;
  std::vector<Extent> Extents(bool ok = true) {
    std::vector<DISK_EXTENT> extents(5, DISK_EXTENT{9, 9, 9});
    EXPECT_EQ(GetVolumeDiskExtentList(L'C', extents), ok);
    std::vector<Extent> out;
    for (const auto& e : extents) out.emplace_back(e.DiskNumber, e.StartingOffset, e.ExtentLength);
    return out;
  }
  test::TempDisk disk_;
  test::FaultEnv env_;
  platform::ScopedEnv scoped_;
  test::TraceCapture trace_;
  std::vector<DWORD> sizes_;
};

TEST_F(VolumeOnDisk, LastCharacterIsDroppedWhateverItIs) {
  const std::wstring guid = L"\\\\?\\Volume{0A1B2C3D-0000-0000-0000-000000000001}";
  struct Case {
    wchar_t letter;
    std::wstring answer, name;
  } cases[] = {{L'c', guid + L"\\", guid},
               {L'D', L"\\\\?\\Volume{X}", L"\\\\?\\Volume{X"},  // no backslash: a real character goes
               {L'E', L"", L""},
               {L'F', std::wstring(300, L'v'), std::wstring(258, L'v')}};  // unterminated: stays inside the buffer
  std::wstring asked;
  DWORD asked_size = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.answer));
    // The platform answers with as much as fits, terminated if room is left.
    env_.AnswerVolumeName([&](const wchar_t* mount_point, wchar_t* buffer, DWORD size, DWORD*) {
      asked = mount_point;
      asked_size = size;
      std::wmemcpy(buffer, c.answer.c_str(), std::min<std::size_t>(c.answer.size() + 1, size));
      return true;
    });
    varnel::string name(L"old");
    ASSERT_TRUE(GetVolumeNameFromDL(c.letter, name));
    EXPECT_EQ(asked, std::wstring{c.letter} + L":\\");  // the letter exactly as passed
    EXPECT_EQ(asked_size, 260u);
    EXPECT_EQ(std::wstring(name.c_str()), c.name);
    EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeNameFromDL : sVolumeName = \"" + c.name + L"\""));
  }
}

TEST_F(VolumeOnDisk, FailuresLeaveTheNameAndTheListAsTheyWere) {
  env_.AnswerVolumeName([](const wchar_t*, wchar_t*, DWORD, DWORD* error) {
    *error = platform::kErrorFileNotFound;
    return false;
  });
  varnel::string name(L"kept");
  EXPECT_FALSE(GetVolumeNameFromDL(L'Q', name));
  EXPECT_EQ(name, varnel::string(L"kept"));
  std::vector<DISK_EXTENT> extents(3);
  EXPECT_FALSE(GetVolumeDiskExtentList(L'Q', extents));
  EXPECT_TRUE(trace_.Has(L"[E]: GetVolumeNameFromDL : ... ending(GetVolumeNameForVolumeMountPoint() failed : dwLastError = 2"));
  EXPECT_TRUE(trace_.Has(L"[V]: GetVolumeDiskExtentList : ... ending(GetVolumeNameFromDL() failed)"));
  EXPECT_FALSE(GetVolumeDiskExtentList(varnel::string(), extents));
  EXPECT_TRUE(trace_.Has(L"[V]: GetVolumeDiskExtentList : ... ending(Invalid volume name)"));
  EXPECT_EQ(extents.size(), 3u);
  EXPECT_EQ(env_.Count(Call::CreateFileW), 0);
}

TEST_F(VolumeOnDisk, LetterLeadsToTheOneExtentOfItsPartitionAndAFailedOpenToNone) {
  EXPECT_EQ(Extents(), (std::vector<Extent>{{0, 2048 * 512, 128 * 512}}));
  EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeDiskExtentList : bRc = true"));
  EXPECT_EQ(env_.Count(Call::CreateFileW), env_.Count(Call::CloseHandle));
  env_.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  EXPECT_TRUE(Extents(false).empty());  // emptied before the open
  EXPECT_TRUE(trace_.Has(L"[E]: GetVolumeDiskExtentList : ... ending(CreateFile() failed) : dwLastError = 5"));
  EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeDiskExtentList : bRc = false"));
  EXPECT_EQ(env_.Count(Call::CreateFileW), env_.Count(Call::CloseHandle) + 1);
}

TEST_F(VolumeOnDisk, BufferGrowsOneExtentAtATimeOnMoreDataAndOnInsufficientBuffer) {
  PlatformHas({{0, 1048576, 4194304}, {3, 32256, 4194304}, {1, 65536, 1024}, {2, 0, 7}});
  EXPECT_EQ(Extents(), (std::vector<Extent>{{0, 1048576, 4194304}, {3, 32256, 4194304}, {1, 65536, 1024}, {2, 0, 7}}));
  EXPECT_EQ(sizes_, (std::vector<DWORD>{56, 80, 104}));

  sizes_.clear();
  env_.FailCall(Call::DeviceIoControl, platform::kErrorInsufficientBuffer, 1);
  env_.FailCall(Call::DeviceIoControl, platform::kErrorInsufficientBuffer, 2);
  PlatformHas({{5, 512, 1024}});
  EXPECT_EQ(Extents(), (std::vector<Extent>{{5, 512, 1024}}));
  EXPECT_EQ(sizes_, (std::vector<DWORD>{104}));  // 56 and 80 were refused before the answer

  // A count beyond the delivered bytes is cut.
  env_.AnswerIoctl([](DWORD, void* out, DWORD, DWORD* returned, DWORD*) {
    const std::uint32_t count = 0xFFFFFFFFu;
    std::memcpy(out, &count, sizeof count);
    *returned = 8;
    return true;
  });
  EXPECT_EQ(Extents().size(), 2u);  // what the first 56-byte buffer holds
}

// Any error but the two size ones ends the loop at once; a platform that keeps
// asking for room keeps the loop going, with no bound of its own.
TEST_F(VolumeOnDisk, IoctlFailureEndsAtErrorLevelAndCloses) {
  for (const DWORD error : {platform::kErrorInvalidFunction, platform::kErrorMoreData}) {
    SCOPED_TRACE(error);
    env_.Clear();
    env_.AnswerIoctl([error](DWORD, void*, DWORD, DWORD*, DWORD* out_error) {
      *out_error = error;
      return false;
    });
    Extents(false);
    if (error == platform::kErrorMoreData)
      EXPECT_GT(env_.Count(Call::DeviceIoControl), 1000);
    else
      EXPECT_EQ(env_.Count(Call::DeviceIoControl), 1);
    EXPECT_EQ(env_.Count(Call::CloseHandle), 1);
    EXPECT_TRUE(trace_.Has(
        L"[E]: GetVolumeDiskExtentList : ... ending(DeviceIoControl(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS ) failed) : "
        L"dwLastError = " + std::to_wstring(error)));
  }
}

TEST_F(VolumeOnDisk, GeometryOfTheAttachedDiskAndItsFailures) {
  DISK_GEOMETRY_EX geometry{};
  ASSERT_TRUE(GetDiskGeometryEx(0, geometry));
  EXPECT_TRUE(trace_.Has(L"[I]: GetDiskGeometryEx : wszDriveName = \"\\\\.\\PhysicalDrive0\""));
  EXPECT_FALSE(GetDiskGeometryEx(4000000000u, geometry));  // no such disk
  EXPECT_TRUE(trace_.Has(L"[I]: GetDiskGeometryEx : wszDriveName = \"\\\\.\\PhysicalDrive4000000000\""));
  EXPECT_TRUE(trace_.Has(L"[E]: GetDiskGeometryEx : ... ending(CreateFile() failed) : dwLastError = 2"));
  EXPECT_EQ(env_.Count(Call::CreateFileW), env_.Count(Call::CloseHandle) + 1);
  env_.FailCall(Call::DeviceIoControl, platform::kErrorNotReady);
  EXPECT_FALSE(GetDiskGeometryEx(0, geometry));
  EXPECT_TRUE(trace_.Has(
      L"[E]: GetDiskGeometryEx : ... ending(DeviceIoControl(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX) failed) : dwLastError = 21"));
  EXPECT_EQ(env_.Count(Call::CreateFileW), env_.Count(Call::CloseHandle) + 1);
  EXPECT_NE(trace_.lines().back(), L"[V]: GetDiskGeometryEx : ... ending");
}

struct Read {
  bool ok;
  std::uint64_t mft_sector;  // 77 when left untouched
  BootSector boot;
  std::wstring stdout_text;
  int closes;
};

// Attaches `disk` and runs GetMftSector on the volume at `start`, with `fault` injected.
Read ReadBoot(const std::vector<std::byte>& disk, std::uint64_t start = 0, std::uint32_t sector_size = 512,
              const std::function<void(FaultEnv&)>& fault = nullptr) {
  test::TempDisk attached(disk, sector_size);
  FaultEnv env(platform::Env::Default());
  platform::ScopedEnv scoped(env);
  if (fault) fault(env);
  Read r{false, 77, BootSector{}, L"", 0};
  r.boot.m_dwBytesPerSector = sector_size;
  r.ok = r.boot.GetMftSector(VolumeStart{0, start}, r.mft_sector);
  r.stdout_text = env.captured_stdout().str();
  r.closes = env.Count(Call::CloseHandle);
  return r;
}

TEST(BootSector, DecodesTheSectorsPerClusterByte) {
  struct Case {
    std::uint8_t byte;
    platform::DWORD decoded;
  } cases[] = {{0x08, 8}, {0x80, 128}, {0xF4, 4096}, {0xFF, 2}, {0xE0, 1}, {0x81, 1u << 31}, {0x00, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.byte);
    TraceCapture trace;
    Read r = ReadBoot(test::DiskImage(64).Boot(0, boot::kNtfsOemId, c.byte, 3));
    ASSERT_TRUE(r.ok);  // even 0 is accepted here...
    EXPECT_EQ(r.boot.m_dwSectorsPerCluster, c.decoded);
    EXPECT_EQ(r.mft_sector, 3ull * c.decoded);
    // Only bytes above 0x80 are exponents, and only those are traced raw.
    EXPECT_EQ(trace.Contains(L"Bs.bs_ntfs.bpb.bSectorsPerCluster"), c.byte > 0x80);
    platform::DWORD spc = 99;  // ...but refused here
    EXPECT_EQ(r.boot.GetSectorsPerCluster(spc), c.decoded != 0);
    EXPECT_EQ(spc, c.decoded ? c.decoded : 99u);
    EXPECT_EQ(trace.Has(L"[V]: BootSector::GetSectorsPerCluster : ... ending(sectors per cluster undetermioned)"),
              c.decoded == 0);
  }
}

TEST(BootSector, BitLockerAloneIsRefusedAndPrintsTheFallbackLine) {
  TraceCapture trace;
  const Read locked = ReadBoot(test::DiskImage(64).Boot(0, "-FVE-FS-"));
  EXPECT_FALSE(locked.ok);
  EXPECT_EQ(locked.mft_sector, 77u);
  EXPECT_EQ(locked.stdout_text, L"BitLocker boot sector detected ... using legacy hard-link scan\n");
  EXPECT_TRUE(trace.Has(L"[W]: BootSector::GetMftSector : ... ending(BitLocker boot sector detected)"));
  // BitLocker To Go volumes carry a FAT boot sector: used as it stands, not refused.
  const Read togo = ReadBoot(test::ReadFileBytes(test::SharedImage("bitlocker/bitlk-togo-aes-xts-128.first64k")));
  EXPECT_TRUE(togo.ok);
  EXPECT_EQ(togo.boot.m_dwSectorsPerCluster, 2u);
  EXPECT_TRUE(togo.stdout_text.empty());
}

TEST(BootSector, EveryFailureTracesWhyLeavesTheSectorAndClosesTheDisk) {
  struct Case {
    std::function<void(FaultEnv&)> fault;
    const wchar_t* line;
    int closes;  // the disk is closed whenever it was opened
  } cases[] = {
      {[](FaultEnv& e) { e.FailCall(Call::CreateFileW, platform::kErrorAccessDenied); },
       L"[E]: BootSector::GetMftSector : ... ending(CreateFile() failed) : dwLastError = 5", 0},
      {[](FaultEnv& e) { e.FailCall(Call::SetFilePointerEx, platform::kErrorSeek); },
       L"[E]: BootSector::GetMftSector : ... ending(SetFilePointerEx() failed) : dwLastError = 25", 1},
      {[](FaultEnv& e) { e.SeekOff(512); },
       L"[V]: BootSector::GetMftSector : ... ending(actual seek offset not equal to requested seek offset)", 1},
      {[](FaultEnv& e) { e.FailCall(Call::ReadFile, platform::kErrorReadFault); },
       L"[E]: BootSector::GetMftSector : ... ending(ReadFile() failed) : dwLastError = 30", 1},
      {[](FaultEnv& e) { e.ShortRead(511); },
       L"[V]: BootSector::GetMftSector : ... ending(bytes read not equal to bytes requested)", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(c.line)));
    TraceCapture trace;
    const Read r = ReadBoot(test::DiskImage(64).Boot(0), 0, 512, c.fault);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.mft_sector, 77u);
    EXPECT_TRUE(trace.Has(c.line));
    EXPECT_EQ(r.closes, c.closes);
  }
}

}  // namespace
}  // namespace koru
