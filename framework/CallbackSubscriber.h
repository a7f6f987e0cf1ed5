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
// In-flight guarantee: when cancel() returns, no call of the callback is running and none will
// start, so the owner may destroy what the callback refers to. cancel() waits for calls that
// other threads are making; a cancel() made from inside the callback (on the same thread) does
// not wait for its own call. The caller of onNext must keep the subscriber alive for the call,
// and a callback must not release the last owner of its own subscriber.
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
  explicit CallbackSubscriber(std::function<void(T&&)> cb) : callback(std::move(cb)) {}

  ~CallbackSubscriber() override { cancel(); }

  // Remembers the subscription (weakly, replacing an earlier one) and, while Active, requests
  // unbounded demand from it, once.
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
        auto& list = subscriber.callers;
        list.erase(std::find(list.begin(), list.end(), id));
        subscriber.idle.notify_all();
      }
    } leave{*this, self};
    callback(std::move(value));
  }

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
  // inside the callback. Safe to call any number of times, and from inside the callback.
  void cancel() {
    std::unique_lock<std::mutex> lock(mutex);
    std::shared_ptr<Subscription> upstream;
    if (!done) {
      done = true;
      completion.resolve(false);
      upstream = subscription.lock();
    }
    const std::thread::id self = std::this_thread::get_id();
    idle.wait(lock, [&] {
      return std::all_of(callers.begin(), callers.end(), [&](std::thread::id id) { return id == self; });
    });
    lock.unlock();
    if (upstream) {
      upstream->cancel();
    }
  }

  static constexpr std::uint64_t kUnbounded = 0xFFFFFFFFFFFFFFFFULL;

  // Fields, in declaration order. `mutex` guards subscription, done and callers, and is held
  // while completion is settled.
  std::mutex mutex;
  Promise<bool> completion;
  const std::function<void(T&&)> callback;
  std::weak_ptr<Subscription> subscription;
  bool done = false;

 private:
  // Threads now inside the callback, one entry per call; and the signal that one has left.
  std::vector<std::thread::id> callers;
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
