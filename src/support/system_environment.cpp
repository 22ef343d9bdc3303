#include "support/system_environment.h"

namespace varnel {

void SystemEnvironment::Compute(platform::Env&) {}

SystemEnvironment& SystemEnvironment::Get() {
  static SystemEnvironment* record = [] {
    auto* r = new SystemEnvironment;  // lives for the process: the trace may use it at unload
    std::lock_guard<std::mutex> lock(r->m_mutex);
    r->Compute(platform::Env::Default());
    return r;
  }();
  return *record;
}

}  // namespace varnel
