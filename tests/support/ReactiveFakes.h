// Fakes of the reactive-streams interfaces, for tests of subscribers and of the code that
// subscribes.
//
// FakeSubscription runs a hook for every request(n) and cancel() it receives; FakePublisher<T>
// keeps the subscribers handed to subscribe() and sends them values from any thread. Both are
// thread-safe. Their hooks are set before the fake is shared and run on the calling thread with no
// lock of the fake held, so a hook may call back into the subscriber (for example complete it from
// inside cancel()).
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "framework/ReactiveStreams.h"

namespace connector {
namespace test_support {

struct FakeSubscription : reactive_streams::Subscription {
  std::function<void(std::uint64_t)> onRequest;
  std::function<void()> onCancel;

  void request(std::uint64_t count) override { onRequest ? onRequest(count) : void(); }
  void cancel() override { onCancel ? onCancel() : void(); }
};

template <typename T>
class FakePublisher : public reactive_streams::Publisher<T> {
 public:
  using SubscriberPtr = std::shared_ptr<reactive_streams::SubscriberAPI<T>>;

  // When set, subscribe() throws it instead of keeping the subscriber.
  std::exception_ptr subscribeFailure;
  // Run inside subscribe(), after the subscriber has been kept; a publisher that signals
  // onSubscribe synchronously does it here.
  std::function<void(const SubscriberPtr&)> onSubscribed;

  void subscribe(SubscriberPtr subscriber) override {
    subscribeFailure ? std::rethrow_exception(subscribeFailure) : void();
    std::unique_lock<std::mutex> lock(mutex_);
    subscribers_.push_back(subscriber);
    lock.unlock();
    onSubscribed ? onSubscribed(subscriber) : void();
  }

  // Sends a copy of `value` to every subscriber kept now, in order of subscription.
  void publish(const T& value) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::vector<SubscriberPtr> targets = subscribers_;
    lock.unlock();
    for (const SubscriberPtr& each : targets) {
      each->onNext(T(value));
    }
  }

 private:
  std::mutex mutex_;
  std::vector<SubscriberPtr> subscribers_;  // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
