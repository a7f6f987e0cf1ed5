// Replaces the global operator new of a test binary, so that a test can count the allocations
// made on its own thread and make a chosen one of them fail with std::bad_alloc.
//
// Include from exactly one source file per test binary: the shared library under test resolves
// operator new to this one too. Everything is per thread, so allocations made by other threads
// (the test framework's included) are neither counted nor failed. The new and the matching deletes
// use malloc() and free() and are kept out of line: inlined into a caller (at -O3 the new too), g++
// would take the free() for a mismatch with the operator new that made the pointer. The other forms (arrays,
// nothrow) keep the library's own pairs, which either call these or are both replaced by a sanitizer.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace connector {
namespace test_support {
namespace allocation_detail {
inline thread_local long count = 0;
inline thread_local long failCountdown = 0;  // 0: never fail
}  // namespace allocation_detail

// Operator new calls made on this thread so far.
inline long allocationsOnThisThread() {
  return allocation_detail::count;
}

// Makes the n-th operator new call on this thread from now on fail (1: the next one).
inline void failAllocation(long n) {
  allocation_detail::failCountdown = n;
}

}  // namespace test_support
}  // namespace connector

[[gnu::noinline]] void* operator new(std::size_t size) {
  using namespace connector::test_support::allocation_detail;
  ++count;
  void* p = failCountdown > 0 && --failCountdown == 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) {
    throw std::bad_alloc();
  }
  return p;
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
