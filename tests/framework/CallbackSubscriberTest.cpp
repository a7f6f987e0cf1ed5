#include "framework/CallbackSubscriber.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include "tests/support/ReactiveFakes.h"

namespace connector {
namespace reactive_streams {
namespace {

// A subscriber attached to a recording publisher, with its canceller, as the configuration
// binding uses them. The callback records each value, or hands it to `inCallback` if one is set.
struct Stream {
  Stream() {
    subscriber = subscribeCallback<int>(
        publisher, [this](int&& value) { inCallback ? inCallback(value) : received.push_back(value); });
    canceller = makeCanceller(subscriber);
  }

  std::shared_ptr<test_support::FakePublisher<int>> publisher =
      std::make_shared<test_support::FakePublisher<int>>();
  std::shared_ptr<test_support::FakeSubscription> subscription;
  std::vector<int> received;
  std::function<void(int)> inCallback;
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

// Ends the stream from inside the callback: `hook` runs there on the next value.
void fromCallback(Stream& s, std::function<void()> hook) {
  s.inCallback = [hook](int) { hook(); };
  s.publisher->sendNext(4);
}

// Cancels with `hook` run from inside Subscription::cancel, where the stream has already ended.
void fromCancel(Stream& s, std::function<void()> hook) {
  s.subscription->onCancel = std::move(hook);
  s.subscriber->cancel();
}

struct EndEvent {
  std::string name;
  std::function<void(Stream&)> run;
  std::string outcome;  // of the Future, when this event ends the stream first
};
const EndEvent kEndEvents[] = {
    {"onComplete", [](Stream& s) { s.publisher->sendComplete(); }, "true"},
    {"onError",
     [](Stream& s) { s.publisher->sendError(std::make_exception_ptr(std::runtime_error("gone"))); },
     "error: gone"},
    {"onError(nullptr)", [](Stream& s) { s.publisher->sendError(nullptr); },
     "error: Future was rejected with an empty std::exception_ptr; reject with a pointer that holds an "
     "exception."},
    {"cancel", [](Stream& s) { s.subscriber->cancel(); }, "false"},
    {"Canceller::cancel", [](Stream& s) { s.canceller ? s.canceller->cancel() : void(); }, "false"},
    {"dropping the canceller", [](Stream& s) { s.canceller.reset(); }, "false"},
    {"cancel in the callback", [](Stream& s) { fromCallback(s, [&s] { s.subscriber->cancel(); }); }, "false"},
    {"Canceller::cancel in the callback", [](Stream& s) { fromCallback(s, [&s] { s.canceller->cancel(); }); },
     "false"},
    {"onComplete in cancel", [](Stream& s) { fromCancel(s, [&s] { s.subscriber->onComplete(); }); }, "false"},
    {"onNext in cancel", [](Stream& s) { fromCancel(s, [&s] { s.publisher->sendNext(5); }); }, "false"},
};

// Values reach the callback from the first (even before onSubscribe) until the first end event,
// which alone settles the Future. The one request asks for everything; upstream is cancelled at
// most once and only by a cancel that ends the stream. A subscription arriving after the end is
// neither requested nor cancelled.
TEST(CallbackSubscriber, TheFirstEndEventDecidesTheOutcomeAndStopsTheValues) {
  for (const EndEvent& first : kEndEvents) {
    for (const EndEvent& second : kEndEvents) {
      SCOPED_TRACE(first.name + " then " + second.name);
      Stream stream;
      stream.publisher->sendNext(1);
      stream.subscription = stream.publisher->sendSubscribe();
      Future<bool> future = stream.subscriber->getFuture();
      stream.publisher->sendNext(2);
      first.run(stream);
      second.run(stream);
      stream.publisher->sendNext(3);
      auto late = stream.publisher->sendSubscribe();
      stream.subscriber->cancel();
      EXPECT_EQ(stream.received, (std::vector<int>{1, 2}));
      EXPECT_EQ(outcome(future), first.outcome);
      EXPECT_EQ(stream.subscription->requests(), std::vector<std::uint64_t>{0xFFFFFFFFFFFFFFFFULL});
      EXPECT_EQ(stream.subscription->cancelCount(), first.outcome == "false" ? 1 : 0);
      EXPECT_TRUE(late->requests().empty());
      EXPECT_EQ(late->cancelCount(), 0);
    }
  }
}

// Destroying an Active subscriber cancels it: the Future says false and a live subscription is
// cancelled, while a missing, empty or already destroyed one is not touched (ASan sees a dangling
// call). Its one Future cannot be asked for twice.
TEST(CallbackSubscriber, DestructionCancelsReachingOnlyALiveSubscription) {
  for (const std::string arrival : {"none", "empty", "live", "destroyed"}) {
    SCOPED_TRACE(arrival);
    auto subscription = std::make_shared<test_support::FakeSubscription>();
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([](int&&) {});
    Future<bool> future = subscriber->getFuture();
    EXPECT_THAT(
        [&] { subscriber->getFuture(); },
        ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq("Promise already returned a future.")));
    if (arrival != "none") {
      subscriber->onSubscribe(arrival == "empty" ? nullptr : subscription);
    }
    if (arrival == "destroyed") {
      subscription.reset();
    }
    subscriber.reset();
    EXPECT_EQ(outcome(future), "false");
    EXPECT_EQ(subscription ? subscription->cancelCount() : 0, arrival == "live" ? 1 : 0);
  }
}

// A throwing callback's exception leaves onNext and changes nothing: the next value is delivered,
// and a cancel from another thread does not wait for the failed call.
TEST(CallbackSubscriber, ACallbackExceptionLeavesOnNextAndChangesNothing) {
  Stream stream;
  stream.inCallback = [](int) { throw std::logic_error("bad value"); };
  EXPECT_THROW(stream.publisher->sendNext(1), std::logic_error);
  stream.inCallback = nullptr;
  stream.publisher->sendNext(2);
  std::thread([&] { stream.subscriber->cancel(); }).join();
  EXPECT_EQ(stream.received, std::vector<int>{2});
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
    stream.inCallback = [&](int value) {
      inside = true;
      if (value == 1) {
        completion.get();  // returns once cancel() has settled the Future
      }
      writes->assign(64, value);
      inside = false;
    };
    stream.subscriber.reset();
    std::thread sender([&] {
      stream.publisher->sendNext(0);
      firstSent.set_value();
      for (int value = 1; value < 50; ++value) {
        stream.publisher->sendNext(int(value));
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
    stream.inCallback = [&](int) {
      if (inside.fetch_add(1) == 1) {
        bothEntered.set_value();
      }
      together.wait();
      stream.subscriber->cancel();
      inside.fetch_sub(1);
    };
    std::thread first([&] { stream.publisher->sendNext(0); });
    std::thread second([&] { stream.publisher->sendNext(1); });
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
