// Logging service: passes every request on along the delivery chain and, for the requests its
// settings select, writes a request line before passing it on and a response line (or an
// exception line) with the elapsed time once the answer has come.
//
// Settings: three configuration keys formed from the provider's name, NAME.filter (a string:
// log only messages whose type name begins with it), NAME.prefix (a string that starts every
// line) and NAME.enabled (a bool: log at all). The constructor writes their defaults (empty,
// empty, true) under the label "default" and then follows every value the configuration
// delivers for them; a value of any other alternative is refused with boost::bad_get and leaves
// the setting as it was. With a null configuration the defaults stay for the provider's life.
//
// Ownership: the stream is not owned and must outlive the provider. The provider keeps one
// canceller per key, so its subscriptions end with it; it keeps neither the configuration nor its
// name.
//
// Threads: any number of threads may call deliver() at once, while the configuration delivers
// new settings on its own threads. Each line reaches the stream whole, written under a lock of
// the provider, so lines of concurrent requests never mix; nothing else may write to the stream
// or change its format while deliver() runs. A logged request blocks its caller until the
// context's answer settles, holding no lock meanwhile. When the destructor returns, no
// configuration callback of this provider is running or will run.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"
#include "framework/Configuration.h"
#include "framework/ReactiveStreams.h"
#include "framework/ServiceProvider.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT LoggingServiceProvider : public connector::ServiceProvider {
 public:
  // Writes the three defaults into `configuration` and subscribes to the three keys, in the
  // order filter, prefix, enabled. `configuration` may be null. Exceptions of the configuration
  // reach the caller, after the subscriptions made so far have been cancelled.
  LoggingServiceProvider(std::shared_ptr<configuration::Configuration> configuration, const std::string& name,
                         std::ostream& stream);

  // Cancels the subscriptions, in the order filter, prefix, enabled, and waits for callbacks that
  // other threads are running.
  ~LoggingServiceProvider() override;

  // Passes `message` and `address` on through context->forward().
  //
  // Not selected (logging off, or the message's type name does not begin with the filter): returns
  // the context's future unchanged; an exception of forward() leaves here.
  //
  // Selected: numbers the request, writes its request line, waits for the answer with get() and
  // returns a future that is already settled: Resolved with the response after a response line,
  // or Rejected with the failure after an exception line. Only a failure to write the request
  // line or the exception line leaves here as an exception.
  //
  // Precondition: `context` is not null, since every request goes on through it. An empty
  // `message` throws std::bad_typeid before anything else happens; then a null `context` throws
  // std::invalid_argument, before a request number is taken or a line written; in both cases the
  // message stays with the caller.
  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override;

 private:
  struct Settings;
  struct Line;
  friend struct LoggingServiceProviderPeer;  // lets tests set requestCount near its wrap

  // The readable name of the message's dynamic type, without a leading "class ". The view stays
  // valid for the life of the process. Throws std::bad_typeid for an empty pointer.
  static std::string_view messageTypeName(const std::unique_ptr<Message>& message);

  double millisecondsSinceStart(std::chrono::system_clock::time_point now) const;
  // Writes the lines whole, one after the other, under streamMutex.
  void write(const Line* lines, std::size_t count);

  std::ostream& stream;
  std::atomic<std::uint32_t> requestCount{0};  // the next request number
  const std::chrono::system_clock::time_point startTime;
  // filter, prefix and enabled: replaced by the configuration callbacks, read by deliver()
  // without a lock. Declared before cancellers so that, should the constructor fail, the
  // cancellers (whose destruction waits for running callbacks) go first.
  const std::unique_ptr<Settings> settings;
  std::vector<std::shared_ptr<reactive_streams::Canceller>> cancellers;
  std::mutex streamMutex;  // held while a line is written to stream
};

}  // namespace common_services
}  // namespace connector
