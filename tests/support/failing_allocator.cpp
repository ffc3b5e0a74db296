#include "tests/support/failing_allocator.h"

#include <cstdlib>
#include <new>

namespace {
thread_local long allocations_left = -1;  // -1: none fails
}  // namespace

namespace ostrel::testing {
void fail_allocation_after(long n) { allocations_left = n; }
}  // namespace ostrel::testing

void* operator new(std::size_t n) {
  if (allocations_left >= 0 && allocations_left-- == 0) throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
