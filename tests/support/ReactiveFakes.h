// A fake subscription, for tests of subscribers and of the code that subscribes: it runs a hook
// for every request(n) and cancel() it receives. The hooks are set before the fake is shared and
// run on the calling thread, so a hook may call back into the subscriber (for example complete it
// from inside cancel()).
#pragma once

#include <cstdint>
#include <functional>

#include "framework/ReactiveStreams.h"

namespace connector {
namespace test_support {

struct FakeSubscription : reactive_streams::Subscription {
  std::function<void(std::uint64_t)> onRequest;
  std::function<void()> onCancel;

  void request(std::uint64_t count) override { onRequest ? onRequest(count) : void(); }
  void cancel() override { onCancel ? onCancel() : void(); }
};

}  // namespace test_support
}  // namespace connector
