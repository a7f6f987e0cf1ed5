// Drives a callback subscriber with random sequences of publisher signals (onSubscribe, onNext,
// onComplete, onError), cancellations (direct, through its canceller, by dropping its owners)
// and cancels of its completion Future, and checks them against the subscriber's outcome table:
// the first end event decides the Future (complete: true, cancel: false, error: the error),
// values are dropped once done, every onSubscribe while Active requests 0xFFFFFFFFFFFFFFFF once,
// and the upstream is cancelled at most once and never after a completion or an error.
//
// The calls re-enter: a value's callback may throw, complete, fail or cancel its own subscriber,
// and a subscription may send a value from request() or complete or send from cancel().
#include "framework/CallbackSubscriber.h"
#include "fuzz/FuzzInput.h"
#include "tests/support/ReactiveFakes.h"

namespace {

using connector::test_support::FakeSubscription;
using Subscriber = connector::reactive_streams::CallbackSubscriber<int>;

// A subscription the fuzzer holds, and the requests and cancels it should have received.
struct Upstream {
  std::shared_ptr<FakeSubscription> fake;
  int id = -1, cancels = 0;
  std::size_t requests = 0;
};

// One subscriber per input, owned by the fuzzer (standing for its publisher) and by a canceller.
struct Session {
  void run() {
    using Operation = void (Session::*)(int, int);
    static constexpr Operation kOperations[] = {&Session::release,   &Session::end,
                                                &Session::subscribe, &Session::newUpstream,
                                                &Session::next,      &Session::cancelFuture};
    for (int i = 0; i < 96 && input_.remaining_bytes() > 0; ++i) {
      (this->*kOperations[input_.pick(6)])(input_.pick(4), input_.ConsumeIntegral<std::uint8_t>());
      for (const Upstream& upstream : upstreams_) {
        const std::vector<std::uint64_t> requests(upstream.requests, 0xFFFFFFFFFFFFFFFFULL);
        MODEL_CHECK(!upstream.fake ||
                        (requested_[upstream.id] == requests && cancelled_[upstream.id] == upstream.cancels),
                    "subscription " + std::to_string(upstream.id) + " received other requests or cancels");
      }
    }
    release(0, 0);
    release(0, 1);
    // The subscriber is gone, so its Future holds how it ended.
    fuzz::expect("get", outcome_, fuzz::outcomeOf([&] { return future_.get() ? "true" : "false"; }));
  }

  // A strong reference for one call, or null where the fuzzer has none (the subscriber is gone,
  // or in its destructor).
  std::shared_ptr<Subscriber> strong() {
    std::shared_ptr<Subscriber> subscriber = current_.lock();
    MODEL_CHECK(!subscriber == !reachable_, "the subscriber is alive, or gone, against the model");
    return subscriber;
  }

  // The first end event settles the Future, unless its holder cancelled it. A cancel also
  // cancels the subscription the subscriber remembers, if that still exists.
  void endModel(const std::string& outcome) {
    for (Upstream& upstream : upstreams_) {
      upstream.cancels += !done_ && outcome == "false" && upstream.fake && upstream.id == subscription_;
    }
    outcome_ = outcome_.empty() ? outcome : outcome_;
    done_ = true;
  }

  // Drops the fuzzer's hold (kind even) or the canceller. The canceller cancels while it still
  // holds the subscriber; the last owner's release destroys the subscriber, whose destructor
  // cancels without the subscriber being reachable any more.
  void release(int, int kind) {
    const bool byCanceller = kind % 2 == 1;
    const bool last = byCanceller ? !hold_ : !canceller_;
    if (byCanceller ? !canceller_ : !hold_) {
      return;
    }
    reachable_ = byCanceller || !last;
    byCanceller || last ? endModel("false") : void();
    byCanceller ? canceller_.reset() : hold_.reset();
    reachable_ = !last;
  }

  // 1 cancels through the canceller; 2 completes, 3 fails, 4 cancels; 0 does nothing.
  void end(int, int kind) {
    std::shared_ptr<Subscriber> subscriber = strong();
    const std::string error = "error-" + std::to_string(kind);
    if (kind % 5 == 1 && canceller_) {
      endModel("false");
      canceller_->cancel();
    } else if (subscriber && kind % 5 > 1) {
      endModel(kind % 5 == 2 ? "true" : kind % 5 == 3 ? "throw:" + error : "false");
      kind % 5 == 2   ? subscriber->onComplete()
      : kind % 5 == 3 ? subscriber->onError(std::make_exception_ptr(std::runtime_error(error)))
                      : subscriber->cancel();
    }
  }

  // Subscribes the subscription in `slot`, or a null one.
  void subscribe(int slot, int) {
    std::shared_ptr<Subscriber> subscriber = strong();
    const std::shared_ptr<FakeSubscription> fake = slot < 3 ? upstreams_[slot].fake : nullptr;
    if (subscriber) {
      subscription_ = fake ? upstreams_[slot].id : -1;
      upstreams_[slot % 3].requests += fake && !done_;
      subscriber->onSubscribe(fake);
    }
  }

  // A new subscription in `slot`, replacing (and dropping) the one there. Its hook completes
  // from cancel(), sends a value (0, only recorded) from request(), or from cancel(), or does nothing.
  void newUpstream(int slot, int hook) {
    Upstream& upstream = upstreams_[slot % 3];
    const int id = nextUpstream_++;
    upstream = {std::make_shared<FakeSubscription>(), id};
    requested_.emplace_back();
    cancelled_.push_back(0);
    upstream.fake->onCancel = [this, id, hook] {
      ++cancelled_[id];
      hook % 4 == 0 ? end(0, 2) : hook % 4 == 2 ? next(0, 0) : void();
    };
    upstream.fake->onRequest = [this, id, hook](std::uint64_t count) {
      requested_[id].push_back(count);
      hook % 4 == 1 ? next(0, 0) : void();
    };
  }

  // The value chooses what the callback does: record it, throw, or complete, fail or cancel
  // its own subscriber.
  void next(int, int value) {
    std::shared_ptr<Subscriber> subscriber = strong();
    const int callsBefore = calls_;
    const bool reaches = subscriber && !done_;
    const std::string outcome =
        fuzz::outcomeOf([&] { subscriber ? subscriber->onNext(int(value)) : void(); });
    MODEL_CHECK(reaches ? calls_ > callsBefore : calls_ == callsBefore, "the callback ran against the model");
    const std::string thrown = "throw:callback-" + std::to_string(value);
    fuzz::expect("onNext", reaches && value % 5 == 1 ? thrown : "ok", outcome);
  }
  void onValue(int value) {
    ++calls_;
    if (value % 5 == 1) {
      throw std::runtime_error("callback-" + std::to_string(value));
    }
    end(0, value);  // 0 does nothing; 2, 3 and 4 complete, fail or cancel
  }

  // Cancelling the Future succeeds only while no end event has settled it.
  void cancelFuture(int, int) {
    MODEL_CHECK(future_.cancel() == outcome_.empty(), "cancel() of the Future returned the wrong flag");
    outcome_ = outcome_.empty() ? "throw:Future has been cancelled." : outcome_;
  }

  fuzz::Input& input_;
  std::shared_ptr<Subscriber> hold_ = std::make_shared<Subscriber>([this](int&& value) { onValue(value); });
  std::shared_ptr<connector::reactive_streams::Canceller> canceller_ =
      connector::reactive_streams::makeCanceller(hold_);
  std::weak_ptr<Subscriber> current_ = hold_;
  connector::Future<bool> future_ = hold_->getFuture();
  std::array<Upstream, 3> upstreams_{};
  // Per subscription id, the counts its request() received and the calls of its cancel().
  std::vector<std::vector<std::uint64_t>> requested_{};
  std::vector<int> cancelled_{};
  // The model of the subscriber and its Future.
  bool reachable_ = true, done_ = false;
  std::string outcome_{};  // "" while unsettled, else what get() gives
  // The id of the subscription the subscriber remembers (-1 for none or a null one), the calls of
  // the callback, and the id of the next subscription.
  int subscription_ = -1, calls_ = 0, nextUpstream_ = 0;
};

}  // namespace

void runOne(fuzz::Input& input) {
  Session{input}.run();
}
