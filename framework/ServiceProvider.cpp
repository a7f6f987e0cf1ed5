#include "framework/ServiceProvider.h"

namespace connector {
namespace common {

Lifecycle::Lifecycle() noexcept = default;
Lifecycle::~Lifecycle() = default;
void Lifecycle::start() {}
void Lifecycle::stop() {}

}  // namespace common

Message::~Message() = default;
Context::~Context() = default;
ServiceProvider::ServiceProvider() noexcept = default;
ServiceProvider::~ServiceProvider() = default;

}  // namespace connector
