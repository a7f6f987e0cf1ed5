// What the fuzzers' models (fuzz/FutureFuzzer.cpp, fuzz/CallbackSubscriberFuzzer.cpp) cannot
// reach: allocation failures and empty exceptions in the promise and future shared state, and the
// callback subscriber's cancel() against callbacks running on other threads. Blocked get() calls
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

// A subscriber attached to a recording publisher, with its canceller, as the configuration
// binding uses them; values go to `callback`.
struct Stream {
  std::function<void(int)> callback;
  std::shared_ptr<test_support::FakePublisher<int>> publisher =
      std::make_shared<test_support::FakePublisher<int>>();
  std::shared_ptr<reactive_streams::CallbackSubscriber<int>> subscriber =
      reactive_streams::subscribeCallback<int>(publisher, [this](int&& value) { callback(value); });
  std::shared_ptr<reactive_streams::Canceller> canceller = reactive_streams::makeCanceller(subscriber);
};

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
}  // namespace connector
