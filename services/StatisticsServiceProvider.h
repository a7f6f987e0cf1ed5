// Live request statistics: passes every request on along the delivery chain without waiting for
// it, and counts each one per message type when it completes, so that operators can read
// latency percentiles, failures and stuck requests through administration commands instead of
// searching a log.
//
// Per message type (named as the logging provider names it): requests completed, failed ones,
// requests in flight, and a latency histogram in power-of-two microsecond buckets (1 us to about
// 67 s, plus overflow) from which p50, p90, p99 and the maximum are read; a percentile is the
// upper bound of its bucket, so at most twice the true value. Besides: the 32 slowest requests
// since the last reset, and every request in flight with its start time. Each request gets a
// number, unique for the provider; numbers from different threads interleave, so they are not in
// arrival order. Times are read from a steady clock.
//
// Commands (NAME is the provider's name), registered with the administration given and withdrawn
// in the destructor, unless another provider of that name lives on (it answers them then):
//   NAME.statistics [TYPE_PREFIX]  one line per type (only types with completed or in-flight
//       requests), sorted by name:
//       TYPE count=N failed=N inflight=N p50_us=N p90_us=N p99_us=N max_us=N
//   NAME.statistics.reset          zeroes the counts, histograms and the slowest list (requests
//                                  in flight stay listed); answers the empty text
//   NAME.inflight                  one line per request in flight, oldest first:
//       NUMBER TYPE age_us=N
//   NAME.slowest [N]               the N slowest (default 10, 1 to 32), slowest first:
//       NUMBER TYPE elapsed_us=N ok|EXCEPTION_TYPE
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
// A request takes no lock, save in two cases: a message type seen for the first time (once per
// type), and a request that finds every place for requests in flight taken, that is, more than
// 2,048 in flight plus 8 for each of those 64 threads.
#pragma once

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
  // request completed before the call is in it.
  std::vector<TypeSnapshot> snapshot() const;

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
