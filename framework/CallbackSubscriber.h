// A subscriber that turns a stream of values into calls of a function, and the canceller that
// owns it.
//
// CallbackSubscriber<T> asks its subscription once for an unbounded number of values, calls
// its callback for each value until the stream ends, and reports how it ended through its one
// Future<bool>: true when the publisher completed, false when it was cancelled from this side
// (cancel(), the canceller, or the subscriber's destruction), the error when the publisher
// failed. It holds its subscription weakly; whoever holds the TypedCanceller decides when the
// subscription ends.
//
// Threads: every operation may be called from any thread. One mutex guards the subscriber;
// when the state of the completion promise is locked too, the subscriber's mutex comes first.
// The mutex is not held while the callback, Subscription::request or Subscription::cancel run,
// so those may call back into the subscriber (a callback may cancel its own subscription; a
// subscription may complete from inside cancel()). It is held while the completion is
// settled, so a continuation attached to getFuture()'s Future must not call this subscriber.
//
// In-flight guarantee: when cancel() returns on a thread that is not inside the callback, no
// call of the callback is running and none will start, so the owner may destroy what the
// callback refers to. cancel() waits for calls that other threads are making, so it must not be
// called while holding anything such a call waits for (a lock the callback takes). A cancel()
// made from inside the callback does not wait for its own call, nor for another thread's call
// that is itself waiting in cancel() from inside the callback; it waits for every other call.
// The caller of onNext must keep the subscriber alive for the call, and a callback must not
// release the last owner of its own subscriber.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "framework/Future.h"
#include "framework/ReactiveStreams.h"

namespace connector {
namespace reactive_streams {

template <typename T>
class CallbackSubscriber : public SubscriberAPI<T> {
 public:
  static constexpr std::uint64_t kUnbounded = 0xFFFFFFFFFFFFFFFFULL;

  explicit CallbackSubscriber(std::function<void(T&&)> cb) : callback(std::move(cb)) {}

  ~CallbackSubscriber() override { cancel(); }

  // Remembers the subscription (weakly, replacing an earlier one) and, while Active, requests
  // unbounded demand from it. Once Done, the subscription is remembered but not called.
  void onSubscribe(const std::shared_ptr<Subscription>& s) override {
    std::unique_lock<std::mutex> lock(mutex);
    subscription = s;
    if (done || !s) {
      return;
    }
    std::shared_ptr<Subscription> strong = s;
    lock.unlock();
    strong->request(kUnbounded);
  }

  void onComplete() override {
    std::lock_guard<std::mutex> lock(mutex);
    if (done) {
      return;
    }
    done = true;
    completion.resolve(true);
  }

  // The one Future of the completion; a second call throws "Promise already returned a future.".
  Future<bool> getFuture() override {
    std::lock_guard<std::mutex> lock(mutex);
    return completion.getFuture();
  }

  // Calls the callback with `value` while Active; drops it once Done. Exceptions of the callback
  // (std::bad_function_call for an empty one) leave here and change nothing.
  void onNext(T&& value) override {
    const std::thread::id self = std::this_thread::get_id();
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (done) {
        return;
      }
      callers.push_back(self);
    }
    // Leaves the in-flight list whichever way the callback returns. The notify happens under
    // the lock: a cancel() waiting on `idle` cannot return, and its owner cannot destroy this
    // subscriber, before this thread has stopped touching it.
    struct Leave {
      CallbackSubscriber& subscriber;
      std::thread::id id;
      ~Leave() {
        std::lock_guard<std::mutex> lock(subscriber.mutex);
        eraseOne(subscriber.callers, id);
        subscriber.idle.notify_all();
      }
    } leave{*this, self};
    callback(std::move(value));
  }

  // Settles the Future with `error`, stored unchanged (an empty pointer included: the Future's
  // get() reports that case with an exception of its own).
  void onError(std::exception_ptr error) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (done) {
      return;
    }
    done = true;
    completion.reject(std::move(error));
  }

  // Ends the stream from this side: settles the Future with false and cancels the subscription,
  // at most once and never after a completion or an error; then waits until no other thread is
  // inside the callback (see the in-flight guarantee above). Safe to call any number of times,
  // from any thread, and from inside the callback.
  void cancel() {
    std::shared_ptr<Subscription> upstream;
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (!done) {
        done = true;
        completion.resolve(false);
        upstream = subscription.lock();
      }
      waitForOtherCallers(lock);
    }
    if (upstream) {
      upstream->cancel();
    }
  }

 private:
  // Called with the lock held; returns with it held. No call can join `callers` any more
  // (done is set), so this waits only for the calls already running. A thread that is itself
  // inside the callback does not wait for its own call, nor for the calls of other threads
  // that are also waiting here from inside the callback: those would otherwise wait for each
  // other for ever.
  void waitForOtherCallers(std::unique_lock<std::mutex>& lock) {
    const std::thread::id self = std::this_thread::get_id();
    const bool insideCallback = std::find(callers.begin(), callers.end(), self) != callers.end();
    if (insideCallback) {
      parked.push_back(self);
      idle.notify_all();
    }
    idle.wait(lock, [&] {
      return std::all_of(callers.begin(), callers.end(), [&](std::thread::id id) {
        return id == self || (insideCallback && std::find(parked.begin(), parked.end(), id) != parked.end());
      });
    });
    if (insideCallback) {
      eraseOne(parked, self);
    }
  }

  static void eraseOne(std::vector<std::thread::id>& list, std::thread::id id) {
    list.erase(std::find(list.begin(), list.end(), id));
  }

  // Fields, in declaration order. `mutex` guards every field after it except the constant
  // callback, and is held while completion is settled.
  std::mutex mutex;
  Promise<bool> completion;
  const std::function<void(T&&)> callback;
  std::weak_ptr<Subscription> subscription;
  bool done = false;  // false while Active; true from the first onComplete, onError or cancel
  // Threads now inside the callback, one entry per call (a thread may recurse into onNext).
  std::vector<std::thread::id> callers;
  // Threads of `callers` now waiting in cancel(), one entry per waiting call.
  std::vector<std::thread::id> parked;
  // Signalled, under the lock, when a thread leaves `callers` or joins `parked`.
  std::condition_variable idle;
};

// Owns a subscriber and cancels it, on cancel() and when destroyed. Holding the last
// std::shared_ptr<Canceller> keeps the subscription going; cancelling twice is harmless. It has
// no lock of its own; it takes the subscriber's.
template <typename P>
class TypedCanceller : public Canceller {
 public:
  explicit TypedCanceller(P s) : subscriber(std::move(s)) {}
  ~TypedCanceller() override {
    if (subscriber) {
      subscriber->cancel();
    }
  }
  void cancel() override {
    if (subscriber) {
      subscriber->cancel();
    }
  }

 private:
  P subscriber;
};

// Creates a subscriber calling `callback` and attaches it to `publisher`. If subscribe() throws,
// the exception leaves here and the subscriber is released.
template <typename T>
std::shared_ptr<CallbackSubscriber<T>> subscribeCallback(const std::shared_ptr<Publisher<T>>& publisher,
                                                         const std::function<void(T&&)>& callback) {
  if (!publisher) {
    throw std::invalid_argument("subscribeCallback needs a publisher, but was given an empty pointer");
  }
  auto subscriber = std::make_shared<CallbackSubscriber<T>>(callback);
  publisher->subscribe(subscriber);
  return subscriber;
}

// A canceller owning `subscriber`. If allocating the control block fails, the canceller is
// destroyed at once, which cancels the subscriber, and std::bad_alloc leaves here.
template <typename T>
std::shared_ptr<Canceller> makeCanceller(std::shared_ptr<CallbackSubscriber<T>> subscriber) {
  return std::shared_ptr<Canceller>(
      new TypedCanceller<std::shared_ptr<CallbackSubscriber<T>>>(std::move(subscriber)));
}

}  // namespace reactive_streams
}  // namespace connector
