#pragma once

namespace ostrel::testing {

// A test binary linked with failing_allocator.cpp replaces the global
// operator new: after fail_allocation_after(n), the next n allocations on
// the calling thread succeed and the one after throws std::bad_alloc;
// fail_allocation_after(-1) (the start) lets every allocation succeed.
void fail_allocation_after(long n);

}  // namespace ostrel::testing
