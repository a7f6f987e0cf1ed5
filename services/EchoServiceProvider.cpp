#include "services/EchoServiceProvider.h"

namespace connector {
namespace common_services {

EchoServiceProvider::EchoServiceProvider() noexcept = default;
EchoServiceProvider::~EchoServiceProvider() = default;

Future<std::unique_ptr<Message>> EchoServiceProvider::deliver(std::unique_ptr<Message>&& message,
                                                              Address&& /*address*/,
                                                              std::shared_ptr<Context>&& /*context*/) {
  return makeResolvedFuture(std::move(message));
}

}  // namespace common_services
}  // namespace connector
