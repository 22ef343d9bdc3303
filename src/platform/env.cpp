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

ScopedEnv::ScopedEnv(Env& env) : previous_(g_override.exchange(&env, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { g_override.store(previous_, std::memory_order_release); }

}  // namespace platform
