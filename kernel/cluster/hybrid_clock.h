#pragma once

#include <cstdint>
#include <mutex>

namespace ostrel::kernel {

// A hybrid logical clock: wall-clock milliseconds with a logical counter, so
// that stamps only grow and a stamp received from a peer orders after its
// cause.
// Thread-safe: mu_ guards the last stamp.
class HybridClock {
 public:
  struct Stamp {
    std::int64_t physical_ms = 0;
    std::int64_t logical = 0;
  };
  Stamp now();
  // Merges a peer's stamp: the result is after both clocks.
  Stamp update(Stamp remote);

 private:
  std::mutex mu_;
  Stamp last_;
};

}  // namespace ostrel::kernel
