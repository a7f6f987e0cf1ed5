// Drives a callback subscriber with random sequences of publisher signals (onSubscribe, onNext,
// onComplete, onError), cancellations (direct, through its canceller, by dropping owners) and
// uses of its completion Future, and checks each against a reference model of the subscriber's
// two states (Active, Done) and of how the first end event settles the Future.
//
// Re-entrant calls are part of the sequences: a value's callback may throw, cancel, complete
// or fail its own subscriber, and a subscription may send a value from inside request() or
// complete or send from inside cancel(). Each such call checks itself against the model at the
// moment it runs. Every subscription's requests and cancels are compared after every step.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/CallbackSubscriber.h"
#include "tests/support/ReactiveFakes.h"

namespace {

using connector::Future;
using connector::reactive_streams::CallbackSubscriber;
using connector::reactive_streams::Canceller;
using connector::testing::FakePublisher;
using connector::testing::FakeSubscription;
using Subscriber = CallbackSubscriber<int>;

constexpr std::uint64_t kUnbounded = 0xFFFFFFFFFFFFFFFFULL;
constexpr int kSlots = 3;
constexpr int kMaxOperations = 96;

[[noreturn]] void mismatch(const std::string& what) {
  std::fprintf(stderr, "MODEL MISMATCH: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

// Builds its message only when the check fails: the fuzzers run checks by the million.
#define MODEL_CHECK(ok, what) \
  do {                        \
    if (!(ok)) {              \
      mismatch(what);         \
    }                         \
  } while (false)

std::string describe(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::runtime_error& e) {
    return std::string("runtime_error:") + e.what();
  } catch (const std::exception& e) {
    return std::string("exception:") + e.what();
  } catch (...) {
    return "other";
  }
}

template <typename F>
std::string outcomeOf(F&& operation) {
  try {
    return operation();
  } catch (...) {
    return "throw:" + describe(std::current_exception());
  }
}

void checkOutcome(const std::string& operation, const std::string& expected, const std::string& actual) {
  MODEL_CHECK(actual == expected, operation + ": expected " + expected + ", got " + actual);
}

// What a callback does with the value it receives, chosen by the value itself.
enum CallbackAction { kRecord, kThrow, kCancelItself, kCompleteItself, kFailItself, kActions };

// What a subscription does from inside its own request() and cancel().
enum Hook { kNoHook, kCompleteOnCancel, kSendOnRequest, kSendOnCancel, kHooks };

struct ModelSubscriber {
  bool exists = false;
  bool lockable = false;  // the fuzzer can still take a strong reference to it
  bool done = false;
  std::string outcome;  // "" while unsettled, else what get() on the Future gives
  bool futureTaken = false;
  bool futureCancelled = false;
  bool futureGot = false;
  int subscription = -1;  // id of the remembered subscription; -1 none (or a null one)
  bool publisherHolds = false;
  bool cancellerHolds = false;
  std::vector<int> received;
};

struct ModelSubscription {
  bool alive = false;
  std::size_t requests = 0;
  int cancels = 0;
};

// One onNext in progress: the value, whether the model lets it reach the callback, and
// whether it did.
struct Delivery {
  int value;
  bool expected;
  bool called = false;
};

class Session {
 public:
  explicit Session(FuzzedDataProvider& input) : input_(input) {}

  void run() {
    for (int i = 0; i < kMaxOperations && input_.remaining_bytes() > 0; ++i) {
      step();
      checkSubscriptions();
    }
    dropSubscriber();
    for (int slot = 0; slot < kSlots; ++slot) {
      dropSubscription(slot);
    }
    checkFutureAfterEnd();
  }

 private:
  void step() {
    switch (input_.ConsumeIntegralInRange<int>(0, 13)) {
      case 0:
        newSubscriber(input_.ConsumeBool());
        break;
      case 1:
        makeCanceller();
        break;
      case 2:
        dropPublisherReference();
        break;
      case 3:
        dropCanceller();
        break;
      case 4:
        cancelThroughCanceller();
        break;
      case 5:
        cancel();
        break;
      case 6:
        subscribe(input_.ConsumeIntegralInRange<int>(-1, kSlots - 1));
        break;
      case 7:
        next(input_.ConsumeIntegralInRange<int>(0, 99));
        break;
      case 8:
        complete();
        break;
      case 9:
        fail();
        break;
      case 10:
        getFuture();
        break;
      case 11:
        useFuture(input_.ConsumeBool());
        break;
      case 12: {
        const int slot = input_.ConsumeIntegralInRange<int>(0, kSlots - 1);
        newSubscription(slot, static_cast<Hook>(input_.ConsumeIntegralInRange<int>(0, kHooks - 1)));
        break;
      }
      case 13:
        dropSubscription(input_.ConsumeIntegralInRange<int>(0, kSlots - 1));
        break;
    }
  }

  // A strong reference for the length of one call, or null where the model says the fuzzer
  // cannot have one (no subscriber, or one in its destructor).
  std::shared_ptr<Subscriber> strong() {
    std::shared_ptr<Subscriber> s = current_.lock();
    MODEL_CHECK(static_cast<bool>(s) == (model_.exists && model_.lockable),
                s ? "a destroyed subscriber is still reachable" : "a live subscriber is unreachable");
    return s;
  }

  void newSubscriber(bool failSubscribe) {
    dropSubscriber();
    future_.reset();
    model_ = ModelSubscriber{};
    received_.clear();
    auto publisher = std::make_shared<FakePublisher<int>>();
    std::function<void(int&&)> callback = [this](int&& value) { onValue(value); };
    if (failSubscribe) {
      publisher->subscribeFailure = std::make_exception_ptr(std::runtime_error("subscribe refused"));
      const std::string actual = outcomeOf([&] {
        connector::reactive_streams::subscribeCallback<int>(publisher, callback);
        return std::string("ok");
      });
      checkOutcome("subscribeCallback", "throw:runtime_error:subscribe refused", actual);
      return;
    }
    publisherReference_ = connector::reactive_streams::subscribeCallback<int>(publisher, callback);
    MODEL_CHECK(publisher->subscriberCount() == 1 && publisher->subscriber(0) == publisherReference_,
                "subscribeCallback did not hand its subscriber to the publisher");
    publisher->releaseSubscribers();
    current_ = publisherReference_;
    model_.exists = model_.lockable = model_.publisherHolds = true;
  }

  // The model of a cancel that reaches the subscriber: the first end event settles the
  // Future with false and cancels the remembered subscription, if it is still there.
  void cancelModel() {
    if (model_.done) {
      return;
    }
    model_.done = true;
    settleModel("value:false");
    if (model_.subscription >= 0 && subscriptionModel_[model_.subscription].alive) {
      ++subscriptionModel_[model_.subscription].cancels;
    }
  }

  void settleModel(const std::string& outcome) {
    if (!model_.futureCancelled) {
      model_.outcome = outcome;
    }
  }

  // Drops an owner; the last one's release runs the subscriber's destructor, which cancels.
  // A re-entrant call made from inside that destructor cannot reach the subscriber any more.
  void releaseOwner(bool& holds, std::shared_ptr<void> reference, bool reachableWhileReleasing) {
    holds = false;
    const bool last = !model_.publisherHolds && !model_.cancellerHolds;
    if (last) {
      model_.lockable = reachableWhileReleasing;
      cancelModel();
    }
    reference.reset();
    if (last) {
      model_.exists = model_.lockable = false;
    }
  }

  void dropSubscriber() {
    if (publisherReference_) {
      dropPublisherReference();
    }
    if (canceller_) {
      dropCanceller();
    }
  }

  void makeCanceller() {
    if (canceller_ || !publisherReference_) {
      return;
    }
    canceller_ = connector::reactive_streams::makeCanceller(publisherReference_);
    model_.cancellerHolds = true;
  }

  void dropPublisherReference() {
    if (!publisherReference_) {
      return;
    }
    releaseOwner(model_.publisherHolds, std::move(publisherReference_), false);
  }

  void dropCanceller() {
    if (!canceller_) {
      return;
    }
    // The canceller cancels while it still holds the subscriber, so a re-entrant call from
    // the subscription still finds it; only then may the release destroy it, and by then the
    // subscriber is Done and its destructor calls nothing upstream.
    cancelModel();
    releaseOwner(model_.cancellerHolds, std::move(canceller_), true);
  }

  void cancelThroughCanceller() {
    if (!canceller_) {
      return;
    }
    cancelModel();
    canceller_->cancel();
  }

  void cancel() {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    cancelModel();
    s->cancel();
  }

  void subscribe(int slot) {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    std::shared_ptr<FakeSubscription> subscription = slot >= 0 ? subscriptions_[slot] : nullptr;
    const int id = subscription ? subscriptionIds_[slot] : -1;
    model_.subscription = id;
    if (!model_.done && id >= 0) {
      ++subscriptionModel_[id].requests;
    }
    s->onSubscribe(subscription);
  }

  void next(int value) {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    deliveries_.push_back({value, !model_.done});
    const std::string actual = outcomeOf([&] {
      int copy = value;
      s->onNext(std::move(copy));
      return std::string("ok");
    });
    const Delivery delivery = deliveries_.back();
    deliveries_.pop_back();
    MODEL_CHECK(delivery.called == delivery.expected,
                "value " + std::to_string(value) +
                    (delivery.expected ? " did not reach the callback of an Active subscriber"
                                       : " reached the callback of a Done subscriber"));
    const bool throws = delivery.called && value % kActions == kThrow;
    checkOutcome("onNext", throws ? "throw:runtime_error:callback-" + std::to_string(value) : "ok", actual);
  }

  void onValue(int value) {
    MODEL_CHECK(!deliveries_.empty() && deliveries_.back().value == value && !deliveries_.back().called,
                "the callback ran outside an onNext");
    MODEL_CHECK(deliveries_.back().expected, "value " + std::to_string(value) + " reached a Done subscriber");
    deliveries_.back().called = true;
    model_.received.push_back(value);
    received_.push_back(value);
    switch (value % kActions) {
      case kThrow:
        throw std::runtime_error("callback-" + std::to_string(value));
      case kCancelItself:
        cancel();
        break;
      case kCompleteItself:
        complete();
        break;
      case kFailItself:
        fail();
        break;
      default:
        break;
    }
  }

  void complete() {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    if (!model_.done) {
      model_.done = true;
      settleModel("value:true");
    }
    s->onComplete();
  }

  void fail() {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    const std::string text = "error-" + std::to_string(nextError_++);
    if (!model_.done) {
      model_.done = true;
      settleModel("throw:runtime_error:" + text);
    }
    s->onError(std::make_exception_ptr(std::runtime_error(text)));
  }

  void getFuture() {
    std::shared_ptr<Subscriber> s = strong();
    if (!s) {
      return;
    }
    const std::string expected =
        model_.futureTaken ? "throw:runtime_error:Promise already returned a future." : "ok";
    const std::string actual = outcomeOf([&] {
      Future<bool> future = s->getFuture();
      future_.emplace(std::move(future));
      return std::string("ok");
    });
    checkOutcome("getFuture", expected, actual);
    model_.futureTaken = true;
  }

  // get() where it cannot block, or cancel() of the Future by its holder.
  void useFuture(bool cancelIt) {
    if (!future_) {
      return;
    }
    if (cancelIt) {
      const bool expected = model_.outcome.empty() && !model_.futureCancelled;
      if (expected) {
        model_.futureCancelled = true;
        model_.outcome = "throw:runtime_error:Future has been cancelled.";
      }
      MODEL_CHECK(future_->cancel() == expected, "cancel() of the completion Future returned the wrong flag");
      return;
    }
    if (model_.outcome.empty()) {
      return;  // would block
    }
    const std::string expected =
        model_.futureGot
            ? "throw:runtime_error:Future already returned it's value or has an associated continuation."
            : model_.outcome;
    model_.futureGot = true;
    const std::string actual =
        outcomeOf([&] { return std::string(future_->get() ? "value:true" : "value:false"); });
    checkOutcome("get on the completion Future", expected, actual);
  }

  void newSubscription(int slot, Hook hook) {
    dropSubscription(slot);
    const int id = static_cast<int>(subscriptionModel_.size());
    subscriptionModel_.push_back({true, 0, 0});
    auto subscription = std::make_shared<FakeSubscription>();
    const int value = 5 * id;  // recorded by the callback and nothing more
    switch (hook) {
      case kCompleteOnCancel:
        subscription->onCancel = [this] { complete(); };
        break;
      case kSendOnRequest:
        subscription->onRequest = [this, value](std::uint64_t) { next(value); };
        break;
      case kSendOnCancel:
        subscription->onCancel = [this, value] { next(value); };
        break;
      default:
        break;
    }
    subscriptions_[slot] = std::move(subscription);
    subscriptionIds_[slot] = id;
  }

  void dropSubscription(int slot) {
    if (!subscriptions_[slot]) {
      return;
    }
    subscriptionModel_[subscriptionIds_[slot]].alive = false;
    subscriptions_[slot].reset();
  }

  void checkSubscriptions() {
    for (int slot = 0; slot < kSlots; ++slot) {
      if (!subscriptions_[slot]) {
        continue;
      }
      const ModelSubscription& expected = subscriptionModel_[subscriptionIds_[slot]];
      const std::vector<std::uint64_t> requests = subscriptions_[slot]->requests();
      MODEL_CHECK(requests.size() == expected.requests,
                  "subscription " + std::to_string(subscriptionIds_[slot]) + " received " +
                      std::to_string(requests.size()) + " requests, expected " +
                      std::to_string(expected.requests));
      for (std::uint64_t count : requests) {
        MODEL_CHECK(count == kUnbounded, "a request asked for " + std::to_string(count) + " values, not all");
      }
      MODEL_CHECK(subscriptions_[slot]->cancelCount() == expected.cancels,
                  "subscription " + std::to_string(subscriptionIds_[slot]) + " was cancelled " +
                      std::to_string(subscriptions_[slot]->cancelCount()) + " times, expected " +
                      std::to_string(expected.cancels));
    }
    MODEL_CHECK(received_ == model_.received, "the callback received other values than the model");
  }

  // Once the subscriber is gone, the Future holds how it ended (cancelled, if nothing else).
  void checkFutureAfterEnd() {
    if (future_) {
      MODEL_CHECK(!model_.outcome.empty(), "the completion of a destroyed subscriber is still unsettled");
      useFuture(false);
    }
  }

  FuzzedDataProvider& input_;
  ModelSubscriber model_;
  std::shared_ptr<Subscriber> publisherReference_;  // stands for the publisher's hold
  std::shared_ptr<Canceller> canceller_;
  std::weak_ptr<Subscriber> current_;
  std::optional<Future<bool>> future_;
  std::array<std::shared_ptr<FakeSubscription>, kSlots> subscriptions_;
  std::array<int, kSlots> subscriptionIds_{};
  std::vector<ModelSubscription> subscriptionModel_;
  std::vector<Delivery> deliveries_;
  std::vector<int> received_;
  int nextError_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  Session(input).run();
  return 0;
}
