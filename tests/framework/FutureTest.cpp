#include "framework/Future.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"

namespace connector {
namespace {

using detail::SharedFutureState;
using detail::Status;
using test_support::CountedMessage;
using MessagePtr = std::unique_ptr<Message>;

const std::string kRetrieved = "Future already returned it's value or has an associated continuation.";
const std::string kCancelled = "Future has been cancelled.";

MessagePtr message(std::string text) {
  return std::make_unique<CountedMessage>(std::move(text));
}

// The what() of the exception `f` throws, or "<nothing thrown>".
std::string errorText(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "<nothing thrown>";
}

// What get() gives: the message's text, or the what() of what it throws.
std::string outcome(Future<MessagePtr>& future) {
  std::string text;
  const std::string error = errorText([&] { text = static_cast<CountedMessage&>(*future.get()).text(); });
  return text.empty() ? error : text;
}

// A promise and its future; the promise sits behind a pointer so that an ending can break it.
struct Pair {
  std::unique_ptr<Promise<MessagePtr>> promise = std::make_unique<Promise<MessagePtr>>();
  Future<MessagePtr> future = promise->getFuture();
};

// The four ways a Pending state ends, each with what get() gives afterwards.
struct Ending {
  std::string outcome;
  std::function<void(Pair&)> run;
};
const Ending kEndings[] = {
    {"value", [](Pair& p) { p.promise->resolve(message("value")); }},
    {"std::bad_exception", [](Pair& p) { p.promise->reject(std::make_exception_ptr(std::bad_exception())); }},
    {"Promise destroyed before it provided a value.", [](Pair& p) { p.promise.reset(); }},
    {kCancelled, [](Pair& p) { EXPECT_TRUE(p.future.cancel()); }},
};

// Returns once a get() on another thread waits: get() marks the value as retrieved and keeps the
// lock until it waits, so seeing the mark under the lock means it waits.
void awaitBlockedGet(SharedFutureState<MessagePtr>& state) {
  for (std::unique_lock<std::mutex> lock(state.mutex); !state.valueRetrieved; lock.lock()) {
    lock.unlock();
    std::this_thread::yield();
  }
}

// However the consumer waits (in get() on another thread, with a continuation attached first, or
// with one attached after the end), every ending reaches it once: a second get() or then() is
// refused meanwhile, a continuation gets a Future of its own, and a cancel drops a continuation
// unrun. Nothing leaves the end: a late resolve or reject is refused, or on Cancelled ignored with
// the value left to the caller, and neither cancel nor the promise's destruction changes it.
TEST(SharedFutureState, EveryEndingReachesTheConsumerOnceAndIsFinal) {
  enum Wait { kGet, kThenFirst, kThenLate };
  for (int round = 0; round < 200; ++round) {
    for (Wait wait : {kGet, kThenFirst, kThenLate}) {
      for (const Ending& ending : kEndings) {
        SCOPED_TRACE(ending.outcome + ", waiting in mode " + std::to_string(wait));
        Pair pair;
        std::string seen = "<not run>";
        auto attach = [&] {
          pair.future.then([&, guard = message("guard")](Future<MessagePtr> own) { seen = outcome(own); });
        };
        std::thread consumer;
        if (wait == kGet) {
          consumer = std::thread([&] { seen = outcome(pair.future); });
          awaitBlockedGet(*pair.future.state);
        } else if (wait == kThenFirst) {
          attach();
        }
        if (wait != kThenLate) {
          ASSERT_EQ(errorText([&] { pair.future.get(); }), kRetrieved);
          ASSERT_EQ(errorText(attach), kRetrieved);
        }
        ending.run(pair);
        if (wait == kGet) {
          consumer.join();
        } else if (wait == kThenLate) {
          attach();
        }
        const bool dropped = ending.outcome == kCancelled && wait != kGet;
        ASSERT_EQ(seen, dropped ? "<not run>" : ending.outcome);

        SharedFutureState<MessagePtr>& state = *pair.future.state;
        const Status settled = state.status.load();
        const std::string refusal =
            ending.outcome == kCancelled ? "<nothing thrown>" : "Promise already resolved.";
        MessagePtr late = message("late");
        ASSERT_EQ(errorText([&] { state.resolve(std::move(late)); }), refusal);
        ASSERT_EQ(errorText([&] { state.reject(std::make_exception_ptr(std::bad_exception())); }), refusal);
        ASSERT_NE(late, nullptr) << "a refused or ignored value stays with the caller";
        ASSERT_FALSE(pair.future.cancel());
        pair.promise.reset();
        ASSERT_EQ(state.status.load(), settled);
        ASSERT_EQ(outcome(pair.future), dropped ? kCancelled : kRetrieved);
        ASSERT_EQ(CountedMessage::alive(), 1)
            << "only `late` is left: a continuation is gone once it ran or was dropped";
      }
    }
  }
}

// A future over a fresh state forced into `status` without a box, as no promise could leave it.
Future<bool> forcedInto(Status status) {
  auto state = std::make_shared<SharedFutureState<bool>>();
  state->status = status;
  return Future<bool>(state);
}

// Every misuse and every unusable state is reported with its own text, and a continuation's
// exception leaves the call that ran it. Moved-from handles are unusable, and a promise replaced
// by assignment is broken.
TEST(PromiseAndFuture, EachFailureIsReportedWithItsOwnText) {
  auto throwing = [](Future<bool>) { throw std::logic_error("continuation failed"); };
  Promise<MessagePtr> moved;
  Promise<MessagePtr> owner(std::move(moved));
  Future<MessagePtr> replaced = owner.getFuture();
  owner = Promise<MessagePtr>();
  Future<MessagePtr> first = owner.getFuture();
  Future<MessagePtr> movedTo(std::move(first));
  Promise<bool> settling;
  settling.getFuture().then(throwing);
  Future<bool> ignored = makeResolvedFuture(true);
  ignored.then([](Future<bool>) {});  // counts as retrieved though it took nothing
  const std::pair<std::string, std::function<void()>> cases[] = {
      // in this order
      {"Promise state isn't valid!", [&] { moved.getFuture(); }},
      {"Promise state isn't valid!", [&] { moved.resolve(message("x")); }},
      {"Promise state isn't valid!", [&] { moved.reject(nullptr); }},
      {"Promise destroyed before it provided a value.", [&] { replaced.get(); }},
      {kRetrieved, [&] { replaced.then([](Future<MessagePtr>) {}); }},
      {kRetrieved, [&] { ignored.get(); }},
      {"Promise already returned a future.", [&] { owner.getFuture(); }},
      {"Future state isn't valid!", [&] { first.get(); }},
      {"Future state isn't valid!", [&] { first.then([](Future<MessagePtr>) {}); }},
      {"Future state isn't valid!", [&] { first.cancel(); }},
      {"Future state isn't valid!", [] { Future<bool>(nullptr).get(); }},
      {"Invalid Future state reached.", [] { forcedInto(static_cast<Status>(7)).get(); }},
      {"Invalid Future state reached.", [] { forcedInto(Status::Resolved).get(); }},
      {"Future was rejected with an empty std::exception_ptr; reject with a pointer that holds an exception.",
       [] { makeRejectedFuture<bool>(std::exception_ptr()).get(); }},
      {"continuation failed", [&] { makeResolvedFuture(true).then(throwing); }},
      {"continuation failed", [&] { settling.resolve(true); }},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(errorText(cases[i].second), cases[i].first) << "case " << i << " of the table, counted from 0";
  }
  owner.resolve(message("value"));
  EXPECT_EQ(outcome(movedTo), "value");
  EXPECT_FALSE(Future<bool>(nullptr).isValid()) << "a handle over no state reported itself valid";
}

// get() throws the stored exception object itself; a stored std::exception_ptr object is
// unwrapped once, so one nested deeper arrives as a std::exception_ptr.
TEST(FutureGet, RethrowsTheStoredExceptionItselfUnwrappingOnePointerLevel) {
  const std::exception_ptr stored = std::make_exception_ptr(std::runtime_error("stored"));
  auto thrownBy = [](Future<bool> future) {
    try {
      future.get();
    } catch (const std::runtime_error&) {
      return std::current_exception();
    }
    return std::exception_ptr();
  };
  Promise<bool> promise;
  Future<bool> rejected = promise.getFuture();
  promise.reject(stored);
  EXPECT_EQ(thrownBy(std::move(rejected)), stored);
  EXPECT_EQ(thrownBy(makeRejectedFuture<bool>(stored)), stored);
  EXPECT_THROW(makeRejectedFuture<bool>(std::make_exception_ptr(stored)).get(), std::exception_ptr);
}

TEST(SharedFutureState, AFailedBoxAllocationLeavesItPendingAndTheValueWithTheCaller) {
  test_support::NoAllocationFailureOnExit disarm;
  Pair pair;
  MessagePtr value = message("value");
  test_support::failAllocation(1);
  EXPECT_THROW(pair.promise->resolve(std::move(value)), std::bad_alloc);
  EXPECT_NE(value, nullptr);
  const std::exception_ptr error = std::make_exception_ptr(std::runtime_error("x"));
  test_support::failAllocation(1);
  EXPECT_THROW(pair.promise->reject(error), std::bad_alloc);
  EXPECT_EQ(pair.future.state->status.load(), Status::Pending);
}

}  // namespace
}  // namespace connector
