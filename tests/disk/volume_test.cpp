#include "disk/volume.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/fault_env.h"
#include "support/trace_capture.h"
#ifndef _WIN32
#include "support/temp_disk.h"
#endif

namespace koru {
namespace {

using platform::DWORD;
using test::Call;
using test::FaultEnv;
using test::TraceCapture;

// Copies a name into the caller's buffer as the platform would.
bool Answer(const std::wstring& name, wchar_t* buffer, DWORD size) {
  if (name.size() + 1 > size) return false;
  std::wmemcpy(buffer, name.c_str(), name.size() + 1);
  return true;
}

class VolumeName : public ::testing::Test {
 protected:
  VolumeName() : env_(platform::Env::Default()), scoped_(env_) {}
  FaultEnv env_;
  platform::ScopedEnv scoped_;
  TraceCapture trace_;
};

TEST_F(VolumeName, LastCharacterIsDroppedWhateverItIs) {
  std::wstring asked;
  env_.AnswerVolumeName([&](const wchar_t* mount_point, wchar_t* buffer, DWORD size, DWORD*) {
    asked = mount_point;
    EXPECT_EQ(size, 260u);
    return Answer(L"\\\\?\\Volume{0A1B2C3D-0000-0000-0000-000000000001}\\", buffer, size);
  });
  varnel::string name;
  ASSERT_TRUE(GetVolumeNameFromDL(L'c', name));
  EXPECT_EQ(asked, L"c:\\");  // the letter exactly as passed
  EXPECT_EQ(name, varnel::string(L"\\\\?\\Volume{0A1B2C3D-0000-0000-0000-000000000001}"));
  EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeNameFromDL : sVolumeName = \"\\\\?\\Volume{0A1B2C3D-0000-0000-0000-000000000001}\""));

  // No trailing backslash: a real character goes, as on the system we mirror.
  env_.AnswerVolumeName([](const wchar_t*, wchar_t* buffer, DWORD size, DWORD*) {
    return Answer(L"\\\\?\\Volume{X}", buffer, size);
  });
  ASSERT_TRUE(GetVolumeNameFromDL(L'D', name));
  EXPECT_EQ(name, varnel::string(L"\\\\?\\Volume{X"));

  env_.AnswerVolumeName([](const wchar_t*, wchar_t* buffer, DWORD size, DWORD*) { return Answer(L"", buffer, size); });
  ASSERT_TRUE(GetVolumeNameFromDL(L'E', name));
  EXPECT_TRUE(name.empty());
}

TEST_F(VolumeName, UnterminatedAnswerStaysInsideTheBuffer) {
  env_.AnswerVolumeName([](const wchar_t*, wchar_t* buffer, DWORD size, DWORD*) {
    for (DWORD i = 0; i < size; ++i) buffer[i] = L'v';
    return true;
  });
  varnel::string name;
  ASSERT_TRUE(GetVolumeNameFromDL(L'C', name));
  EXPECT_EQ(name.length(), 258u);
}

TEST_F(VolumeName, FailureTracesTheUnclosedParenthesis) {
  env_.AnswerVolumeName([](const wchar_t*, wchar_t*, DWORD, DWORD* error) {
    *error = platform::kErrorFileNotFound;
    return false;
  });
  varnel::string name(L"kept");
  EXPECT_FALSE(GetVolumeNameFromDL(L'Q', name));
  EXPECT_EQ(name, varnel::string(L"kept"));
  EXPECT_TRUE(trace_.Has(
      L"[E]: GetVolumeNameFromDL : ... ending(GetVolumeNameForVolumeMountPoint() failed : dwLastError = 2"));
  EXPECT_FALSE(trace_.Has(L"[V]: GetVolumeNameFromDL : ... ending"));

  trace_.Reset();
  std::vector<DISK_EXTENT> extents;
  EXPECT_FALSE(GetVolumeDiskExtentList(L'Q', extents));
  const auto lines = trace_.lines();
  const std::vector<std::wstring> want = {
      L"[V]: GetVolumeDiskExtentList : starting ...",
      L"[V]: GetVolumeNameFromDL : starting ...",
      L"[E]: GetVolumeNameFromDL : ... ending(GetVolumeNameForVolumeMountPoint() failed : dwLastError = 2",
      L"[I]: GetVolumeDiskExtentList : wcDL = 'Q'",
      L"[V]: GetVolumeDiskExtentList : ... ending(GetVolumeNameFromDL() failed)",
  };
  EXPECT_EQ(lines, want);
}

TEST_F(VolumeName, EmptyVolumeNameIsRefusedBeforeAnyCall) {
  std::vector<DISK_EXTENT> extents(3);
  EXPECT_FALSE(GetVolumeDiskExtentList(varnel::string(), extents));
  EXPECT_EQ(extents.size(), 3u);  // refused before the list is touched
  EXPECT_EQ(env_.Count(Call::CreateFileW), 0);
  EXPECT_TRUE(trace_.Has(L"[V]: GetVolumeDiskExtentList : ... ending(Invalid volume name)"));
}

#ifndef _WIN32
// Extents and geometry through an attached disk: a bare NTFS volume is C:.
std::vector<std::byte> BareNtfs(std::size_t sectors, std::uint32_t sector_size) {
  std::vector<std::byte> disk(sectors * sector_size);
  test::PutText(disk, 3, "NTFS    ");
  test::Put16(disk, 0x0B, static_cast<std::uint16_t>(sector_size));
  disk[0x0D] = std::byte{8};
  test::Put64(disk, 0x30, 4);
  test::Put16(disk, 510, 0xAA55);
  return disk;
}

// Answers the extents IOCTL as the system does for a volume on `extents`: too small
// for the header is 122, too small for every extent is 234 with the count filled in.
FaultEnv::IoctlAnswer Extents(std::vector<DISK_EXTENT> extents, std::vector<DWORD>* sizes) {
  return [extents, sizes](DWORD code, void* out, DWORD out_size, DWORD* returned, DWORD* error) {
    EXPECT_EQ(code, platform::kIoctlVolumeGetVolumeDiskExtents);
    sizes->push_back(out_size);
    if (out_size < platform::kVolumeDiskExtentsHeader) {
      *error = platform::kErrorInsufficientBuffer;
      return false;
    }
    auto* bytes = static_cast<unsigned char*>(out);
    const auto count = static_cast<std::uint32_t>(extents.size());
    std::memcpy(bytes, &count, sizeof count);
    if (out_size < platform::kVolumeDiskExtentsHeader + extents.size() * sizeof(DISK_EXTENT)) {
      *returned = platform::kVolumeDiskExtentsHeader;
      *error = platform::kErrorMoreData;
      return false;
    }
    std::memcpy(bytes + platform::kVolumeDiskExtentsHeader, extents.data(), extents.size() * sizeof(DISK_EXTENT));
    *returned = static_cast<DWORD>(platform::kVolumeDiskExtentsHeader + extents.size() * sizeof(DISK_EXTENT));
    return true;
  };
}

class VolumeOnDisk : public ::testing::Test {
 protected:
  VolumeOnDisk() : disk_(BareNtfs(128, 512), 512), env_(platform::Env::Default()), scoped_(env_) {}
  test::TempDisk disk_;
  FaultEnv env_;
  platform::ScopedEnv scoped_;
  TraceCapture trace_;
};

TEST_F(VolumeOnDisk, LetterLeadsToOneExtentOfTheWholeDisk) {
  std::vector<DISK_EXTENT> extents(5, DISK_EXTENT{9, 9, 9});
  ASSERT_TRUE(GetVolumeDiskExtentList(L'C', extents));
  ASSERT_EQ(extents.size(), 1u);
  EXPECT_EQ(extents[0].DiskNumber, 0u);
  EXPECT_EQ(extents[0].StartingOffset, 0);
  EXPECT_EQ(extents[0].ExtentLength, 128 * 512);
  EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeDiskExtentList : bRc = true"));
  EXPECT_EQ(trace_.lines().back(), L"[V]: GetVolumeDiskExtentList : ... ending");
  EXPECT_EQ(env_.Count(Call::CreateFileW), env_.Count(Call::CloseHandle));

  varnel::string name;
  ASSERT_TRUE(GetVolumeNameFromDL(L'C', name));
  EXPECT_EQ(std::wstring(name.c_str()).rfind(L"\\\\?\\Volume{", 0), 0u);
  EXPECT_EQ(name[name.length() - 1], L'}');
}

TEST_F(VolumeOnDisk, OpenFailureTracesTheNameAndTheError) {
  env_.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  std::vector<DISK_EXTENT> extents(2);
  EXPECT_FALSE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_TRUE(extents.empty());  // emptied before the open
  EXPECT_TRUE(trace_.Has(L"[E]: GetVolumeDiskExtentList : ... ending(CreateFile() failed) : dwLastError = 5"));
  EXPECT_TRUE(trace_.Has(L"[I]: GetVolumeDiskExtentList : bRc = false"));
  EXPECT_EQ(env_.Count(Call::CloseHandle), 0);

  // A name no disk holds fails in the open too, with the platform's own error.
  trace_.Reset();
  EXPECT_FALSE(GetVolumeDiskExtentList(varnel::string(L"\\\\?\\Volume{00000000-0000-0000-0000-000000000000}"), extents));
  EXPECT_TRUE(trace_.Has(L"[E]: GetVolumeDiskExtentList : ... ending(CreateFile() failed) : dwLastError = 2"));
}

TEST_F(VolumeOnDisk, IoctlFailureOtherThanSizeEndsAtErrorLevelAndCloses) {
  env_.FailCall(Call::DeviceIoControl, platform::kErrorInvalidFunction);
  std::vector<DISK_EXTENT> extents;
  EXPECT_FALSE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_EQ(env_.Count(Call::DeviceIoControl), 1);  // no retry
  EXPECT_EQ(env_.Count(Call::CloseHandle), 1);
  EXPECT_TRUE(trace_.Has(
      L"[E]: GetVolumeDiskExtentList : ... ending(DeviceIoControl(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS ) failed) : "
      L"dwLastError = 1"));
}

TEST_F(VolumeOnDisk, BufferGrowsOneExtentAtATimeOnMoreData) {
  std::vector<DWORD> sizes;
  const std::vector<DISK_EXTENT> mirror = {{0, 1048576, 4194304}, {3, 32256, 4194304}, {1, 65536, 1024}, {2, 0, 7}};
  env_.AnswerIoctl(Extents(mirror, &sizes));
  std::vector<DISK_EXTENT> extents(1, DISK_EXTENT{});
  ASSERT_TRUE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_EQ(sizes, (std::vector<DWORD>{56, 80, 104}));
  ASSERT_EQ(extents.size(), 4u);  // every extent, in the platform's order
  for (std::size_t i = 0; i < mirror.size(); ++i) {
    EXPECT_EQ(extents[i].DiskNumber, mirror[i].DiskNumber);
    EXPECT_EQ(extents[i].StartingOffset, mirror[i].StartingOffset);
    EXPECT_EQ(extents[i].ExtentLength, mirror[i].ExtentLength);
  }
}

TEST_F(VolumeOnDisk, BufferGrowsOnInsufficientBufferToo) {
  std::vector<DWORD> sizes;
  env_.FailCall(Call::DeviceIoControl, platform::kErrorInsufficientBuffer, 1);
  env_.FailCall(Call::DeviceIoControl, platform::kErrorInsufficientBuffer, 2);
  env_.AnswerIoctl(Extents({{5, 512, 1024}}, &sizes));
  std::vector<DISK_EXTENT> extents;
  ASSERT_TRUE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_EQ(env_.Count(Call::DeviceIoControl), 3);
  EXPECT_EQ(sizes, (std::vector<DWORD>{104}));  // 56 and 80 were refused before the answer
  ASSERT_EQ(extents.size(), 1u);
  EXPECT_EQ(extents[0].DiskNumber, 5u);
}

TEST_F(VolumeOnDisk, CountBeyondTheDeliveredBytesIsCut) {
  env_.AnswerIoctl([](DWORD, void* out, DWORD, DWORD* returned, DWORD*) {
    const std::uint32_t count = 0xFFFFFFFFu;
    std::memcpy(out, &count, sizeof count);
    *returned = 8;
    return true;
  });
  std::vector<DISK_EXTENT> extents;
  ASSERT_TRUE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_EQ(extents.size(), 2u);  // what the first 56-byte buffer holds
}

TEST_F(VolumeOnDisk, PlatformThatNeverHasRoomEndsTheLoop) {
  env_.AnswerIoctl([](DWORD, void*, DWORD, DWORD*, DWORD* error) {
    *error = platform::kErrorMoreData;
    return false;
  });
  std::vector<DISK_EXTENT> extents;
  EXPECT_FALSE(GetVolumeDiskExtentList(L'C', extents));
  EXPECT_GT(env_.Count(Call::DeviceIoControl), 1000);
  EXPECT_TRUE(trace_.Has(
      L"[E]: GetVolumeDiskExtentList : ... ending(DeviceIoControl(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS ) failed) : "
      L"dwLastError = 234"));
}

TEST(DiskGeometry, BytesPerSectorOfTheAttachedDisk) {
  for (std::uint32_t sector : {512u, 4096u}) {
    test::TempDisk disk(BareNtfs(64, sector));  // size detected from the boot sector
    TraceCapture trace;
    DISK_GEOMETRY_EX geometry{};
    ASSERT_TRUE(GetDiskGeometryEx(0, geometry));
    EXPECT_EQ(geometry.Geometry.BytesPerSector, sector);
    EXPECT_EQ(geometry.DiskSize, 64 * std::int64_t{sector});
    EXPECT_TRUE(trace.Has(L"[I]: GetDiskGeometryEx : wszDriveName = \"\\\\.\\PhysicalDrive0\""));
    EXPECT_EQ(trace.lines().back(), L"[V]: GetDiskGeometryEx : ... ending");
  }
}

TEST_F(VolumeOnDisk, GeometryFailures) {
  DISK_GEOMETRY_EX geometry{};
  EXPECT_FALSE(GetDiskGeometryEx(4000000000u, geometry));  // no such disk
  EXPECT_TRUE(trace_.Has(L"[I]: GetDiskGeometryEx : wszDriveName = \"\\\\.\\PhysicalDrive4000000000\""));
  EXPECT_TRUE(trace_.Has(L"[E]: GetDiskGeometryEx : ... ending(CreateFile() failed) : dwLastError = 2"));
  EXPECT_EQ(env_.Count(Call::CloseHandle), 0);

  env_.FailCall(Call::DeviceIoControl, platform::kErrorNotReady);
  EXPECT_FALSE(GetDiskGeometryEx(0, geometry));
  EXPECT_TRUE(trace_.Has(
      L"[E]: GetDiskGeometryEx : ... ending(DeviceIoControl(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX) failed) : dwLastError = 21"));
  EXPECT_EQ(env_.Count(Call::CloseHandle), 1);
  EXPECT_NE(trace_.lines().back(), L"[V]: GetDiskGeometryEx : ... ending");
}
#endif  // _WIN32

}  // namespace
}  // namespace koru
