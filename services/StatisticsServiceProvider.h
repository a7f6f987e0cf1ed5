// Live request statistics: passes every request on along the delivery chain without waiting for
// it, and counts each one per message type when it completes, so that operators can read
// latency percentiles, failures and stuck requests through administration commands instead of
// searching a log.
//
// Per message type (named as the logging provider names it): requests completed (failures
// included), failed ones, requests in flight, and the latencies in a log-linear nanosecond
// histogram (see services/detail/LogLinearHistogram.h: exact under 256 ns, each power of two
// above split in 128, up to about 73 minutes plus an overflow bucket), so every percentile is
// within 1% of the exact value and the maximum is exact. A clock that went backwards on another
// core counts as 0 ns. Besides: the 32 slowest requests since the last reset, and every request
// in flight with its start time. Each request is numbered by the thread that delivered it
// (0 to 63, in the order threads first deliver to any provider; 64 for all later threads) and
// that thread's count of requests to this provider, from 1. Times are read from a steady clock.
//
// Memory: per message type, one block of at most 64 KiB (about 36 KiB) for each thread that has
// completed a request of that type, made on its first; nothing for a thread that has not.
//
// Commands (NAME is the provider's name), registered with the administration given and withdrawn
// in the destructor, unless another provider of that name lives on (it answers them then). Their
// figures cover the time since the provider was made or NAME.statistics.reset last ran; times
// are microseconds with three significant digits (0.412, 1.23, 118):
//   NAME.statistics [TYPE_PREFIX]  one line per type (only types with completed or in-flight
//       requests), sorted by name:
//       TYPE count=N failed=N inflight=N p50_us=T p90_us=T p99_us=T max_us=T mean_us=T since_s=N
//       (count includes the failed; a percentile in the overflow bucket reads >4398046511)
//   NAME.statistics.reset          starts those figures and the slowest list afresh (requests in
//                                  flight stay listed; snapshot() is untouched); answers the
//                                  empty text
//   NAME.inflight                  one line per request in flight, oldest first:
//       thread=N request=N TYPE age_us=T
//   NAME.slowest [N]               the N slowest (default 10, 1 to 32), slowest first:
//       thread=N request=N TYPE elapsed_us=T ok|EXCEPTION_TYPE
// A bad count throws std::invalid_argument naming the command, the text given and the range.
//
// Never blocks and never changes an answer: deliver() returns the context's own future when the
// answer is already Resolved, and otherwise a future that settles when the answer settles, with
// the same response object or the same exception. An exception thrown by forward() is counted as
// a failure and then leaves deliver().
//
// Ownership: the provider holds the administration and shares its statistics with the command
// handlers and with the continuations of pending requests, so either may outlive it. Threads:
// any number of threads may call deliver() at once, and the handlers may run on any thread while
// they do. The request path keeps its counters on cache lines per thread, so threads delivering
// different types, or even the same type, do not write a common line: the first 64 threads of the
// process (numbered as they first deliver to any provider, never reused) each own their lines and
// write them without locked instructions; later threads share one set, with atomic additions.
// A request answered before deliver() returns is listed in flight in its thread's own places; one
// still pending then moves to a shared place, claimed with one compare-and-swap. A request takes
// no lock, save in three cases: a message type seen for the first time (once per type), a
// thread's first request of a type (its block is allocated), and a request that finds every place
// for requests in flight taken, that is, more than 2,048 pending after deliver() returned (plus
// 8 deliveries under way, nested, on each of those 64 threads).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Export.h"
#include "framework/Administration.h"
#include "framework/CommandRegistrations.h"
#include "framework/ServiceProvider.h"
#include "services/LatencySnapshot.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT StatisticsServiceProvider : public connector::ServiceProvider {
 public:
  // Registers the four commands with `administration`, which may be null (then there are none).
  // If a registration throws, the exception leaves here and the commands registered before it
  // are withdrawn again. Another provider of the same name may be built before this one is
  // destroyed: the newest live one answers the commands.
  StatisticsServiceProvider(std::shared_ptr<administration::Administration> administration,
                            const std::string& name);

  // Withdraws the commands unless another provider of the same name still lives. The registry's
  // unregisterCommand() must not throw.
  ~StatisticsServiceProvider() override;

  // Passes `message` and `address` on through context->forward() and returns at once (see
  // above). An empty `message` throws std::bad_typeid before anything else happens.
  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override;

  // One message type's figures, cumulative since the provider was made: NAME.statistics.reset
  // does not touch them, so an exporter's counters never go back.
  struct TypeSnapshot {
    std::string type;             // as the commands name it
    std::uint64_t succeeded = 0;  // completed with an answer
    std::uint64_t failed = 0;     // completed with an exception
    std::uint64_t inflight = 0;   // delivered and not yet completed
    LatencySnapshot latency;      // of the completed requests, failures included
  };

  // The figures of every type seen, sorted by type. Any thread, while deliveries go on; a
  // request completed before the call is in it, and none is lost or counted twice: each counter
  // only grows, so successive snapshots never go back.
  std::vector<TypeSnapshot> snapshot() const;

  // A request as NAME.slowest and NAME.inflight list it: `thread` numbers the thread that
  // delivered it (0 to 63, 64 for all later threads), `request` counts that thread's requests to
  // this provider from 1.
  struct SlowRequest {
    std::uint64_t thread = 0;
    std::uint64_t request = 0;
    std::string type;
    std::uint64_t elapsedNanoseconds = 0;
    std::string outcome;  // "ok" or the type of the exception it failed with
  };
  struct InFlightRequest {
    std::uint64_t thread = 0;
    std::uint64_t request = 0;
    std::string type;
    std::uint64_t ageNanoseconds = 0;  // since deliver() took it
  };

  // The `count` slowest requests completed since the provider was made or NAME.statistics.reset
  // last ran (at most 32 are kept), slowest first. Any thread, while deliveries go on.
  std::vector<SlowRequest> slowest(std::size_t count) const;

  // Every request delivered and not yet completed, oldest first. Any thread, while deliveries go on.
  std::vector<InFlightRequest> inflight() const;

  // The name given at construction, which prefixes the commands.
  const std::string& name() const noexcept;

 private:
  struct State;

  const std::string name_;
  const std::shared_ptr<State> state_;
  administration::CommandRegistrations commands_;
};

}  // namespace common_services
}  // namespace connector
