#include "platform/env.h"

#include <atomic>

namespace platform {

Env& DefaultBackend();  // defined by the backend of the build

namespace {
std::atomic<Env*> g_override{nullptr};
}

Env& Env::Default() {
  if (Env* env = g_override.load(std::memory_order_acquire)) return *env;
  return DefaultBackend();
}

ScopedEnv::ScopedEnv(Env& env) : previous_(g_override.exchange(&env, std::memory_order_acq_rel)) {}

ScopedEnv::~ScopedEnv() { g_override.store(previous_, std::memory_order_release); }

}  // namespace platform
