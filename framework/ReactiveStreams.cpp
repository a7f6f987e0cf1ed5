#include "framework/ReactiveStreams.h"

namespace connector {
namespace reactive_streams {

Subscription::~Subscription() = default;
Subscriber::Subscriber() noexcept = default;
Subscriber::~Subscriber() = default;
Canceller::Canceller() noexcept = default;
Canceller::~Canceller() = default;

}  // namespace reactive_streams
}  // namespace connector
