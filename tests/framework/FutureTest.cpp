// The promise and future shared state on more than one thread, and what the fuzzer's model
// (fuzz/FutureFuzzer.cpp) cannot reach: allocation failures and exceptions stored empty.
#include "framework/Future.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"

namespace connector {
namespace {

using detail::Status;
using test_support::CountedMessage;
using MessagePtr = std::unique_ptr<Message>;

// What get() gives: the message's text, or the what() of what it throws.
std::string outcome(Future<MessagePtr>& future) {
  try {
    return static_cast<CountedMessage&>(*future.get()).text();
  } catch (const std::exception& e) {
    return e.what();
  }
}

// Each way a Pending state ends reaches a get() blocked on another thread, once, and is final:
// a late resolve or reject is refused (ignored on Cancelled, the value left to the caller), and
// neither cancel nor the promise's destruction changes it.
TEST(SharedFutureState, EveryEndingReachesABlockedGetAndIsFinal) {
  using Pair = std::pair<std::unique_ptr<Promise<MessagePtr>>, Future<MessagePtr>>;
  const std::pair<std::string, std::function<void(Pair&)>> endings[] = {
      {"value", [](Pair& p) { p.first->resolve(std::make_unique<CountedMessage>("value")); }},
      {"std::bad_exception", [](Pair& p) { p.first->reject(std::make_exception_ptr(std::bad_exception())); }},
      {"Promise destroyed before it provided a value.", [](Pair& p) { p.first.reset(); }},
      {"Future has been cancelled.", [](Pair& p) { Future<MessagePtr>(p.second.state).cancel(); }},
  };
  for (int round = 0; round < 200; ++round) {
    for (const auto& [expected, end] : endings) {
      auto promise = std::make_unique<Promise<MessagePtr>>();
      Future<MessagePtr> future = promise->getFuture();
      Pair pair(std::move(promise), std::move(future));
      std::string seen;
      std::thread consumer([&] { seen = outcome(pair.second); });
      // get() marks the value claimed and waits without letting go of the lock in between.
      for (std::unique_lock<std::mutex> lock(pair.second.state->mutex); !pair.second.state->valueRetrieved;) {
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
      }
      end(pair);
      consumer.join();
      ASSERT_EQ(seen, expected);
      auto& state = *pair.second.state;
      const Status settled = state.status.load();
      const bool cancelled = settled == Status::Cancelled;
      MessagePtr late = std::make_unique<CountedMessage>("late");
      if (cancelled) {
        state.resolve(std::move(late));
      } else {
        ASSERT_THROW(state.resolve(std::move(late)), std::runtime_error);
        ASSERT_THROW(state.reject(std::make_exception_ptr(std::bad_exception())), std::runtime_error);
      }
      ASSERT_NE(late, nullptr) << "a refused or ignored value stays with the caller";
      ASSERT_FALSE(Future<MessagePtr>(pair.second.state).cancel());
      pair.first.reset();
      ASSERT_EQ(state.status.load(), settled);
    }
  }
}

// A failed allocation of the box leaves the state Pending and the value with the caller. An
// empty exception is reported as such, and a handle over no state is not valid.
TEST(SharedFutureState, FailuresLeaveTheStateAsItWas) {
  test_support::NoAllocationFailureOnExit disarm;
  Promise<MessagePtr> promise;
  MessagePtr value = std::make_unique<CountedMessage>();
  test_support::failAllocation(1);
  EXPECT_THROW(promise.resolve(std::move(value)), std::bad_alloc);
  EXPECT_NE(value, nullptr);
  test_support::failAllocation(1);
  EXPECT_THROW(promise.reject(std::make_exception_ptr(std::bad_exception())), std::bad_alloc);
  EXPECT_EQ(promise.state->status.load(), Status::Pending);
  try {
    makeRejectedFuture<bool>(std::exception_ptr()).get();
    ADD_FAILURE() << "an empty exception was not reported";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "Future was rejected with an empty std::exception_ptr; reject with a pointer that holds an "
                 "exception.");
  }
  EXPECT_FALSE(Future<bool>(nullptr).isValid());
}

}  // namespace
}  // namespace connector
