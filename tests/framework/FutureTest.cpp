#include "framework/Future.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"

namespace {

using connector::Future;
using connector::makeRejectedFuture;
using connector::makeResolvedFuture;
using connector::Message;
using connector::Promise;
using connector::detail::SharedFutureState;
using connector::detail::Status;
using connector::testing::CountedMessage;
using MessagePtr = std::unique_ptr<Message>;

struct Marker {
  int id;
};

// The what() of the std::runtime_error that `f` throws; any other exception fails the test.
template <typename F>
std::string errorText(F&& f) {
  try {
    f();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

// What get() gives: the message's text or, for an exception, its what().
std::string outcome(Future<MessagePtr>& future) {
  try {
    MessagePtr message = future.get();
    return message ? static_cast<CountedMessage&>(*message).text() : "<empty>";
  } catch (const std::exception& e) {
    return e.what();
  }
}

MessagePtr message(std::string text) {
  return std::make_unique<CountedMessage>(std::move(text));
}

// Returns once a get() on another thread is waiting on `state`. get() marks the value as
// retrieved and keeps the lock until it waits, so seeing the mark under the lock means it waits.
template <typename T>
void awaitBlockedGet(SharedFutureState<T>& state) {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(state.mutex);
      if (state.valueRetrieved) {
        return;
      }
    }
    std::this_thread::yield();
  }
}

Status statusOf(Future<MessagePtr>& future) {
  return future.state->status.load();
}

// The ways a Pending state can end, each applied through the public API.
enum class Ending { Resolve, Reject, Break, Cancel };

void end(Ending ending, std::unique_ptr<Promise<MessagePtr>>& promise, Future<MessagePtr>& future) {
  switch (ending) {
    case Ending::Resolve:
      promise->resolve(message("value"));
      break;
    case Ending::Reject: {
      // Made first, so that the argument's copy (which shares its text with the stored
      // exception) is gone before another thread can read that text.
      std::exception_ptr failure = std::make_exception_ptr(std::runtime_error("failure"));
      promise->reject(std::move(failure));
      break;
    }
    case Ending::Break:
      promise.reset();
      break;
    case Ending::Cancel:
      ASSERT_TRUE(future.cancel());
      break;
  }
}

const char* expectedOutcome(Ending ending) {
  switch (ending) {
    case Ending::Resolve:
      return "value";
    case Ending::Reject:
      return "failure";
    case Ending::Break:
      return "Promise destroyed before it provided a value.";
    case Ending::Cancel:
      return "Future has been cancelled.";
  }
  return "";
}

TEST(FutureGet, EveryEndingOnAnotherThreadWakesABlockedGet) {
  for (int round = 0; round < 200; ++round) {
    for (Ending ending : {Ending::Resolve, Ending::Reject, Ending::Break, Ending::Cancel}) {
      auto promise = std::make_unique<Promise<MessagePtr>>();
      Future<MessagePtr> future = promise->getFuture();
      std::string seen;
      std::thread consumer([&] { seen = outcome(future); });
      awaitBlockedGet(*future.state);
      end(ending, promise, future);
      consumer.join();
      EXPECT_EQ(seen, expectedOutcome(ending));
    }
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(FutureGet, ASecondGetFailsEvenWhileTheFirstIsStillBlocked) {
  Promise<bool> promise;
  Future<bool> future = promise.getFuture();
  bool value = false;
  std::thread consumer([&] { value = future.get(); });
  awaitBlockedGet(*future.state);
  EXPECT_EQ(errorText([&] { future.get(); }),
            "Future already returned it's value or has an associated continuation.");
  promise.resolve(true);
  consumer.join();
  EXPECT_TRUE(value);
  EXPECT_EQ(errorText([&] { future.get(); }),
            "Future already returned it's value or has an associated continuation.");
  EXPECT_TRUE(future.isValid());
}

TEST(PromiseGetFuture, HandsOutOneFutureOnly) {
  Promise<bool> promise;
  Future<bool> first = promise.getFuture();
  EXPECT_EQ(errorText([&] { promise.getFuture(); }), "Promise already returned a future.");
  promise.resolve(true);
  EXPECT_TRUE(first.get());
}

// Resolved, Rejected and Cancelled are final: resolve and reject are refused (or, on Cancelled,
// ignored with the argument left to the caller), cancel changes nothing, and neither does the
// promise's destruction.
TEST(SharedFutureState, NoEventLeavesASettledState) {
  for (Ending ending : {Ending::Resolve, Ending::Reject, Ending::Break, Ending::Cancel}) {
    SCOPED_TRACE(expectedOutcome(ending));
    auto promise = std::make_unique<Promise<MessagePtr>>();
    Future<MessagePtr> future = promise->getFuture();
    end(ending, promise, future);
    const Status settled = statusOf(future);
    const bool cancelled = ending == Ending::Cancel;

    MessagePtr late = message("late");
    auto lateError = std::make_exception_ptr(std::runtime_error("late"));
    auto& state = *future.state;
    const std::string refusal = cancelled ? "<nothing thrown>" : "Promise already resolved.";
    EXPECT_EQ(errorText([&] { state.resolve(std::move(late)); }), refusal);
    EXPECT_EQ(errorText([&] { state.reject(lateError); }), refusal);
    if (promise) {
      EXPECT_EQ(errorText([&] { promise->resolve(std::move(late)); }), refusal);
      EXPECT_EQ(errorText([&] { promise->reject(lateError); }), refusal);
    }
    ASSERT_NE(late, nullptr) << "a refused or ignored value stays with the caller";
    EXPECT_FALSE(future.cancel());
    promise.reset();

    EXPECT_EQ(statusOf(future), settled);
    EXPECT_EQ(outcome(future), expectedOutcome(ending));
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(PromiseAndFuture, HandlesWithoutAUsableStateAreRefused) {
  Promise<bool> promise;
  Promise<bool> promiseOwner(std::move(promise));
  EXPECT_FALSE(promise.isValid());
  for (auto use :
       std::vector<std::function<void()>>{[&] { promise.getFuture(); }, [&] { promise.resolve(true); },
                                          [&] { promise.reject(std::make_exception_ptr(Marker{1})); }}) {
    EXPECT_EQ(errorText(use), "Promise state isn't valid!");
  }

  Future<bool> future = promiseOwner.getFuture();
  Future<bool> futureOwner(std::move(future));
  Future<bool> overNothing(nullptr);
  EXPECT_FALSE(future.isValid());
  for (Future<bool>* unusable : {&future, &overNothing}) {
    EXPECT_EQ(errorText([&] { unusable->get(); }), "Future state isn't valid!");
    EXPECT_EQ(errorText([&] { unusable->then([](Future<bool>) {}); }), "Future state isn't valid!");
    EXPECT_EQ(errorText([&] { unusable->cancel(); }), "Future state isn't valid!");
  }

  Future<bool> assigned = makeResolvedFuture(false);
  assigned = std::move(futureOwner);
  EXPECT_FALSE(futureOwner.isValid());
  promiseOwner.resolve(true);
  EXPECT_TRUE(assigned.get());
}

TEST(BrokenPromise, AnUnsettledPromiseDestroyedRejectsItsFuture) {
  Future<bool> broken = Promise<bool>().getFuture();
  try {
    broken.get();
    ADD_FAILURE() << "get() returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Promise destroyed before it provided a value.");
  }

  auto settled = std::make_unique<Promise<bool>>();
  Future<bool> kept = settled->getFuture();
  settled->resolve(true);
  settled.reset();
  EXPECT_TRUE(kept.get());

  Promise<bool> promise;
  Future<bool> replaced = promise.getFuture();
  promise = Promise<bool>();
  EXPECT_EQ(errorText([&] { replaced.get(); }), "Promise destroyed before it provided a value.");
}

TEST(FutureGet, RethrowsTheStoredExceptionObjectItself) {
  std::exception_ptr stored = std::make_exception_ptr(Marker{7});
  const Marker* original = nullptr;
  try {
    std::rethrow_exception(stored);
  } catch (const Marker& m) {
    original = &m;
  }
  Promise<bool> promise;
  Future<bool> future = promise.getFuture();
  promise.reject(stored);
  try {
    future.get();
    ADD_FAILURE() << "get() returned";
  } catch (const Marker& m) {
    EXPECT_EQ(&m, original);
  }
}

// A stored std::exception_ptr object is unwrapped once, so what was in flight is rethrown; a
// pointer nested deeper arrives as a std::exception_ptr.
TEST(FutureGet, UnwrapsExactlyOneLevelOfAStoredExceptionPointer) {
  std::exception_ptr inFlight = std::make_exception_ptr(Marker{3});
  auto expectMarker = [](Future<bool> future) {
    try {
      future.get();
      ADD_FAILURE() << "get() returned";
    } catch (const Marker& m) {
      EXPECT_EQ(m.id, 3);
    }
  };
  expectMarker(makeRejectedFuture<bool>(inFlight));
  Promise<bool> promise;
  Future<bool> future = promise.getFuture();
  promise.reject(std::make_exception_ptr(inFlight));
  expectMarker(std::move(future));

  try {
    makeRejectedFuture<bool>(std::make_exception_ptr(inFlight)).get();
    ADD_FAILURE() << "get() returned";
  } catch (const std::exception_ptr& nested) {
    EXPECT_EQ(nested, inFlight);
  }
}

TEST(FutureGet, AnEmptyExceptionPointerIsReportedInsteadOfRethrown) {
  const std::string report =
      "Future was rejected with an empty std::exception_ptr; reject with a pointer that holds an "
      "exception.";
  Promise<bool> promise;
  Future<bool> future = promise.getFuture();
  promise.reject(nullptr);
  EXPECT_EQ(errorText([&] { future.get(); }), report);
  EXPECT_EQ(errorText([] { makeRejectedFuture<bool>(std::exception_ptr()).get(); }), report);
}

TEST(FutureGet, AStateOutsideTheFourStatusesIsReported) {
  Promise<bool> unknownCode;
  Future<bool> future = unknownCode.getFuture();
  future.state->status = static_cast<Status>(7);
  EXPECT_EQ(errorText([&] { future.get(); }), "Invalid Future state reached.");

  Promise<bool> withoutBox;
  Future<bool> boxless = withoutBox.getFuture();
  boxless.state->status = Status::Resolved;
  EXPECT_EQ(errorText([&] { boxless.get(); }), "Invalid Future state reached.");
}

TEST(FutureCancel, CancelsOnlyAPendingStateAndDropsItsContinuationUnrun) {
  Promise<MessagePtr> promise;
  Future<MessagePtr> future = promise.getFuture();
  bool ran = false;
  future.then([&ran, guard = message("guard")](Future<MessagePtr>) { ran = true; });
  ASSERT_EQ(CountedMessage::alive(), 1);
  EXPECT_TRUE(future.cancel());
  EXPECT_FALSE(ran);
  EXPECT_EQ(CountedMessage::alive(), 0) << "the continuation is destroyed at once";
  EXPECT_FALSE(future.cancel());
  EXPECT_EQ(outcome(future), "Future has been cancelled.");

  Future<bool> settled = makeResolvedFuture(true);
  EXPECT_FALSE(settled.cancel());
  EXPECT_TRUE(settled.get());
}

TEST(FutureCancel, RacesWithSettlingLeaveOneConsistentOutcome) {
  for (int round = 0; round < 300; ++round) {
    for (Ending ending : {Ending::Resolve, Ending::Break}) {
      auto promise = std::make_unique<Promise<MessagePtr>>();
      Future<MessagePtr> future = promise->getFuture();
      std::atomic<int> ready{0};
      bool cancelled = false;
      std::thread canceller([&] {
        ready.fetch_add(1);
        while (ready.load() < 2) {
          std::this_thread::yield();
        }
        cancelled = future.cancel();
      });
      ready.fetch_add(1);
      while (ready.load() < 2) {
        std::this_thread::yield();
      }
      MessagePtr value = message("value");
      if (ending == Ending::Resolve) {
        promise->resolve(std::move(value));
      } else {
        promise.reset();
      }
      canceller.join();
      EXPECT_EQ(outcome(future), cancelled ? expectedOutcome(Ending::Cancel) : expectedOutcome(ending));
      EXPECT_EQ(value != nullptr, cancelled || ending == Ending::Break);
    }
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(FutureThen, AnAttachedContinuationRunsOnTheSettlingThreadAndMayGet) {
  for (Ending ending : {Ending::Resolve, Ending::Reject, Ending::Break}) {
    auto promise = std::make_unique<Promise<MessagePtr>>();
    Future<MessagePtr> future = promise->getFuture();
    std::thread::id ranOn;
    std::string seen;
    future.then([&](Future<MessagePtr> handed) {
      ranOn = std::this_thread::get_id();
      seen = outcome(handed);
    });
    EXPECT_EQ(errorText([&] { future.get(); }),
              "Future already returned it's value or has an associated continuation.");
    std::thread settler([&] { end(ending, promise, future); });
    const std::thread::id settlerId = settler.get_id();
    settler.join();
    EXPECT_EQ(ranOn, settlerId);
    EXPECT_EQ(seen, expectedOutcome(ending));
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(FutureThen, OnASettledStateRunsAtOnceAndCountsAsRetrieved) {
  Future<bool> future = makeResolvedFuture(true);
  bool seen = false;
  future.then([&](Future<bool> handed) { seen = handed.get(); });
  EXPECT_TRUE(seen);
  EXPECT_EQ(errorText([&] { future.get(); }),
            "Future already returned it's value or has an associated continuation.");
}

TEST(FutureThen, IsRefusedAfterGetOrWhileAContinuationIsAttached) {
  const std::string refusal = "Future already returned it's value or has an associated continuation.";
  bool ran = false;
  auto recorder = [&ran] { return [&ran, guard = message("guard")](Future<bool>) { ran = true; }; };

  Future<bool> gotten = makeResolvedFuture(true);
  gotten.get();
  EXPECT_EQ(errorText([&] { gotten.then(recorder()); }), refusal);

  Promise<bool> promise;
  Future<bool> future = promise.getFuture();
  future.then([](Future<bool>) {});
  EXPECT_EQ(errorText([&] { future.then(recorder()); }), refusal);
  EXPECT_FALSE(ran);
  EXPECT_EQ(CountedMessage::alive(), 0) << "a refused continuation is destroyed";
}

TEST(FutureThen, OnACancelledStateTheContinuationIsDestroyedUnrun) {
  Promise<MessagePtr> promise;
  Future<MessagePtr> future = promise.getFuture();
  future.cancel();
  bool ran = false;
  future.then([&ran, guard = message("guard")](Future<MessagePtr>) { ran = true; });
  EXPECT_FALSE(ran);
  EXPECT_EQ(CountedMessage::alive(), 0);
  EXPECT_EQ(outcome(future), "Future has been cancelled.");
}

TEST(FutureThen, AThrowingContinuationPropagatesOutOfTheSettlingCall) {
  auto throwing = [](Future<bool>) { throw Marker{5}; };
  Promise<bool> resolved;
  resolved.getFuture().then(throwing);
  EXPECT_THROW(resolved.resolve(true), Marker);

  Promise<bool> rejected;
  rejected.getFuture().then(throwing);
  EXPECT_THROW(rejected.reject(std::make_exception_ptr(Marker{1})), Marker);

  EXPECT_THROW(makeResolvedFuture(true).then(throwing), Marker);
}

TEST(SharedFutureState, AMessageStillInTheStateIsDeletedExactlyOnceWithIt) {
  {
    Future<MessagePtr> future = makeResolvedFuture(message("kept"));
    EXPECT_EQ(CountedMessage::alive(), 1);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
  for (bool futureFirst : {true, false}) {
    auto promise = std::make_unique<Promise<MessagePtr>>();
    auto future = std::make_unique<Future<MessagePtr>>(promise->getFuture());
    promise->resolve(message("kept"));
    if (futureFirst) {
      future.reset();
    } else {
      promise.reset();
    }
    EXPECT_EQ(CountedMessage::alive(), 1);
    promise.reset();
    future.reset();
    EXPECT_EQ(CountedMessage::alive(), 0);
  }

  // A state that dies Pending deletes its continuation without running it.
  auto state = std::make_shared<SharedFutureState<MessagePtr>>();
  bool ran = false;
  Future<MessagePtr>(state).then([&ran, guard = message("guard")](Future<MessagePtr>) { ran = true; });
  state.reset();
  EXPECT_FALSE(ran);
  EXPECT_EQ(CountedMessage::alive(), 0);

  MessagePtr taken = makeResolvedFuture(message("taken")).get();
  EXPECT_EQ(CountedMessage::alive(), 1);
  taken.reset();
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(SharedFutureState, AFailedBoxAllocationLeavesItPendingAndTheValueWithTheCaller) {
  connector::testing::NoAllocationFailureOnExit disarm;
  Promise<MessagePtr> promise;
  Future<MessagePtr> future = promise.getFuture();
  MessagePtr value = message("value");
  EXPECT_THROW(
      {
        connector::testing::failAllocation(1);
        promise.resolve(std::move(value));
      },
      std::bad_alloc);
  EXPECT_NE(value, nullptr);
  std::exception_ptr error = std::make_exception_ptr(Marker{2});
  EXPECT_THROW(
      {
        connector::testing::failAllocation(1);
        promise.reject(error);
      },
      std::bad_alloc);
  EXPECT_EQ(statusOf(future), Status::Pending);
  EXPECT_EQ(future.state->value, nullptr);

  promise.resolve(std::move(value));
  EXPECT_EQ(outcome(future), "value");

  for (long failing : {1, 2}) {  // the state, then the box
    MessagePtr ready = message("ready");
    EXPECT_THROW(
        {
          connector::testing::failAllocation(failing);
          makeResolvedFuture(std::move(ready));
        },
        std::bad_alloc);
    EXPECT_NE(ready, nullptr);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

}  // namespace
