// What the fuzzers' models (fuzz/FutureFuzzer.cpp, fuzz/CallbackSubscriberFuzzer.cpp) cannot
// reach: allocation failures and empty exceptions in the promise and future shared state, the
// destruction of a callback subscriber that has no canceller, and its cancel() against callbacks
// running on other threads. Blocked get() calls
// woken from another thread are the stress test's (tests/stress/StressTest.cpp).
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "framework/CallbackSubscriber.h"
#include "framework/Future.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/ReactiveFakes.h"

namespace connector {
namespace {

using MessagePtr = std::unique_ptr<Message>;

// A failed allocation of the box leaves the state Pending and the value with the caller; a
// rejection with an empty exception is reported by get() as a runtime_error.
TEST(SharedFutureState, FailuresLeaveTheStateAsItWas) {
  test_support::NoAllocationFailureOnExit disarm;
  Promise<MessagePtr> promise;
  MessagePtr value = std::make_unique<test_support::CountedMessage>();
  test_support::failAllocation(1);
  EXPECT_THROW(promise.resolve(std::move(value)), std::bad_alloc);
  EXPECT_NE(value, nullptr);
  test_support::failAllocation(1);
  EXPECT_THROW(promise.reject(std::make_exception_ptr(std::bad_exception())), std::bad_alloc);
  EXPECT_EQ(promise.state->status.load(), detail::Status::Pending);
  EXPECT_THROW(makeRejectedFuture<bool>(std::exception_ptr()).get(), std::runtime_error);
}

// Destroying an active subscriber (here with no canceller) cancels it: its Future says false and
// its live subscription is cancelled.
TEST(CallbackSubscriber, DestructionCancels) {
  auto subscription = std::make_shared<test_support::FakeSubscription>();
  int cancels = 0;
  subscription->onCancel = [&] { ++cancels; };
  auto subscriber = std::make_shared<reactive_streams::CallbackSubscriber<int>>([](int&&) {});
  Future<bool> future = subscriber->getFuture();
  subscriber->onSubscribe(subscription);
  subscriber.reset();
  EXPECT_FALSE(future.get());
  EXPECT_EQ(cancels, 1);
}

// A subscriber attached to a publisher, with its canceller, as the configuration
// binding uses them; values go to `callback`.
struct Stream {
  std::function<void(int)> callback;
  std::shared_ptr<test_support::FakePublisher<int>> publisher =
      std::make_shared<test_support::FakePublisher<int>>();
  std::shared_ptr<reactive_streams::CallbackSubscriber<int>> subscriber =
      reactive_streams::subscribeCallback<int>(publisher, [this](int&& value) { callback(value); });
  std::shared_ptr<reactive_streams::Canceller> canceller = reactive_streams::makeCanceller(subscriber);
};

// Two threads inside the callback both cancel: neither may wait for the other (this once
// deadlocked), while a third thread's cancel() waits for both to leave, and so for every callback
// in flight.
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
}  // namespace connector
