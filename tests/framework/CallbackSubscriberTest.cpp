#include "framework/CallbackSubscriber.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ReactiveFakes.h"

namespace connector {
namespace reactive_streams {
namespace {

using testing::FakePublisher;
using testing::FakeSubscription;

// A subscriber attached to a recording publisher, with its canceller, as the configuration
// binding uses them. Single-threaded tests only: `received` has no lock.
struct Stream {
  explicit Stream(std::function<void(int&&)> callback = nullptr) {
    if (!callback) {
      callback = [this](int&& value) { received.push_back(value); };
    }
    subscriber = subscribeCallback<int>(publisher, callback);
    canceller = makeCanceller(subscriber);
  }

  std::shared_ptr<FakePublisher<int>> publisher = std::make_shared<FakePublisher<int>>();
  std::vector<int> received;
  std::shared_ptr<CallbackSubscriber<int>> subscriber;
  std::shared_ptr<Canceller> canceller;
};

// "true", "false" or "error: <what>", whichever way the Future settled.
std::string outcome(Future<bool>& future) {
  try {
    return future.get() ? "true" : "false";
  } catch (const std::exception& e) {
    return std::string("error: ") + e.what();
  }
}

struct EndEvent {
  const char* name;
  std::function<void(Stream&)> run;
  const char* outcome;  // of the Future, when this event ends the stream first
};

const std::vector<EndEvent>& endEvents() {
  static const std::vector<EndEvent> events = {
      {"onComplete", [](Stream& s) { s.publisher->sendComplete(); }, "true"},
      {"onError",
       [](Stream& s) { s.publisher->sendError(std::make_exception_ptr(std::runtime_error("disk gone"))); },
       "error: disk gone"},
      {"cancel", [](Stream& s) { s.subscriber->cancel(); }, "false"},
      {"Canceller::cancel",
       [](Stream& s) {
         if (s.canceller) {
           s.canceller->cancel();
         }
       },
       "false"},
      {"dropping the canceller", [](Stream& s) { s.canceller.reset(); }, "false"},
  };
  return events;
}

TEST(CallbackSubscriber, AsksForUnboundedDemandOnceWhateverTheNumberOfValues) {
  Stream stream;
  auto subscription = stream.publisher->sendSubscribe();
  for (int i = 0; i < 100; ++i) {
    stream.publisher->sendNext(i);
  }
  EXPECT_EQ(subscription->requests(), std::vector<std::uint64_t>{0xFFFFFFFFFFFFFFFFULL});
  EXPECT_EQ(stream.received.size(), 100u);
  EXPECT_EQ(subscription->cancelCount(), 0);
}

// onNext does not look at the subscription: values arriving before onSubscribe are delivered.
TEST(CallbackSubscriber, CallsTheCallbackExactlyWhileActive) {
  for (const EndEvent& end : endEvents()) {
    SCOPED_TRACE(end.name);
    Stream stream;
    stream.publisher->sendNext(1);
    stream.publisher->sendSubscribe();
    stream.publisher->sendNext(2);
    end.run(stream);
    stream.publisher->sendNext(3);
    EXPECT_EQ(stream.received, (std::vector<int>{1, 2}));
  }
}

TEST(CallbackSubscriber, FutureKeepsTheOutcomeOfTheFirstEndEvent) {
  for (const EndEvent& first : endEvents()) {
    for (const EndEvent& second : endEvents()) {
      SCOPED_TRACE(std::string(first.name) + " then " + second.name);
      Stream stream;
      auto subscription = stream.publisher->sendSubscribe();
      Future<bool> future = stream.subscriber->getFuture();
      first.run(stream);
      second.run(stream);
      EXPECT_EQ(outcome(future), first.outcome);
    }
  }
}

TEST(CallbackSubscriber, EmptyErrorPointerEndsTheStreamWithARejectedFuture) {
  Stream stream;
  Future<bool> future = stream.subscriber->getFuture();
  stream.publisher->sendError(nullptr);
  stream.publisher->sendNext(1);
  EXPECT_TRUE(stream.received.empty());
  EXPECT_THROW(future.get(), std::runtime_error);
}

TEST(CallbackSubscriber, GetFutureHandsOutOneFutureOnly) {
  Stream stream;
  Future<bool> first = stream.subscriber->getFuture();
  try {
    stream.subscriber->getFuture();
    FAIL() << "a second Future was handed out";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Promise already returned a future.");
  }
}

// The upstream subscription is cancelled by the first cancel only: never twice, never after a
// completion or an error, and onComplete/onError themselves call nothing upstream.
TEST(CallbackSubscriber, CancelsUpstreamAtMostOnceAndNeverAfterThePublisherEnded) {
  for (const EndEvent& first : endEvents()) {
    SCOPED_TRACE(first.name);
    Stream stream;
    auto subscription = stream.publisher->sendSubscribe();
    first.run(stream);
    for (const EndEvent& cancel : endEvents()) {
      if (std::string(cancel.outcome) == "false") {
        cancel.run(stream);
      }
    }
    const bool publisherEnded = std::string(first.outcome) != "false";
    EXPECT_EQ(subscription->cancelCount(), publisherEnded ? 0 : 1);
    EXPECT_EQ(subscription->requestCount(), 1u);
  }
}

TEST(CallbackSubscriber, SubscriptionArrivingAfterTheEndIsNeitherRequestedNorCancelled) {
  for (const EndEvent& end : endEvents()) {
    SCOPED_TRACE(end.name);
    Stream stream;
    end.run(stream);
    auto late = stream.publisher->sendSubscribe();
    stream.subscriber->cancel();
    EXPECT_EQ(late->requestCount(), 0u);
    EXPECT_EQ(late->cancelCount(), 0);
  }
}

// No subscription ever came, an empty pointer came, or the subscription died first: cancel
// still settles the Future and reaches nothing upstream (a dangling call shows under ASan).
TEST(CallbackSubscriber, CancelWithoutALiveSubscriptionOnlySettlesTheFuture) {
  const std::vector<std::function<void(Stream&)>> arrivals = {
      [](Stream&) {}, [](Stream& s) { s.subscriber->onSubscribe(nullptr); },
      [](Stream& s) { s.publisher->sendSubscribe(); },  // the only strong owner is dropped here
  };
  for (const auto& arrive : arrivals) {
    Stream stream;
    Future<bool> future = stream.subscriber->getFuture();
    arrive(stream);
    stream.canceller.reset();
    EXPECT_EQ(outcome(future), "false");
  }
}

TEST(CallbackSubscriber, DroppingTheCancellerEndsTheStreamWhileThePublisherStillHoldsTheSubscriber) {
  Stream stream;
  auto subscription = stream.publisher->sendSubscribe();
  Future<bool> future = stream.subscriber->getFuture();
  stream.subscriber.reset();
  stream.canceller.reset();
  ASSERT_EQ(stream.publisher->subscriberCount(), 1u);
  stream.publisher->sendNext(1);
  EXPECT_TRUE(stream.received.empty());
  EXPECT_EQ(subscription->cancelCount(), 1);
  EXPECT_EQ(outcome(future), "false");
}

TEST(CallbackSubscriber, DestroyingAnActiveSubscriberCancelsItAndSettlesTheFutureWithFalse) {
  auto subscription = std::make_shared<FakeSubscription>();
  auto subscriber = std::make_shared<CallbackSubscriber<int>>([](int&&) {});
  subscriber->onSubscribe(subscription);
  Future<bool> future = subscriber->getFuture();
  subscriber.reset();
  EXPECT_EQ(subscription->cancelCount(), 1);
  EXPECT_EQ(outcome(future), "false");
}

// A failed call (a throwing or an empty callback) also leaves the in-flight record, or a cancel
// from another thread would wait for it for ever.
TEST(CallbackSubscriber, CallbackExceptionsLeaveOnNextAndTheNextValueIsDelivered) {
  std::vector<int> received;
  Stream stream([&](int&& value) {
    if (value == 1) {
      throw std::runtime_error("bad value");
    }
    received.push_back(value);
  });
  EXPECT_THROW(stream.publisher->sendNext(1), std::runtime_error);
  stream.publisher->sendNext(2);
  EXPECT_EQ(received, std::vector<int>{2});
  std::thread([&] { stream.subscriber->cancel(); }).join();

  auto publisher = std::make_shared<FakePublisher<int>>();
  auto empty = subscribeCallback<int>(publisher, std::function<void(int&&)>());
  EXPECT_THROW(publisher->sendNext(1), std::bad_function_call);
  std::thread([&] { empty->cancel(); }).join();
}

TEST(SubscribeCallback, PassesOnASubscribeFailureAndReleasesTheSubscriber) {
  auto publisher = std::make_shared<FakePublisher<int>>();
  publisher->subscribeFailure = std::make_exception_ptr(std::logic_error("closed"));
  auto token = std::make_shared<int>(0);
  EXPECT_THROW(subscribeCallback<int>(publisher, [token](int&&) {}), std::logic_error);
  EXPECT_EQ(token.use_count(), 1);  // the subscriber and its copy of the callback are gone

  EXPECT_THROW(subscribeCallback<int>(nullptr, [](int&&) {}), std::invalid_argument);
}

TEST(CallbackSubscriber, SubscriptionMayEndTheSubscriberFromInsideCancel) {
  const std::vector<std::function<void(CallbackSubscriber<int>&)>> reentries = {
      [](CallbackSubscriber<int>& s) { s.onComplete(); },
      [](CallbackSubscriber<int>& s) { s.onError(std::make_exception_ptr(std::runtime_error("late"))); },
      [](CallbackSubscriber<int>& s) { s.cancel(); },
      [](CallbackSubscriber<int>& s) { s.onNext(1); },
  };
  for (const auto& reenter : reentries) {
    Stream stream;
    auto subscription = stream.publisher->sendSubscribe();
    CallbackSubscriber<int>* subscriber = stream.subscriber.get();
    subscription->onCancel = [&] { reenter(*subscriber); };
    Future<bool> future = stream.subscriber->getFuture();
    stream.canceller->cancel();
    EXPECT_EQ(outcome(future), "false");
    EXPECT_EQ(subscription->cancelCount(), 1);
    EXPECT_TRUE(stream.received.empty());
  }
}

TEST(CallbackSubscriber, CallbackMayCancelItsOwnSubscriberWithoutWaitingForItself) {
  for (bool throughCanceller : {false, true}) {
    SCOPED_TRACE(throughCanceller ? "through the canceller" : "directly");
    std::vector<int> received;
    Stream* self = nullptr;
    Stream stream([&](int&& value) {
      received.push_back(value);
      if (throughCanceller) {
        self->canceller->cancel();
      } else {
        self->subscriber->cancel();
      }
      received.push_back(-value);  // still running after cancel() returned
    });
    self = &stream;
    auto subscription = stream.publisher->sendSubscribe();
    Future<bool> future = stream.subscriber->getFuture();
    stream.publisher->sendNext(1);
    stream.publisher->sendNext(2);
    EXPECT_EQ(received, (std::vector<int>{1, -1}));
    EXPECT_EQ(subscription->cancelCount(), 1);
    EXPECT_EQ(outcome(future), "false");
  }
}

constexpr int kRaceRounds = 2000;

// What the callback touches; the cancelling thread deletes it as soon as cancel() returns, so a
// callback still running at that point writes to freed memory (ASan) or races the delete (TSan).
// `inside` is deliberately not atomic: only the wait inside cancel() orders the callback's last
// write before the cancelling thread's read, so without it TSan reports a race even when the
// two do not overlap in time.
struct Probe {
  std::vector<int> writes = std::vector<int>(64);
  bool inside = false;
};

// The value is inside the callback when cancel() starts, and the callback keeps going until
// cancel() has settled the Future: cancel() must wait for it before returning.
TEST(CallbackSubscriberRace, CancelWaitsForACallbackThatIsAlreadyRunningOnAnotherThread) {
  for (int round = 0; round < kRaceRounds; ++round) {
    auto* probe = new Probe;
    std::promise<void> entered;
    auto publisher = std::make_shared<FakePublisher<int>>();
    std::shared_ptr<Future<bool>> completion;
    auto subscriber = subscribeCallback<int>(publisher, [&](int&& value) {
      probe->inside = true;
      entered.set_value();
      completion->get();  // returns once cancel() has begun
      for (int& slot : probe->writes) {
        slot = value;
      }
      probe->inside = false;
    });
    completion = std::make_shared<Future<bool>>(subscriber->getFuture());
    auto canceller = makeCanceller(subscriber);
    subscriber.reset();

    std::thread sender([&] { publisher->sendNext(round); });
    entered.get_future().wait();
    canceller->cancel();
    EXPECT_FALSE(probe->inside) << "cancel() returned while the callback was running, round " << round;
    delete probe;
    sender.join();
    if (HasFailure()) {
      break;
    }
  }
}

// The cancelling thread starts once the first value has arrived, while the sender keeps
// sending, so cancel() lands anywhere in the stream, including between onNext's check and the
// call: whatever the interleaving, no callback is running once cancel() has returned.
TEST(CallbackSubscriberRace, NoCallbackRunsOnceCancelHasReturned) {
  for (int round = 0; round < kRaceRounds; ++round) {
    auto* probe = new Probe;
    std::promise<void> firstValue;
    auto publisher = std::make_shared<FakePublisher<int>>();
    auto subscriber = subscribeCallback<int>(publisher, [&](int&& value) {
      probe->inside = true;
      for (int& slot : probe->writes) {
        slot = value;
      }
      if (value == 0) {
        firstValue.set_value();
      }
      probe->inside = false;
    });
    auto canceller = makeCanceller(subscriber);
    subscriber.reset();

    std::thread sender([&] {
      for (int value = 0; value < 50; ++value) {
        publisher->sendNext(int(value));
      }
    });
    firstValue.get_future().wait();
    canceller.reset();
    EXPECT_FALSE(probe->inside) << "a callback was running after cancel() returned, round " << round;
    delete probe;
    sender.join();
    if (HasFailure()) {
      break;
    }
  }
}

// Two threads inside the callback both cancel: neither may wait for the other, while a third
// thread's cancel() waits for both to leave.
TEST(CallbackSubscriberRace, CallbacksCancellingOnTwoThreadsDoNotWaitForEachOther) {
  for (int round = 0; round < kRaceRounds / 10; ++round) {
    auto* probe = new Probe;
    std::atomic<int> inside{0};
    std::promise<void> bothEntered;
    std::atomic<int> entered{0};
    std::shared_future<void> together = bothEntered.get_future().share();
    std::shared_ptr<CallbackSubscriber<int>> subscriber;
    auto publisher = std::make_shared<FakePublisher<int>>();
    subscriber = subscribeCallback<int>(publisher, [&](int&& value) {
      inside.fetch_add(1);
      if (entered.fetch_add(1) == 1) {
        bothEntered.set_value();
      }
      together.wait();
      subscriber->cancel();
      probe->writes[static_cast<std::size_t>(value)] = value;
      inside.fetch_sub(1);
    });

    std::thread first([&] { publisher->sendNext(0); });
    std::thread second([&] { publisher->sendNext(1); });
    together.wait();
    subscriber->cancel();
    EXPECT_EQ(inside.load(), 0) << "cancel() returned while a callback was running, round " << round;
    delete probe;
    first.join();
    second.join();
    if (HasFailure()) {
      break;
    }
  }
}

}  // namespace
}  // namespace reactive_streams
}  // namespace connector
