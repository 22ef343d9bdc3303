// PosixEnv's disks: the --disk, --volume and environment arguments and the order of
// the machine's disks. volumes_mbr_test.sh reads a disk and its clone through them.
#include "platform/posix_disks.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "koru_mft/tool.h"
#include "support/disk_image.h"
#include "support/temp_dir.h"

namespace platform {
namespace {

using koru::test::DiskImage;
using Image = std::vector<std::byte>;

// Images written to a directory of the test's own, and no disk attached before or after.
class Disks : public koru::test::TempDir {
 public:
  Disks() { posix::ResetDisks(); }
  ~Disks() { posix::ResetDisks(); }
  std::string Write(const std::string& name, const Image& bytes) {
    TempDir::Write(name, std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    return (*this / name).string();
  }
};

TEST(PosixDisks, RefusedArgumentsSayWhyWithoutRepeatingThemselves) {
  Disks disks;
  const std::string image = disks.Write("disk", Image(512));
  const std::string kSize = "sector size must be a power of two from 512 to 65536";
  const struct {
    std::string disk, reason;
  } refused_disks[] = {{image + "-missing", "No such file or directory"}, {image + ":1000", kSize},
                       {image + ":256", kSize}, {image + ":99999999999999999999", kSize},
                       {KORU_TEST_TMP, "not a disk image or block device"}};
  for (const auto& c : refused_disks) {
    std::string error;
    EXPECT_FALSE(koru::tool::AttachDisk(c.disk, &error)) << c.disk;
    EXPECT_EQ(error, c.reason);
  }
  const char* kLetter = "letters start at C";
  const char* kShape = "expected L=DISK:PARTITION";
  const char* kDisk = "disk number must be 0 to 999999";
  const char* kPartition = "partition number must be 1 to 4096";
  const struct {
    const char *pin, *reason;
  } refused_pins[] = {{"B=0:1", kLetter},        {"C0:1", kShape},         {"C=0", kShape},
                      {"=0:1", kShape},          {"1=0:1", kShape},        {"C=x:1", kDisk},
                      {"C=4294967296:1", kDisk}, {"C=1000000:1", kDisk},   {"C= 0:1", kDisk},
                      {"C=+0:1", kDisk},         {"C=0x:1", kDisk},        {"C=0:0", kPartition},
                      {"C=0:4294967297", kPartition},  // not partition 1
                      {"C=0:4097", kPartition},  {"C=0:1 ", kPartition},   {"C=0:+1", kPartition}};
  for (const auto& c : refused_pins) {
    std::string error;
    EXPECT_FALSE(koru::tool::PinVolume(c.pin, &error)) << c.pin;
    EXPECT_EQ(error, c.reason);
  }
  std::string error;
  EXPECT_TRUE(koru::tool::PinVolume("z=999999:4096", &error)) << error;
  EXPECT_TRUE(koru::tool::AttachDisk(image + ":4096", &error)) << error;
}

TEST(PosixDisks, EnvironmentAttachesDisksAndPinsLetters) {
  Disks disks;
  const Image bare = DiskImage(64).Boot(0);
  const std::string a = disks.Write("a", bare), b = disks.Write("b", bare);
  ::setenv("KORU_MFT_DISKS", (a + ",," + b + ":4096,/no/such/disk").c_str(), 1);
  ::setenv("KORU_MFT_VOLUMES", "K=0:1,bad", 1);
  posix::ResetDisks();
  const auto volumes = koru::tool::ListVolumes();
  ::unsetenv("KORU_MFT_DISKS");
  ::unsetenv("KORU_MFT_VOLUMES");
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(std::make_tuple(volumes[0].letter, volumes[0].disk, volumes[0].bytes_per_sector),
            std::make_tuple(L'C', 1u, 4096u));
  EXPECT_EQ(std::make_tuple(volumes[1].letter, volumes[1].disk, volumes[1].bytes_per_sector),
            std::make_tuple(L'K', 0u, 512u));
  EXPECT_NE(volumes[0].volume_name, volumes[1].volume_name);
}

TEST(PosixDisks, MachineDisksAreNumberedLikeWindowsWould) {
  const std::vector<std::string> want = {"sda", "sdb", "sdz", "sdaa", "nvme0n1", "nvme1n1", "nvme10n1", "mmcblk0", "md0"};
  EXPECT_EQ(posix::OrderMachineDisks({"md0", "nvme10n1", "sdaa", "mmcblk0", "sdb", "nvme1n1", "sdz", "nvme0n1", "sda"}),
            want);
}

}  // namespace
}  // namespace platform
