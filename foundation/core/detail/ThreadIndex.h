// A small number for the calling thread, for code that spreads per-thread work over a few
// slots (counters on separate cache lines, say) so that threads do not write the same line.
//
// The first call on a thread gives it the next number of a process-wide sequence (0, 1, 2, ...);
// later calls on that thread return the same number. Threads that start calling one after
// another therefore get different numbers, and `thread_index() % N` spreads up to N of them over
// N slots without two sharing one. Numbers are not reused when a thread ends.
//
// Internal to connector_common_services (not installed).
//
// Threads: safe from any thread; a call after the first is a read of a thread-local variable.
#pragma once

#include <cstdint>

namespace foundation {
namespace core {
namespace detail {

std::uint32_t thread_index() noexcept;

}  // namespace detail
}  // namespace core
}  // namespace foundation
