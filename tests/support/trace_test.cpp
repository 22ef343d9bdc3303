#include "support/trace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "support/fake_system_env.h"
#include "support/temp_dir.h"

namespace {

using koru::test::Call;
using koru::test::FakeSystemEnv;
using koru::test::FaultEnv;
using koru::test::TempDir;
using varnel::CTrace;

constexpr const char* kLog = "Logfiles/VMFT_trace.log";
constexpr const char* kPrefix = "[2026-03-01 14:05:09.042]:1a2c:";

// A trace whose program lives in a temporary directory, with the fake's fixed clock and thread.
class TraceFile : public ::testing::Test {
 protected:
  TraceFile() { env_.exe_path = dir_.win("vmft"); }
  CTrace& trace() {
    if (!trace_) trace_ = std::make_unique<CTrace>(L"VMFT_trace.log", L"VMFT_TraceLevel", env_);
    return *trace_;
  }
  // The log's text without the fixed prefix of each entry.
  std::string bodies() const {
    std::string text = dir_.Read(kLog);
    for (std::size_t at; (at = text.find(kPrefix)) != std::string::npos;) text.erase(at, std::strlen(kPrefix));
    return text;
  }
  std::wstring LogDir() {
    varnel::string where;
    trace().GetLogDir(where);
    return where.c_str();
  }

  TempDir dir_;
  FakeSystemEnv env_;
  std::unique_ptr<CTrace> trace_;
};

// The prefix of each entry, and the value texts that are more than the value itself.
TEST_F(TraceFile, EntryTexts) {
  trace().SetLevel(4);
  trace().Trace(8, L"MFT::SetVolumeHintHandle", L"starting ...");
  trace().Trace(3, L"f", L"no single bit: stamp and thread only");
  trace().Trace(4, L"fn", L"wsz", static_cast<const wchar_t*>(nullptr));
  trace().Trace(4, L"fn", L"sz", static_cast<const char*>(nullptr));
  trace().Trace(4, L"fn", L"c", '\0');
  trace().Trace(4, L"fn", L"wc", L'\t');
  trace().TraceHex(4, L"fn", L"h", 0xABCDEF12u);
  trace().Trace(4, L"fn", L"i", std::int64_t{-31});  // decimal again after hex
  trace().Trace(4, L"fn", L"b", varnel::Bool32{2});
  trace().Trace(4, L"fn", L"d", 3.14159265);
  env_.thread_id = 0x1F;  // zero-filled to four digits, or printed in full
  env_.local_time = platform::SystemTime{987, 1, 2, 3, 4, 5, 6, 7};
  trace().Trace(1, L"f", L"x");
  env_.thread_id = 0x12345;
  trace().Trace(2, L"f", L"y");
  EXPECT_EQ(bodies(), "[V]: MFT::SetVolumeHintHandle : starting ...\n[2026-03-01 14:05:09.042]:1a2c\n"
                      "[I]: fn : wsz = \"<null>\"\n[I]: fn : sz = \"<null>\"\n[I]: fn : c = '<NULL>'\n"
                      "[I]: fn : wc = '<Tab>'\n[I]: fn : h = 0xabcdef12\n[I]: fn : i = -31\n[I]: fn : b = true\n"
                      "[I]: fn : d = 3.14159\n[0987-01-03 04:05:06.007]:001f:[E]: f : x\n"
                      "[0987-01-03 04:05:06.007]:12345:[W]: f : y\n");
}

// Level 0 from trace.ini, which writes nothing, is checked by foundation_test.sh.
TEST_F(TraceFile, LevelsFromTraceIniAndTheDefaultThatLeavesOutVerbose) {
  trace().Trace(8, L"f", L"starting ...");
  trace().Trace(4, L"f", L"value");
  const std::pair<const char*, platform::DWORD> steps[] = {
      {nullptr, 7},  // no trace.ini: the mask stays
      {"[main]\r\nvmft_tracelevel=4\r\n", 15},
      {"[Main]\r\nVMFT_TraceLevel=5\r\n", 15},  // no level: the mask stays
  };
  for (const auto& [ini, mask] : steps) {
    if (ini) dir_.Write("trace.ini", ini);
    trace().ReadLevel();
    EXPECT_EQ(trace().GetLevel(), mask) << (ini ? ini : "none");
  }
  EXPECT_EQ(bodies(), "[I]: f : value\n");
}

// The directory is taken once; SetLogDir takes only an existing one. kor.ini's
// Logfiles (the directory made) is checked on `vmft version` by foundation_test.sh.
TEST_F(TraceFile, LogDirectoryIsTakenOnceUntilSetLogDirMovesIt) {
  EXPECT_EQ(LogDir(), dir_.win("Logfiles"));
  dir_.Write("kor.ini", "[File Locations]\r\nLogfiles=Z:\\nowhere\r\n");
  EXPECT_EQ(LogDir(), dir_.win("Logfiles"));
  std::filesystem::create_directories(dir_ / "moved");
  EXPECT_FALSE(trace().SetLogDir(dir_.win("missing").c_str()));
  EXPECT_STREQ(trace().LogFilePath().c_str(), dir_.win(kLog).c_str());
  EXPECT_TRUE(trace().SetLogDir(dir_.win("moved").c_str()));
  EXPECT_EQ(LogDir(), dir_.win("moved"));
  trace().Trace(1, L"f", L"moved");
  EXPECT_EQ(dir_.Read("moved/VMFT_trace.log"), std::string(kPrefix) + "[E]: f : moved\n");
}

// An entry whose file cannot open is lost, not written later.
TEST_F(TraceFile, APreviousLogIsKeptAsOldOnlyTheFirstObjectStartsAfreshAndAnUnopenedEntryIsSkipped) {
  dir_.Write(kLog, "previous run\n");
  dir_.Write("Logfiles/VMFT_trace.old", "the run before\n");
  trace();
  EXPECT_FALSE(dir_.Exists(kLog));
  EXPECT_EQ(dir_.Read("Logfiles/VMFT_trace.old"), "previous run\n");
  trace().Trace(1, L"f", L"before");
  trace().StartFresh();
  trace().Trace(1, L"f", L"first object");
  trace().StartFresh();
  EXPECT_EQ(bodies(), "[E]: f : first object\n");
  FaultEnv faults(static_cast<platform::Env&>(env_));
  CTrace failing(L"VMFT_trace.log", L"VMFT_TraceLevel", faults);
  faults.FailCall(Call::CreateFileW, platform::kErrorAccessDenied);
  failing.Trace(1, L"f", L"lost");
  failing.Trace(1, L"f", L"kept");
  EXPECT_EQ(bodies(), "[E]: f : kept\n");
}

TEST(TraceWinPE, KindTwentyReadsItsSettingsAndLogsUnderZKoru) {
  // Records the INI file asked for a level and the fallback offered for the log
  // directory; every answer is empty, so nothing is cached or made.
  struct : FakeSystemEnv {
    std::wstring file, fallback;
    platform::UINT GetPrivateProfileIntW(const wchar_t*, const wchar_t*, int value, const wchar_t* in) override {
      file = in;
      return static_cast<platform::UINT>(value);
    }
    platform::DWORD GetPrivateProfileStringW(const wchar_t*, const wchar_t*, const wchar_t* value, wchar_t* buffer,
                                             platform::DWORD, const wchar_t*) override {
      fallback = value;
      return buffer[0] = 0;
    }
  } env;
  CTrace trace(L"VMFT_trace.log", L"VMFT_TraceLevel", env);
  trace.UseEnvironmentKind(20);
  trace.ReadLevel();
  varnel::string where;
  trace.GetLogDir(where);
  EXPECT_EQ(env.file + L" " + env.fallback, L"Z:\\KORU\\trace.ini Z:\\KORU\\Logfiles");
}

TEST_F(TraceFile, OwnDirGrowsTheBufferBy260AndFallsBackWhenTheQueryFails) {
  env_.exe_path = L"Z:\\" + std::wstring(600, L'd') + L"\\vmft";
  FaultEnv env(static_cast<platform::Env&>(env_));
  CTrace trace(L"VMFT_trace.log", L"VMFT_TraceLevel", env);
  varnel::string own;
  const int before = env.Count(Call::GetModuleFileNameW);
  trace.GetOwnDir(own);
  EXPECT_EQ(env.Count(Call::GetModuleFileNameW) - before, 3);  // 260, 520, 780 characters
  EXPECT_STREQ(own.c_str(), (L"Z:\\" + std::wstring(600, L'd')).c_str());
  env.FailCall(Call::GetModuleFileNameW, platform::kErrorAccessDenied);
  trace.GetOwnDir(own);
  EXPECT_STREQ(own.c_str(), L"X:\\Program Files\\Varnel\\KORU");
}

// Sixteen writers while another thread moves the log between two directories and
// changes the level (always keeping Information on): every entry lands whole, once,
// in one of the two logs, each thread's in its order. Run under ThreadSanitizer too.
using TraceThreads = TraceFile;
TEST_F(TraceThreads, SixteenWritersNeverInterleaveWhileTheLogMoves) {
  CTrace& trace = TraceFile::trace();  // made before the threads start
  std::filesystem::create_directories(dir_ / "moved");
  constexpr int kThreads = 16, kEntries = 150;
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&trace, &running, t] {
      const std::wstring padding(40 + t * 17, static_cast<wchar_t>(L'a' + t));
      for (int i = 0; i < kEntries; ++i)
        trace.Trace(4, L"Worker::Run", (L"t=" + std::to_wstring(t) + L" i=" + std::to_wstring(i) + L" " + padding).c_str());
      --running;
    });
  }
  const varnel::string dirs[] = {varnel::string(dir_.win("moved").c_str()), varnel::string(dir_.win("Logfiles").c_str())};
  for (int n = 0; running > 0; ++n) {
    trace.SetLogDir(dirs[n % 2]);
    trace.SetLevel(3 + n % 2);
    std::this_thread::yield();
  }
  for (auto& thread : threads) thread.join();

  const std::regex line(R"(\[[-0-9 :.]{23}\]:[0-9a-f]{4,}:\[I\]: Worker::Run : t=(\d+) i=(\d+) ([a-z]+))");
  std::vector<std::vector<bool>> seen(kThreads, std::vector<bool>(kEntries, false));
  int count = 0;
  for (const char* log : {kLog, "moved/VMFT_trace.log"}) {
    std::istringstream in(dir_.Read(log));
    std::vector<int> last(kThreads, -1);
    for (std::string text; std::getline(in, text); ++count) {
      std::smatch m;
      ASSERT_TRUE(std::regex_match(text, m, line)) << text;
      const int t = std::stoi(m[1]), i = std::stoi(m[2]);
      ASSERT_TRUE(t < kThreads && i < kEntries && !seen[t][i]) << text;
      seen[t][i] = true;
      EXPECT_GT(i, last[t]);  // each thread's entries in its order
      last[t] = i;
      EXPECT_EQ(m[3].str(), std::string(40 + t * 17, static_cast<char>('a' + t)));
    }
  }
  EXPECT_EQ(count, kThreads * kEntries);
}

}  // namespace
