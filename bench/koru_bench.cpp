// koru_bench: one measurement per process, printed as one line of key=value pairs
// for scripts/bench. A fresh process per measurement gives each its own peak memory
// (getrusage) and starts it with the library's caches empty, as `vmft` runs.
//
//   koru_bench [--disk IMG[:SECTOR_SIZE]]... [--trace-level N] MODE ...
//     ranges REPS        VMFT::GetMFTSectorRanges of C:, REPS calls
//     record COUNT       VMFT::ReadMFTRecord of C:'s first COUNT records, dumped to nowhere
//     scan               the MFT scan of the hard-link inventory (MFT::GetHardLinkList) of C:
//     pread              C:'s MFT read from the raw image a record at a time, one pread each
//                        and nothing else: what a read call per record costs alone
//     hlinfo FILE        VMFT::CreateHLInfo(FILE, C, C), the whole inventory
//     exec CMD ARG...    a command with its output to /dev/null (its time and peak memory)
//
// Times are the operation's own (wall clock); `exec` times the child from fork to exit.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "api/extent_chain.h"
#include "disk/volume.h"
#include "koru_mft/tool.h"
#include "koru_mft/vmft.h"
#include "support/fn_trace.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr wchar_t kLetter = L'C';

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

long PeakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

double CpuSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// User and system time of this process so far: under a loaded machine a truer cost
// than the wall clock.
double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return CpuSeconds(usage);
}

double g_cpu_start = 0;

// Progress and dumps go nowhere, at no cost worth measuring.
class NullBuffer : public std::wstreambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const wchar_t*, std::streamsize n) override { return n; }
};

int Usage() {
  std::cerr << "usage: koru_bench [--disk IMG[:SECTOR_SIZE]]... [--trace-level N] "
               "ranges REPS | record COUNT | scan | pread | hlinfo FILE | exec CMD ARG...\n";
  return 2;
}

// The CPU time counts from the start of the timed operation (g_cpu_start).
void Report(const char* mode, double seconds, std::uint64_t count, const std::string& extra = {}) {
  std::printf("mode=%s seconds=%.6f cpu=%.6f count=%llu maxrss_kib=%ld%s%s\n", mode, seconds,
              CpuSeconds() - g_cpu_start, static_cast<unsigned long long>(count), PeakKiB(),
              extra.empty() ? "" : " ", extra.c_str());
}

// The records of C:'s MFT, from its ranges and record size.
std::uint64_t MftRecords(std::vector<std::pair<std::uint64_t, std::uint64_t>>* ranges,
                         koru::tool::MftGeometry* geometry) {
  if (!VMFT::GetMFTSectorRanges(kLetter, *ranges) || !koru::tool::GetMftGeometry(kLetter, geometry) ||
      geometry->bytes_per_record == 0)
    return 0;
  std::uint64_t sectors = 0;
  for (const auto& [first, end] : *ranges) sectors += end > first ? end - first : 0;
  return sectors * geometry->bytes_per_sector / geometry->bytes_per_record;
}

int Ranges(long reps) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  g_cpu_start = CpuSeconds();
  const auto start = Clock::now();
  for (long i = 0; i < reps; ++i) {
    ranges.clear();
    if (!VMFT::GetMFTSectorRanges(kLetter, ranges)) return 1;
  }
  Report("ranges", Since(start), static_cast<std::uint64_t>(reps), "ranges=" + std::to_string(ranges.size()));
  return 0;
}

int Records(std::uint64_t count) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  koru::tool::MftGeometry geometry;
  if (MftRecords(&ranges, &geometry) == 0) return 1;
  // The sector of each of the first `count` records, in MFT order.
  std::vector<std::uint64_t> sectors;
  const std::uint64_t step = std::max<std::uint64_t>(1, geometry.bytes_per_record / geometry.bytes_per_sector);
  for (const auto& [first, end] : ranges)
    for (std::uint64_t s = first; s < end && sectors.size() < count; s += step) sectors.push_back(s);
  NullBuffer nothing;
  std::wostream os(&nothing);
  g_cpu_start = CpuSeconds();
  const auto start = Clock::now();
  for (const std::uint64_t sector : sectors)
    if (!VMFT::ReadMFTRecord(os, kLetter, sector)) return 1;
  Report("record", Since(start), sectors.size());
  return 0;
}

int Scan() {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  koru::tool::MftGeometry geometry;
  const std::uint64_t records = MftRecords(&ranges, &geometry);
  if (records == 0) return 1;
  NullBuffer nothing;
  std::wostream progress(&nothing);
  HardLinkMap map;
  g_cpu_start = CpuSeconds();
  const auto start = Clock::now();
  {
    // What VMFT::CreateHLInfo runs for each extent before the info file is written.
    varnel::FnTrace fn(L"koru_bench::Scan");
    std::vector<koru::DISK_EXTENT> extents;
    if (!koru::GetVolumeDiskExtentList(kLetter, extents)) return 1;
    for (const auto& extent : extents) {
      koru::ExtentPlace place;
      if (koru::LocateExtent(fn, extent, place) != koru::ExtentStep::kOk) return 1;
      koru::MFT mft = koru::MakeReader(place, kLetter, place.mft_sector);
      mft.GetHardLinkList(map, progress);
      mft.CloseHandles();
    }
  }
  const double seconds = Since(start);
  Report("scan", seconds, records, "linked=" + std::to_string(map.size()));
  return 0;
}

int Pread(const std::string& image) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  koru::tool::MftGeometry geometry;
  if (MftRecords(&ranges, &geometry) == 0) return 1;
  // Opened as PosixEnv opens a disk.
  int fd = open(image.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
  if (fd < 0) fd = open(image.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 1;
  std::vector<char> record(geometry.bytes_per_record);
  const std::uint64_t step = std::max<std::uint64_t>(1, geometry.bytes_per_record / geometry.bytes_per_sector);
  std::uint64_t count = 0;
  g_cpu_start = CpuSeconds();
  const auto start = Clock::now();
  for (const auto& [first, end] : ranges) {
    for (std::uint64_t s = first; s < end; s += step, ++count) {
      const auto offset = static_cast<off_t>(s * geometry.bytes_per_sector);
      if (pread(fd, record.data(), record.size(), offset) != static_cast<ssize_t>(record.size())) return 1;
    }
  }
  Report("pread", Since(start), count);
  close(fd);
  return 0;
}

int HlInfo(const std::string& file) {
  NullBuffer nothing;
  std::wostream progress(&nothing);
  g_cpu_start = CpuSeconds();
  const auto start = Clock::now();
  if (!VMFT(progress).CreateHLInfo(varnel::string(file.c_str()), kLetter, kLetter)) return 1;
  Report("hlinfo", Since(start), 0);
  return 0;
}

int Exec(char** argv) {
  const auto start = Clock::now();
  const pid_t pid = fork();
  if (pid < 0) return 1;
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    execvp(argv[0], argv);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) return 1;
  const double seconds = Since(start);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::cerr << "koru_bench: " << argv[0] << " failed\n";
    return 1;
  }
  std::printf("mode=exec seconds=%.6f cpu=%.6f count=0 maxrss_kib=%ld\n", seconds, CpuSeconds(usage),
              usage.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int i = 1;
  long level = -1;
  std::string image;
  for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
    const std::string option = argv[i];
    if (option == "--disk") {
      if (image.empty()) {  // PATH[:SECTOR_SIZE]
        image = argv[i + 1];
        const std::size_t colon = image.rfind(':');
        if (colon != std::string::npos && image.find_first_not_of("0123456789", colon + 1) == std::string::npos)
          image.erase(colon);
      }
      std::string error;
      if (!koru::tool::AttachDisk(argv[i + 1], &error)) {
        std::cerr << "koru_bench: cannot attach " << argv[i + 1] << ": " << error << "\n";
        return 2;
      }
    } else if (option == "--trace-level") {
      level = std::strtol(argv[i + 1], nullptr, 10);
    } else {
      return Usage();
    }
  }
  if (i >= argc) return Usage();
  const std::string mode = argv[i];
  if (mode == "exec" && i + 1 < argc) return Exec(argv + i + 1);
  // The level a VMFT object reads from trace.ini is replaced for the run, as
  // `vmft --trace-level` does.
  { NullBuffer nothing; std::wostream os(&nothing); VMFT first(os); }
  if (level >= 0) koru::tool::SetTraceLevel(static_cast<unsigned>(level));
  if (mode == "ranges" && i + 1 < argc) return Ranges(std::strtol(argv[i + 1], nullptr, 10));
  if (mode == "record" && i + 1 < argc) return Records(std::strtoull(argv[i + 1], nullptr, 10));
  if (mode == "scan") return Scan();
  if (mode == "pread") return Pread(image);
  if (mode == "hlinfo" && i + 1 < argc) return HlInfo(argv[i + 1]);
  return Usage();
}
