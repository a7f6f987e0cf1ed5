// Echo service: answers every message with the message itself.
//
// The answer is settled before deliver() returns, so a caller's get() never blocks, and it
// holds the very message object that was delivered (an empty pointer is echoed as empty).
// Owns nothing between calls; any number of threads may call deliver() at once.
#pragma once

#include <memory>

#include "foundation/Export.h"
#include "framework/ServiceProvider.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT EchoServiceProvider : public connector::ServiceProvider {
 public:
  EchoServiceProvider() noexcept;
  ~EchoServiceProvider() override;

  // Moves `message` into an already resolved Future. The address and the context are neither
  // read nor moved from, so the context may be null here; a provider in front of the echo
  // service, such as LoggingServiceProvider, needs a real one. If allocating the answer fails, std::bad_alloc
  // leaves here and the caller still owns the message.
  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override;
};

}  // namespace common_services
}  // namespace connector
