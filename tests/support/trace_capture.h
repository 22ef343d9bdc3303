// Captures the lines the process-wide trace writes during a test, at full verbosity.
#pragma once

#include <algorithm>
#include <bit>
#include <mutex>
#include <string>
#include <vector>

#include "support/trace.h"

namespace koru::test {

class TraceCapture {
 public:
  TraceCapture() : saved_mask_(varnel::Trace().GetLevel()) {
    varnel::Trace().SetLevel(4);
    varnel::Trace().SetObserver([this](const std::wstring& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~TraceCapture() {
    varnel::Trace().SetObserver(nullptr);
    varnel::Trace().SetLevel(static_cast<unsigned>(std::popcount(saved_mask_)));  // masks 0,1,3,7,15 are levels 0..4
  }
  // Lines as "[V]: function : text".
  std::vector<std::wstring> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(const std::wstring& line) const { return std::ranges::count(lines(), line) > 0; }
  bool Contains(const std::wstring& fragment) const {
    return std::ranges::any_of(lines(), [&](const auto& l) { return l.find(fragment) != std::wstring::npos; });
  }
  void Reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  unsigned saved_mask_;
  mutable std::mutex mutex_;
  std::vector<std::wstring> lines_;
};

}  // namespace koru::test
