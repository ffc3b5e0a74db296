#pragma once

#include <atomic>
#include <cstdint>

#include "inference/types.h"

namespace ostrel::inference {

// The request counters every backend reports in its stats. Lock-free.
struct BackendCounters {
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> in_flight{0};
  std::atomic<std::uint64_t> completed{0};
  std::atomic<std::uint64_t> errors{0};
  std::atomic<std::uint64_t> total_latency_ms{0};
  std::atomic<std::uint64_t> total_tokens{0};

  // Counts one request for the life of the scope: in flight while it runs,
  // then completed (with its latency and tokens) or failed.
  class Scope {
   public:
    explicit Scope(BackendCounters& c);
    ~Scope();
    void succeed(std::uint64_t tokens) {
      ok_ = true;
      tokens_ = tokens;
    }

   private:
    BackendCounters& c_;
    std::int64_t start_ms_;
    bool ok_ = false;
    std::uint64_t tokens_ = 0;
  };

  void fill(BackendStats& s) const;
};

}  // namespace ostrel::inference
