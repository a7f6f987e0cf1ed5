// Access log: passes every request on along the delivery chain without waiting for it, and writes
// one line for each request its settings select, when the request completes, to a destination of
// its own. Meant to stay on in production: callers are never held, and operators choose what is
// written (failures, slow requests, a deterministic sample) while the provider runs.
//
// A line says: the request number (every request is numbered from 0 while the log is enabled),
// the provider's name, the request's address, the message type name (as the logging provider
// names it), the outcome (ok, or the exception's type name and what()), the elapsed time in
// microseconds (steady clock) and the start time (UTC, ISO 8601 with microseconds). Format text,
// fields separated by one blank:
//   line    = NUMBER SP NAME SP NAME SP NAME SP outcome SP "elapsed_us=" DIGITS SP "start=" TIME
//   outcome = "ok" | NAME SP STRING          (the exception's type name and its what())
//   NAME    = the name as it is when it is not empty and holds no byte up to 0x20, no 0x7f and
//             no '"'; otherwise a STRING
//   STRING  = a JSON string ('"', escapes, '"'; invalid UTF-8 becomes U+FFFD)
// so a line splits back into its fields whatever the names (a field that starts with '"' is a
// STRING); an outcome is ok exactly when the field after "ok" is not a STRING:
//   7 access api demo::Order ok elapsed_us=12 start=2026-11-23T08:40:00.123456Z
//   8 access flaky demo::Ping std::runtime_error "flaky: refused request 3" elapsed_us=15
//   start=2026-11-23T08:40:00.123501Z
// Format json, one object per line, keys always in this order; "exception" and "what" only for a
// failed request; strings are valid JSON whatever the bytes (invalid UTF-8 becomes U+FFFD):
//   {"number":7,"provider":"access","address":"api","type":"demo::Order","outcome":"ok",
//    "elapsed_us":12,"start":"2026-11-23T08:40:00.123456Z"}
//   {"number":8,"provider":"access","address":"flaky","type":"demo::Ping","outcome":"failed",
//    "exception":"std::runtime_error","what":"flaky: refused request 3","elapsed_us":15,
//    "start":"2026-11-23T08:40:00.123501Z"}
// A line is exactly that text or object and a newline. The writer flushes the destination after
// each batch of lines it has written, so a line reaches a file soon after its request completes
// (within about a millisecond while the writer keeps up), without a flush per line.
//
// Settings, configuration keys formed from the name (defaults written under the label "default",
// then followed live, in this order):
//   NAME.enabled       bool, true    log at all (a disabled log numbers nothing)
//   NAME.errorsOnly    bool, false   leave out the sample: only failed and slow requests
//   NAME.slowerThanUs  int >= 0, 0   a request is slow when its elapsed time is at least this
//                                    many microseconds; 0 leaves latency out of the selection
//   NAME.sampleEvery   int >= 1, 1   of the other requests, log those whose number is a multiple
//   NAME.exclude       string, ""    comma-separated type-name prefixes never logged unless failed
//   NAME.format        "text"        text or json
//   NAME.destination   "stdout"      as the process log's destinations (stderr, null, file:PATH,
//                                    ...), under the process log's file confinement; its file is
//                                    reopened by foundation::log::reopen() (connector.log.reopen)
// So, while enabled: a failed request is always logged; an excluded one never otherwise; a slow
// one always otherwise; the rest only when errorsOnly is off and they are sampled. A value of the
// wrong type or out of range is refused: the setting stays, a warn record on the process log's
// channel connector.config names the key, the value and what is accepted, and the callback throws
// std::invalid_argument with the same text back to the configuration. With a null configuration
// the defaults stay for the provider's life.
//
// Never blocks and never changes an answer: deliver() returns the context's own future when the
// answer is already Resolved, and otherwise a future that settles when the answer settles, with
// the same response object or the same exception. An exception thrown by forward() is logged as a
// failure and then leaves deliver(). Lines are written by a thread of the provider's own, never by
// the caller's, whatever the destination (a pipe nobody reads holds no caller): a line that finds
// its bounded queue (8,192 lines) full is dropped and counted, and one that cannot be written is
// counted (failedWrites()). "async:DEST" is accepted and writes to DEST through that same queue.
// A replaced destination is flushed and closed by that thread, after the lines queued for it, even
// when a request let go of it last. At normal exit every selected line is written, even of a
// provider that is never destroyed.
//
// Ownership: the provider keeps one canceller per key and shares its settings and destination
// with the continuations of requests still pending, so a request that completes after the
// provider is gone is still logged. Threads: any number of threads may call deliver() at once,
// while the configuration delivers settings on its own threads; a line is formatted on the thread
// that completes the request and written on the provider's writer thread. When the destructor returns, no
// configuration callback of this provider is running or will run.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Export.h"
#include "framework/Configuration.h"
#include "framework/ReactiveStreams.h"
#include "framework/ServiceProvider.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT AccessLogServiceProvider : public connector::ServiceProvider {
 public:
  // Opens the default destination (stdout), writes the seven defaults into `configuration` and
  // subscribes to the seven keys. `configuration` may be null. Exceptions of the configuration
  // reach the caller, after the subscriptions made so far have been cancelled.
  AccessLogServiceProvider(std::shared_ptr<configuration::Configuration> configuration,
                           const std::string& name);

  // Cancels the subscriptions, waiting for callbacks that other threads are running.
  ~AccessLogServiceProvider() override;

  // Passes `message` and `address` on through context->forward() and returns at once (see
  // above). An empty `message` throws std::bad_typeid before anything else happens.
  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override;

  // Lines that could not be written (the destination failed), since construction.
  std::uint64_t failedWrites() const noexcept;

  // Lines since construction. Once flush() has returned, selected = written + dropped + failed
  // for the lines selected before it was called.
  struct LineCounts {
    std::uint64_t selected = 0;     // chosen by the settings
    std::uint64_t selectedOut = 0;  // numbered (delivered while enabled), completed, not chosen
    std::uint64_t written = 0;      // handed to the destination
    std::uint64_t dropped = 0;      // found the writer's queue full
    std::uint64_t failed = 0;       // as failedWrites()
  };
  LineCounts lineCounts() const noexcept;

  // Waits until every line selected before the call is written, dropped or counted as failed.
  // Blocks for as long as the destination does; for tests, tools and orderly shutdown, not for
  // the request path.
  void flush() const;

 private:
  struct Core;

  // Declared before cancellers so that, should the constructor fail, the cancellers (whose
  // destruction waits for running callbacks) go first.
  const std::shared_ptr<Core> core_;
  std::vector<std::shared_ptr<reactive_streams::Canceller>> cancellers_;
};

}  // namespace common_services
}  // namespace connector
