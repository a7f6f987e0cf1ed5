// The callback subscriber's destruction, and its cancel() against callbacks running on other
// threads. Its outcome table on one thread is the fuzzer's model (fuzz/CallbackSubscriberFuzzer.cpp).
#include "framework/CallbackSubscriber.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "tests/support/ReactiveFakes.h"

namespace connector {
namespace reactive_streams {
namespace {

// A subscriber attached to a recording publisher, with its canceller, as the configuration
// binding uses them; values go to `callback`.
struct Stream {
  std::function<void(int)> callback;
  std::shared_ptr<test_support::FakePublisher<int>> publisher =
      std::make_shared<test_support::FakePublisher<int>>();
  std::shared_ptr<CallbackSubscriber<int>> subscriber =
      subscribeCallback<int>(publisher, [this](int&& value) { callback(value); });
  std::shared_ptr<Canceller> canceller = makeCanceller(subscriber);
};

// Destroying an active subscriber cancels it: its Future says false and its live subscription
// is cancelled.
TEST(CallbackSubscriber, DestructionCancels) {
  auto subscription = std::make_shared<test_support::FakeSubscription>();
  auto subscriber = std::make_shared<CallbackSubscriber<int>>([](int&&) {});
  Future<bool> future = subscriber->getFuture();
  subscriber->onSubscribe(subscription);
  subscriber.reset();
  EXPECT_FALSE(future.get());
  EXPECT_EQ(subscription->cancelCount(), 1);
}

// A sender keeps sending while this thread drops the canceller, so cancel() lands anywhere in the
// stream, between onNext's check and the call included; value 1, if it gets in, stays in the
// callback until cancel() has begun. No callback may run once cancel() has returned: `writes` is
// deleted then (ASan), and `inside` is deliberately not atomic (TSan) since only the wait inside
// cancel() orders the callback's last write before this thread's read.
TEST(CallbackSubscriberRace, NoCallbackRunsOnceCancelHasReturned) {
  for (int round = 0; round < 2000; ++round) {
    auto* writes = new std::vector<int>(64);
    bool inside = false;
    std::promise<void> firstSent;
    Stream stream;
    Future<bool> completion = stream.subscriber->getFuture();
    stream.callback = [&](int value) {
      inside = true;
      if (value == 1) {
        completion.get();  // returns once cancel() has settled the Future
      }
      writes->assign(64, value);
      inside = false;
    };
    stream.subscriber.reset();
    std::thread sender([&] {
      stream.publisher->publish(0);
      firstSent.set_value();
      for (int value = 1; value < 50; ++value) {
        stream.publisher->publish(int(value));
      }
    });
    firstSent.get_future().wait();
    stream.canceller.reset();
    EXPECT_FALSE(inside) << "a callback was running after cancel() returned, round " << round;
    delete writes;
    sender.join();
    ASSERT_FALSE(HasFailure());
  }
}

// Two threads inside the callback both cancel: neither may wait for the other (this once
// deadlocked), while a third thread's cancel() waits for both to leave.
TEST(CallbackSubscriberRace, CallbacksCancellingOnTwoThreadsDoNotWaitForEachOther) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> inside{0};
    std::promise<void> bothEntered;
    std::shared_future<void> together = bothEntered.get_future().share();
    Stream stream;
    stream.callback = [&](int) {
      if (inside.fetch_add(1) == 1) {
        bothEntered.set_value();
      }
      together.wait();
      stream.subscriber->cancel();
      inside.fetch_sub(1);
    };
    std::thread first([&] { stream.publisher->publish(0); });
    std::thread second([&] { stream.publisher->publish(1); });
    together.wait();
    stream.subscriber->cancel();
    EXPECT_EQ(inside.load(), 0) << "cancel() returned while a callback was running, round " << round;
    first.join();
    second.join();
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace
}  // namespace reactive_streams
}  // namespace connector
