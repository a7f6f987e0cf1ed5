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

// A failed allocation of the box leaves the state Pending and the value with the caller (each
// armed failure is used up by the call under test); a rejection with an empty exception is
// reported by get() as a runtime_error.
TEST(SharedFutureState, FailuresLeaveTheStateAsItWas) {
  Promise<std::unique_ptr<Message>> promise;
  std::unique_ptr<Message> value = std::make_unique<test_support::CountedMessage>();
  test_support::failAllocation(1);
  EXPECT_THROW(promise.resolve(std::move(value)), std::bad_alloc);
  EXPECT_NE(value, nullptr);
  test_support::failAllocation(1);
  EXPECT_THROW(promise.reject(std::make_exception_ptr(std::bad_exception())), std::bad_alloc);
  EXPECT_EQ(promise.state->status.load(), detail::Status::Pending);
  EXPECT_THROW(makeRejectedFuture<bool>(std::exception_ptr()).get(), std::runtime_error);
}

// A continuation attached by then() that throws leaves the settling thread, even a breaking
// ~Promise, untouched; a then() that returns a Future is settled with the exception.
TEST(FutureThen, AContinuationsExceptionNeverReachesTheSettler) {
  Promise<bool> resolved;
  resolved.getFuture().then([](Future<bool>) { throw std::logic_error("continuation"); });
  EXPECT_NO_THROW(resolved.resolve(true));
  auto broken = std::make_unique<Promise<bool>>();
  Future<bool> chained = broken->getFuture().then([](Future<bool> f) { return f.get(); });
  broken.reset();
  EXPECT_THROW(
      try { chained.get(); } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Promise destroyed before it provided a value.");
        throw;
      },
      std::runtime_error);
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

// Two threads inside the callback both cancel: neither may wait for the other (this once
// deadlocked), while a third thread's cancel() waits for both to leave, and so for every callback
// in flight.
TEST(CallbackSubscriberRace, CallbacksCancellingOnTwoThreadsDoNotWaitForEachOther) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> inside{0};
    std::promise<void> bothEntered;
    std::shared_future<void> together = bothEntered.get_future().share();
    std::shared_ptr<reactive_streams::CallbackSubscriber<int>> subscriber;
    subscriber = std::make_shared<reactive_streams::CallbackSubscriber<int>>([&](int&&) {
      if (inside.fetch_add(1) == 1) {
        bothEntered.set_value();
      }
      together.wait();
      subscriber->cancel();
      inside.fetch_sub(1);
    });
    std::thread first([&] { subscriber->onNext(0); });
    std::thread second([&] { subscriber->onNext(1); });
    together.wait();
    subscriber->cancel();
    EXPECT_EQ(inside.load(), 0) << "cancel() returned while a callback was running, round " << round;
    first.join();
    second.join();
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace
}  // namespace connector
