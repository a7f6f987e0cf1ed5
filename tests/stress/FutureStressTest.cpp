// Promise/future hand-offs between threads, repeated until the sanitizers have seen every
// interleaving that matters: a consumer blocked in get() while the producer settles, a consumer
// that drops its future while the producer is still waking it, and messages whose destructors
// settle other futures from inside a state's destructor.
#include <gtest/gtest.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/CallbackSubscriber.h"
#include "framework/Future.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/CountedMessage.h"

namespace connector {
namespace {

using testing::CountedMessage;
using testing::stressCount;
using Value = std::unique_ptr<Message>;

// Returns once a get() on `state` has started waiting: get() marks the value as claimed and
// waits without letting go of the mutex in between, so seeing the mark under the mutex means
// the consumer is inside the wait.
template <typename T>
void awaitBlockedGet(detail::SharedFutureState<T>& state) {
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

std::string outcomeOf(Future<Value>& future) {
  try {
    Value value = future.get();
    auto* counted = dynamic_cast<CountedMessage*>(value.get());
    return counted ? "message " + counted->text() : "not the message sent";
  } catch (const std::runtime_error& e) {
    return e.what();
  } catch (...) {
    return "unexpected exception";
  }
}

// Collects mismatches from several threads; a test reports the first and the count.
class Mismatches {
 public:
  void expect(const std::string& expected, const std::string& actual) {
    if (expected == actual) {
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_++ == 0) {
      first_ = "expected \"" + expected + "\", got \"" + actual + "\"";
    }
  }
  int count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  std::string first() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return first_;
  }

 private:
  mutable std::mutex mutex_;
  int count_ = 0;      // guarded by mutex_
  std::string first_;  // guarded by mutex_
};

// One hand-off: the producer's promise, the consumer's future, and a second future over the
// same state through which the producer cancels.
struct Handoff {
  std::optional<Promise<Value>> promise;
  std::optional<Future<Value>> future;
  std::optional<Future<Value>> cancelHandle;
  detail::SharedFutureState<Value>* state = nullptr;
};

enum Settle { kResolve, kReject, kBreak, kCancel, kSettleKinds };

void settle(Handoff& handoff, Settle how, int round) {
  switch (how) {
    case kResolve:
      handoff.promise->resolve(std::make_unique<CountedMessage>(std::to_string(round)));
      break;
    case kReject: {
      // The exception is made in a statement of its own: the temporary it is copied from shares
      // its text with the copy (libstdc++'s runtime_error), and that sharing must end before
      // another thread can see the copy.
      std::exception_ptr error =
          std::make_exception_ptr(std::runtime_error("round " + std::to_string(round)));
      handoff.promise->reject(std::move(error));
      break;
    }
    case kBreak:
      handoff.promise.reset();
      break;
    default:
      handoff.cancelHandle->cancel();
      break;
  }
}

// What the consumer's get() gives after settle(how, round).
std::string expectedOutcome(Settle how, int round) {
  switch (how) {
    case kResolve:
      return "message " + std::to_string(round);
    case kReject:
      return "round " + std::to_string(round);
    case kBreak:
      return "Promise destroyed before it provided a value.";
    default:
      return "Future has been cancelled.";
  }
}

std::vector<Handoff> makeHandoffs(int count) {
  std::vector<Handoff> handoffs(count);
  for (Handoff& handoff : handoffs) {
    handoff.promise.emplace();
    handoff.future.emplace(handoff.promise->getFuture());
    handoff.state = handoff.future->state.get();
    handoff.cancelHandle.emplace(handoff.future->state);
  }
  return handoffs;
}

// Two threads take turns: in each round one blocks in get() and the other, once it is blocked,
// resolves, rejects, breaks or cancels. Every outcome arrives whole, and every message sent is
// deleted once.
TEST(PromiseFutureHandoff, EveryOutcomeReachesAConsumerBlockedInGet) {
  const int roundTrips = stressCount(100000);
  const int batch = 5000;
  const long messagesBefore = CountedMessage::alive();
  Mismatches mismatches;
  for (int first = 0; first < 2 * roundTrips; first += batch) {
    const int rounds = std::min(batch, 2 * roundTrips - first);
    std::vector<Handoff> handoffs = makeHandoffs(rounds);
    auto play = [&](int self) {
      for (int i = 0; i < rounds; ++i) {
        Handoff& handoff = handoffs[i];
        const auto how = static_cast<Settle>((first + i) % kSettleKinds);
        if (i % 2 == self) {
          mismatches.expect(expectedOutcome(how, first + i), outcomeOf(*handoff.future));
        } else {
          awaitBlockedGet(*handoff.state);
          settle(handoff, how, first + i);
        }
      }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
  }
  EXPECT_EQ(mismatches.count(), 0) << mismatches.first();
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);
}

// The consumer lets go of its future as soon as get() returns, and the producer of its promise
// as soon as it has settled, so the state dies on whichever thread is last, possibly while the
// other is still inside its notify. The sanitizers judge; the outcome must still be whole.
TEST(PromiseFutureTeardown, EitherSideMayReleaseTheStateWhileTheOtherIsStillWaking) {
  const int repeats = stressCount(10000);
  const int batch = 2500;
  const long messagesBefore = CountedMessage::alive();
  Mismatches mismatches;
  for (int first = 0; first < repeats; first += batch) {
    const int rounds = std::min(batch, repeats - first);
    std::vector<Handoff> handoffs = makeHandoffs(rounds);
    for (Handoff& handoff : handoffs) {
      handoff.cancelHandle.reset();  // the two sides must be the state's only owners
    }
    std::thread consumer([&] {
      for (int i = 0; i < rounds; ++i) {
        std::string actual;
        {
          Future<Value> future = std::move(*handoffs[i].future);
          actual = outcomeOf(future);
        }  // the future goes here, the moment get() has returned
        mismatches.expect(expectedOutcome(static_cast<Settle>((first + i) % 3), first + i), actual);
      }
    });
    for (int i = 0; i < rounds; ++i) {
      Handoff& handoff = handoffs[i];
      awaitBlockedGet(*handoff.state);
      Handoff local;
      local.promise.emplace(std::move(*handoff.promise));
      handoff.promise.reset();
      settle(local, static_cast<Settle>((first + i) % 3), first + i);
    }  // the promise goes here, right after settling (or, unsettled, breaking the state)
    consumer.join();
  }
  EXPECT_EQ(mismatches.count(), 0) << mismatches.first();
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);
}

// A message that runs an action when it is deleted.
class ActionMessage : public CountedMessage {
 public:
  explicit ActionMessage(std::function<void()> action) : action_(std::move(action)) {}
  ~ActionMessage() override { action_(); }

 private:
  std::function<void()> action_;
};

// Dropping the last future of a state deletes the message inside it. Here that message settles
// the next state of a chain, whose own message settles the next, and the last one wakes a
// thread blocked in get(); another message cancels a callback subscriber that a second thread
// keeps feeding. So states, subscriber and completion are locked from inside a state's
// destructor while other threads take the same locks; ThreadSanitizer reports any lock-order
// inversion, and the chain must still deliver.
TEST(PromiseFutureTeardown, MessagesThatSettleOtherFuturesMayDieInsideAStateDestructor) {
  const int repeats = stressCount(1000);
  const int chain = 8;
  const long messagesBefore = CountedMessage::alive();
  Mismatches mismatches;
  for (int round = 0; round < repeats; ++round) {
    // The chain: promise k is settled by the message held in state k-1. Each promise lives
    // inside the message that settles it, so each state's only owner is the promise that the
    // previous message holds, and the cascade runs inside nested destructors.
    Promise<Value> last;
    Future<Value> end = last.getFuture();
    auto settleLast = std::make_shared<Promise<Value>>(std::move(last));
    std::function<void()> action = [settleLast, round] {
      settleLast->resolve(std::make_unique<CountedMessage>(std::to_string(round)));
    };
    for (int k = 0; k < chain; ++k) {
      auto promise = std::make_shared<Promise<Value>>();
      std::function<void()> next = std::move(action);
      // A state reachable only through its promise: keep the future only long enough to know
      // the state exists, then drop it.
      { Future<Value> ignored = promise->getFuture(); }
      action = [promise, next = std::move(next)] { promise->resolve(std::make_unique<ActionMessage>(next)); };
    }

    auto subscriber = std::make_shared<reactive_streams::CallbackSubscriber<int>>([](int&&) {});
    Future<bool> completion = subscriber->getFuture();
    std::atomic<bool> feeding{true};
    std::thread feeder([&] {
      int value = 0;
      while (feeding.load()) {
        subscriber->onNext(value++);
      }
      subscriber->onComplete();
    });
    std::thread waiter([&] { mismatches.expect("message " + std::to_string(round), outcomeOf(end)); });

    {
      // The chain's actions are moved, never copied, so each promise has exactly one owner.
      Future<Value> head =
          makeResolvedFuture<Value>(std::make_unique<ActionMessage>([action = std::move(action), subscriber] {
            action();
            subscriber->cancel();
          }));
    }  // the head state dies here and with it, one destructor inside another, the whole chain
    waiter.join();
    feeding.store(false);
    feeder.join();
    EXPECT_FALSE(completion.get()) << "the subscriber was cancelled before it could complete";
  }
  EXPECT_EQ(mismatches.count(), 0) << mismatches.first();
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);
}

}  // namespace
}  // namespace connector
