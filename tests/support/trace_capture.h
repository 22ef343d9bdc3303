// Captures the lines the process-wide trace writes during a test, at full verbosity.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "support/trace.h"

namespace koru::test {

class TraceCapture {
 public:
  explicit TraceCapture(varnel::CTrace& trace = varnel::Trace()) : trace_(trace), saved_(trace.GetLevel()) {
    trace_.SetLevel(4);
    trace_.SetObserver([this](const std::wstring& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~TraceCapture() {
    trace_.SetObserver(nullptr);
    // Back to the mask that was set before (level numbers map 0..4 to masks).
    const unsigned level = saved_ == 0 ? 0 : saved_ == 1 ? 1 : saved_ == 3 ? 2 : saved_ == 7 ? 3 : 4;
    trace_.SetLevel(level);
  }
  // Lines as "[V]: function : text".
  std::vector<std::wstring> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  bool Has(const std::wstring& line) const {
    const auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }
  bool Contains(const std::wstring& fragment) const {
    for (const auto& line : lines())
      if (line.find(fragment) != std::wstring::npos) return true;
    return false;
  }
  void Reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  varnel::CTrace& trace_;
  unsigned saved_;
  mutable std::mutex mutex_;
  std::vector<std::wstring> lines_;
};

}  // namespace koru::test
