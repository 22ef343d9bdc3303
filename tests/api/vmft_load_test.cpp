// KORU_POSIX_ONLY: reads a volume made by mkntfs and ntfs-3g through The Sleuth Kit
// Sixteen threads call the three services on one volume while two more trace: each
// gets the answers one thread alone gets, and the log holds every entry whole, one a
// line. scripts/test runs it under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"
#include "platform/posix_disks.h"
#include "support/temp_dir.h"
#include "support/trace.h"

namespace {

struct Answers {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  std::wstring dump;
  std::string info;  // less its date line
  bool operator==(const Answers&) const = default;
};

Answers Ask(const koru::test::TempDir& dir, const std::string& name) {
  Answers a;
  EXPECT_TRUE(VMFT::GetMFTSectorRanges(L'C', a.ranges));
  std::wostringstream dump, progress;
  EXPECT_TRUE(VMFT::ReadMFTRecord(dump, L'C', 0));
  a.dump = dump.str();
  VMFT vmft(progress);
  EXPECT_TRUE(vmft.CreateHLInfo(dir.win(name).c_str(), L'C', L'C'));
  a.info = dir.Read(name);
  const std::size_t date = a.info.find("; Generated on");
  if (date != std::string::npos) a.info.erase(date, a.info.find('\n', date) - date);
  return a;
}

TEST(VmftLoad, SixteenThreadsGetTheAnswersOfOneWhileTwoMoreTrace) {
  const std::string image = std::string(KORU_TEST_TMP) + "/volume-files/files.img";
  if (!std::filesystem::exists(image)) GTEST_SKIP() << image << " was not made (volume_files_images needs root)";
  platform::posix::ResetDisks();
  std::string error;
  ASSERT_TRUE(koru::tool::AttachDisk(image, &error)) << error;
  koru::test::TempDir dir("load");
  varnel::CTrace& trace = varnel::Trace();
  varnel::string saved_dir;
  trace.GetLogDir(saved_dir);
  const unsigned saved_level = static_cast<unsigned>(std::popcount(trace.GetLevel()));
  ASSERT_TRUE(trace.SetLogDir(varnel::string(dir.win().c_str())));
  trace.SetLevel(4);

  const Answers one = Ask(dir, "one.ini");
  EXPECT_NE(one.info.find("Count=3\r\n"), std::string::npos);  // sample.dll and its two links
  constexpr int kCallers = 16, kTracers = 2;
  std::vector<Answers> answers(kCallers);
  std::vector<int> traced(kTracers, 0);
  std::atomic<int> running{kCallers};
  std::vector<std::thread> threads;
  for (int t = 0; t < kCallers; ++t)
    threads.emplace_back([&, t] {
      answers[t] = Ask(dir, "t" + std::to_string(t) + ".ini");
      --running;
    });
  for (int t = 0; t < kTracers; ++t)
    threads.emplace_back([&, t] {
      for (int& i = traced[t]; running > 0; ++i)
        trace.Trace(4, L"Load::Tracer", (L"t=" + std::to_wstring(t) + L" i=" + std::to_wstring(i) + L" " +
                                         std::wstring(60, L'x')).c_str());
    });
  for (auto& thread : threads) thread.join();
  trace.SetLogDir(saved_dir);
  trace.SetLevel(saved_level);
  platform::posix::ResetDisks();

  for (int t = 0; t < kCallers; ++t) EXPECT_TRUE(answers[t] == one) << "thread " << t;
  std::ifstream log(dir / "VMFT_trace.log");
  std::vector<int> seen(kTracers, 0);
  std::size_t lines = 0;
  // "[2026-03-01 14:05:09.042]:1a2c:[I]: " and a body.
  const std::regex well_formed(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]:[0-9A-Fa-f]{4,}:\[[EWIV]\]: \S)");
  for (std::string line; std::getline(log, line); ++lines) {
    ASSERT_TRUE(std::regex_search(line, well_formed, std::regex_constants::match_continuous)) << line;
    const std::size_t at = line.find("Load::Tracer : t=");
    if (at == std::string::npos) continue;
    const int t = line[at + 17] - '0';
    ASSERT_TRUE(t >= 0 && t < kTracers && line.size() > 60 && line.compare(line.size() - 61, 61, " " + std::string(60, 'x')) == 0)
        << line;
    EXPECT_EQ(line.substr(at + 19, line.find(' ', at + 19) - at - 19), "i=" + std::to_string(seen[t]++));
  }
  EXPECT_EQ(seen, traced);
  EXPECT_GT(lines, 1000u);
}

}  // namespace
