// Replaces the global allocation functions of a test binary, so that a test can count the
// allocations made on its own thread and make a chosen one of them fail with std::bad_alloc.
//
// Include from exactly one source file per test binary: it defines the replaceable operator new
// and operator delete, which the shared library under test also resolves to. Everything is
// per thread, so allocations made by other threads (the test framework's included) are neither
// counted nor failed. Every form is replaced and all go through malloc/free, so the sanitizers
// still see matching pairs. The deletes are kept out of line: inlined into a caller, g++ would
// take their free() for a mismatch with the operator new that made the pointer.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

namespace connector {
namespace testing {
namespace allocation_detail {
inline thread_local long count = 0;
inline thread_local long failCountdown = 0;  // 0: never fail

inline void* allocate(std::size_t size) {
  ++count;
  if (failCountdown > 0 && --failCountdown == 0) {
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}
}  // namespace allocation_detail

// Operator new calls made on this thread so far.
inline long allocationsOnThisThread() {
  return allocation_detail::count;
}

// Makes the n-th operator new call on this thread from now on fail (1: the next one).
inline void failAllocation(long n) {
  allocation_detail::failCountdown = n;
}

// Disarms failAllocation() when a test leaves early.
class NoAllocationFailureOnExit {
 public:
  NoAllocationFailureOnExit() = default;
  NoAllocationFailureOnExit(const NoAllocationFailureOnExit&) = delete;
  NoAllocationFailureOnExit& operator=(const NoAllocationFailureOnExit&) = delete;
  ~NoAllocationFailureOnExit() { allocation_detail::failCountdown = 0; }
};

}  // namespace testing
}  // namespace connector

void* operator new(std::size_t size) {
  if (void* p = connector::testing::allocation_detail::allocate(size)) {
    return p;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return ::operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return connector::testing::allocation_detail::allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return connector::testing::allocation_detail::allocate(size);
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
