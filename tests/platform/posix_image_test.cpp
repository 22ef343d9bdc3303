// Container images: told apart by their content, EnCase and split raw sets found whole
// (or refused with the file at fault).
#include "platform/posix_image.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/image_layout.h"
#include "support/temp_dir.h"

namespace platform::posix {
namespace {

using Bytes = std::vector<std::byte>;

Bytes WithText(std::size_t size, std::size_t at, std::string_view text) {
  Bytes out(size);
  std::memcpy(out.data() + at, text.data(), text.size());
  return out;
}

// containers_answers_test.sh reads VHD (dynamic and fixed), VHDX, VMDK, E01 sets and
// split raw; what is left is near misses, Ex01 and sets refused.
TEST(PosixImage, ContainersAreKnownByTheirSignaturesInPlaceAndWholeAndAnythingElseIsRaw) {
  const std::string ewf(koru::image::kEwfSignature, 8);
  const Bytes none(512);
  const struct {
    const char* what;
    Bytes head, tail;
    ImageFormat format;
  } cases[] = {
      {"VHD with a 511-byte footer", none, WithText(512, 1, "conectix"), ImageFormat::kVhd},
      {"VHD footer elsewhere", none, WithText(512, 2, "conectix"), ImageFormat::kRaw},
      {"E01 signature without its NUL", WithText(512, 0, ewf.substr(0, 7) + "x"), none, ImageFormat::kRaw},
      {"Ex01", WithText(512, 0, std::string("EVF2\r\n\x81\0", 8)), none, ImageFormat::kEx01},
      {"empty file", {}, {}, ImageFormat::kRaw},
      {"signature cut short", WithText(4, 0, "vhdx"), WithText(4, 0, "cone"), ImageFormat::kRaw},
  };
  for (const auto& c : cases) EXPECT_EQ(SniffFormat(c.head, c.tail), c.format) << c.what;
}

// An EWF segment file: its header with `number`, and its last section `ending`.
std::string Segment(unsigned number, const char* ending = "done") {
  std::string out = std::string(koru::image::kEwfSignature, 8) + '\x01' + static_cast<char>(number & 0xFF) +
                    static_cast<char>(number >> 8);
  out.resize(300, '\0');
  const std::uint64_t at = out.size();
  std::string section(koru::image::kEwfSectionSize, '\0');
  std::memcpy(section.data(), ending, std::strlen(ending));
  for (int b = 0; b < 8; ++b) section[16 + b] = static_cast<char>(at >> (8 * b));
  return out + section;
}

// EnCase segments and split raw parts: a set is found whole from its first file, or
// refused naming the file at fault.
TEST(PosixImage, SetsAreFoundWholeOrRefusedNamingTheFileAtFault) {
  const std::string part(1024, 'x');
  std::vector<std::pair<std::string, std::string>> past_e99;  // E01 to E99, then EAA and EAB
  for (unsigned n = 1; n <= 101; ++n)
    past_e99.emplace_back(n <= 99 ? "d.E" + std::string(n < 10 ? "0" : "") + std::to_string(n) : n == 100 ? "d.EAA" : "d.EAB",
                          Segment(n, n == 101 ? "done" : "next"));
  const struct {
    const char* what;
    std::vector<std::pair<std::string, std::string>> files;  // the first is attached
    ImageFormat format;
    std::size_t count;   // 0: refused
    std::string reason;  // @ stands for the folder
  } cases[] = {
      {"lower case", {{"d.e01", Segment(1, "next")}, {"d.e02", Segment(2)}}, ImageFormat::kE01, 2, ""},
      {"past E99", past_e99, ImageFormat::kE01, 101, ""},
      {"a gap", {{"d.E01", Segment(1, "next")}, {"d.E03", Segment(3)}}, ImageFormat::kE01, 0,
       "segment @/d.E02 of the EnCase set is missing"},
      {"a later segment attached", {{"d.E02", Segment(2)}, {"d.E01", Segment(1, "next")}}, ImageFormat::kE01, 0,
       "it is segment 2 of an EnCase set: attach the set by its first segment, @/d.E01"},
      {"a segment of another number", {{"d.E01", Segment(1, "next")}, {"d.E02", Segment(3)}}, ImageFormat::kE01, 0,
       "@/d.E02 is not segment 2 of the EnCase set"},
      {"cut short", {{"d.E01", Segment(1).substr(0, 330)}}, ImageFormat::kE01, 0,
       "segment @/d.E01 is damaged or cut short: it does not end in an EWF \"done\" or \"next\" section"},
      {"a name without a number", {{"disk.img", Segment(1, "next")}}, ImageFormat::kE01, 0,
       "the EnCase set goes on after @/disk.img, but its further segments are found only by the names NAME.E02, "
       "NAME.E03, ... of a first segment NAME.E01"},
      {"three parts", {{"d.001", part}, {"d.002", part}, {"d.003", part}, {"d.0004", part}, {"e.004", part}},
       ImageFormat::kSplitRaw, 3, ""},
      {"a part alone", {{"d.001", part}}, ImageFormat::kRaw, 1, ""},
      {"a later part alone", {{"d.002", part}}, ImageFormat::kRaw, 1, ""},
      {"a part missing", {{"d.001", part}, {"d.002", part}, {"d.004", part}}, ImageFormat::kRaw, 0,
       "part @/d.003 of the split raw set is missing (d.004 is there)"},
      {"a later part", {{"d.002", part}, {"d.001", part}}, ImageFormat::kRaw, 0,
       "it is part 2 of a split raw set: attach the set by its first part, @/d.001"},
  };
  for (const auto& c : cases) {
    koru::test::TempDir dir;
    for (const auto& [name, bytes] : c.files) dir.Write(name, bytes);
    ImageKind kind;
    std::string error;
    const bool found = IdentifyImage((dir / c.files[0].first).string(), &kind, &error);
    std::string reason = c.reason;
    if (const auto at = reason.find('@'); at != std::string::npos) reason.replace(at, 1, dir.path().string());
    EXPECT_EQ(error, reason) << c.what;
    EXPECT_EQ(found ? kind.files.size() : 0, c.count) << c.what;
    EXPECT_TRUE(!found || kind.format == c.format) << c.what;
  }
}

}  // namespace
}  // namespace platform::posix
