#include "foundation/core/detail/ThreadIndex.h"

#include <atomic>

namespace foundation {
namespace core {
namespace detail {

namespace {

std::atomic<std::uint32_t> nextIndex{0};

// -1 until the thread's first call. initial-exec: the variable is read on every request of the
// providers that spread their counters, and this model makes the read one instruction instead of
// a call into the dynamic linker.
__attribute__((tls_model("initial-exec"))) thread_local std::int64_t threadIndex = -1;

}  // namespace

std::uint32_t thread_index() noexcept {
  if (threadIndex < 0) {
    threadIndex = nextIndex.fetch_add(1, std::memory_order_relaxed);
  }
  return static_cast<std::uint32_t>(threadIndex);
}

}  // namespace detail
}  // namespace core
}  // namespace foundation
