#include "tests/support/failing_allocator.h"

#include <cstdlib>
#include <new>

namespace {

thread_local long allocations_left = -1;  // -1: none fails

void* allocate(std::size_t n) {
  if (allocations_left >= 0 && allocations_left-- == 0) return nullptr;
  return std::malloc(n ? n : 1);
}

void* allocate_or_throw(std::size_t n) {
  if (void* p = allocate(n)) return p;
  throw std::bad_alloc();
}

}  // namespace

namespace ostrel::testing {
void fail_allocation_after(long n) { allocations_left = n; }
}  // namespace ostrel::testing

// Every unaligned form, so that each allocation is paired with its own release
// (the aligned forms stay the library's, which pair among themselves).
void* operator new(std::size_t n) { return allocate_or_throw(n); }
void* operator new[](std::size_t n) { return allocate_or_throw(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return allocate(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return allocate(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
