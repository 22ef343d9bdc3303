// What hostile-disk runs found in the file-level calls, each on a copy of a volume
// made by tests/platform/volume_files_images.sh with one record changed.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "base/ntfs_layout.h"
#include "platform/device_io.h"
#include "support/temp_disk.h"

namespace platform {
namespace {

// The Sleuth Kit keeps an attribute's type code in a field of its own enum type,
// which cannot hold every code a record can carry (the sanitizer build caught the
// read of one).
TEST(VolumeFilesHostile, AnAttributeOfAnUnknownTypeIsPassedOver) {
  const std::string made = std::string(KORU_TEST_TMP) + "/volume-files/files.img";
  if (!std::filesystem::exists(made)) GTEST_SKIP() << made << " was not made (volume_files_images needs root)";
  auto image = koru::test::ReadFileBytes(made);
  const std::u16string wanted = u"readme.txt";
  bool changed = false;
  for (std::size_t at = 0; !changed && at + 1024 <= image.size(); at += 1024) {
    const koru::Bytes record = koru::Bytes(image).subspan(at, 1024);
    if (koru::le32Or0(record, 0) != 0x454C4946) continue;  // "FILE"
    std::size_t data = 0, a = koru::le16Or0(record, koru::layout::kRecFirstAttribute);
    bool named = false;
    for (std::uint32_t type; a + 0x18 <= 1024 && (type = koru::le32Or0(record, a)) != 0xFFFFFFFF && type != 0;
         a += std::max<std::size_t>(koru::le16Or0(record, a + koru::layout::kAttrLength), 8)) {
      const std::size_t value = a + koru::le16Or0(record, a + 0x14);
      std::u16string name(koru::le8Or0(record, value + koru::layout::kFnNameLength), u'\0');
      for (std::size_t i = 0; i < name.size(); ++i)
        name[i] = static_cast<char16_t>(koru::le16Or0(record, value + koru::layout::kFnName + 2 * i));
      named |= type == koru::layout::kFileName && name == wanted;
      if (type == koru::layout::kData) data = a;
    }
    if (named && data != 0) {
      koru::test::Put32(image, at + data, 0x00A10030);
      changed = true;
    }
  }
  ASSERT_TRUE(changed);
  koru::test::TempDisk disk(image);
  Env& env = Env::Default();
  EXPECT_NE(env.GetFileAttributesW(L"C:\\ProgramData\\readme.txt"), kInvalidFileAttributes);
  EXPECT_TRUE(env.PathFileExistsW(L"C:\\ProgramData\\LongFileName.txt"));
}

}  // namespace
}  // namespace platform
