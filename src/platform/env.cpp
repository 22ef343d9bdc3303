#include "platform/env.h"

#include <atomic>
#include <bit>
#include <cstdio>

namespace platform {

Env& DefaultBackend();  // defined by the backend of the build

namespace {
std::atomic<Env*> g_override{nullptr};
}

Env& Env::Default() {
  if (Env* env = g_override.load(std::memory_order_acquire)) return *env;
  return DefaultBackend();
}

ReadResult Env::ReadAt(HANDLE file, std::uint64_t offset, void* buffer, DWORD size) {
  ReadResult result;
  std::int64_t position = 0;
  if (!SetFilePointerEx(file, static_cast<std::int64_t>(offset), &position, kFileBegin)) {
    result.step = ReadResult::kSeekFailed;
    result.error = GetLastError();
    return result;
  }
  if (static_cast<std::uint64_t>(position) != offset) {
    result.step = ReadResult::kSeekElsewhere;
    return result;
  }
  if (!ReadFile(file, buffer, size, &result.bytes)) {
    result.step = ReadResult::kReadFailed;
    result.error = GetLastError();
    return result;
  }
  if (result.bytes != size) result.step = ReadResult::kShortRead;
  return result;
}

DWORD Env::HostToNetworkLong(DWORD value) {
  if constexpr (std::endian::native == std::endian::big) return value;
  return (value >> 24) | ((value >> 8) & 0xFF00u) | ((value << 8) & 0xFF0000u) | (value << 24);
}

bool Env::InetNtoa(DWORD network_order, char* buffer, std::size_t size) {
  // The address's bytes in memory order are its octets in order.
  unsigned char octets[4];
  for (int i = 0; i < 4; ++i) {
    const int shift = std::endian::native == std::endian::little ? 8 * i : 8 * (3 - i);
    octets[i] = static_cast<unsigned char>(network_order >> shift);
  }
  if (buffer == nullptr || size == 0) return false;
  const int n = std::snprintf(buffer, size, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
  return n > 0 && static_cast<std::size_t>(n) < size;
}

bool Env::FileTimeToSystemTime(std::uint64_t file_time, SystemTime* time) {
  if (time == nullptr || file_time > 0x7FFFFFFFFFFFFFFFull) return false;
  const std::uint64_t ticks_per_second = 10000000;
  const std::uint64_t seconds = file_time / ticks_per_second;
  const std::int64_t days = static_cast<std::int64_t>(seconds / 86400);
  const std::uint64_t in_day = seconds % 86400;
  // Civil date from a day count (days since 0000-03-01 proleptic Gregorian).
  const std::int64_t z = days - 134774 + 719468;  // 1601-01-01 is 134774 days before 1970-01-01
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  time->wYear = static_cast<std::uint16_t>(year);
  time->wMonth = static_cast<std::uint16_t>(month);
  time->wDay = static_cast<std::uint16_t>(day);
  time->wDayOfWeek = static_cast<std::uint16_t>((days + 1) % 7);  // 1601-01-01 was a Monday
  time->wHour = static_cast<std::uint16_t>(in_day / 3600);
  time->wMinute = static_cast<std::uint16_t>(in_day / 60 % 60);
  time->wSecond = static_cast<std::uint16_t>(in_day % 60);
  time->wMilliseconds = static_cast<std::uint16_t>(file_time % ticks_per_second / 10000);
  return true;
}

ScopedEnv::ScopedEnv(Env& env) : previous_(g_override.exchange(&env, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { g_override.store(previous_, std::memory_order_release); }

}  // namespace platform
