// A delivery context whose answer the test decides, for tests of providers that pass requests on.
//
// FakeContext::forward() counts its calls, keeps the address it was given and returns whatever
// its Answer makes of the message: the answers below cover an echo, a rejection, a throw, and a
// cancelled, invalid, already claimed or unknown future.
//
// Threads: forward() may be called from any thread, concurrently; the answer runs on the calling
// thread with no lock held. The answer is set before the context is shared.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "framework/Future.h"
#include "framework/ServiceProvider.h"

namespace connector {
namespace test_support {

using MessagePtr = std::unique_ptr<Message>;
using Answer = std::function<Future<MessagePtr>(MessagePtr&&)>;

class FakeContext : public Context {
 public:
  explicit FakeContext(Answer answer) : answer_(std::move(answer)) {}

  Future<MessagePtr> forward(MessagePtr&& message, Address&& address) override {
    forwards_.fetch_add(1);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      lastAddress_ = std::move(address);
    }
    return answer_(std::move(message));
  }

  int forwardCount() const { return forwards_.load(); }
  Address lastAddress() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastAddress_;
  }

 private:
  const Answer answer_;
  std::atomic<int> forwards_{0};
  mutable std::mutex mutex_;
  Address lastAddress_;  // guarded by mutex_
};

// Resolved with the message itself.
inline Answer echoing() {
  return [](MessagePtr&& message) { return makeResolvedFuture(std::move(message)); };
}

// A settled future whose shared state `settle` prepares; the request is dropped.
inline Answer settledBy(std::function<void(detail::SharedFutureState<MessagePtr>&)> settle) {
  return [settle](MessagePtr&&) {
    auto state = std::make_shared<detail::SharedFutureState<MessagePtr>>();
    settle(*state);
    return Future<MessagePtr>(state);
  };
}

// Rejected with `error`, stored as it is.
inline Answer rejecting(std::exception_ptr error) {
  return settledBy([error](auto& state) { state.rejectFresh(error); });
}

// forward() itself throws `error`.
inline Answer throwing(std::exception_ptr error) {
  return [error](MessagePtr&&) -> Future<MessagePtr> { std::rethrow_exception(error); };
}

inline Answer cancelled() {
  return settledBy([](auto& state) { state.status.store(detail::Status::Cancelled); });
}

// A handle whose `valid` flag is false.
inline Answer invalid() {
  return [](MessagePtr&& message) {
    Future<MessagePtr> future = makeResolvedFuture(std::move(message));
    Future<MessagePtr> taken(std::move(future));
    return future;
  };
}

// A future whose value was already taken by get().
inline Answer alreadyRetrieved() {
  return settledBy([](auto& state) {
    state.resolveFresh(MessagePtr());
    state.valueRetrieved = true;
  });
}

// A pending future with a continuation attached.
inline Answer withContinuation() {
  return [](MessagePtr&&) {
    auto state = std::make_shared<detail::SharedFutureState<MessagePtr>>();
    Future<MessagePtr>(state).then([](Future<MessagePtr>) {});
    return Future<MessagePtr>(state);
  };
}

// A settled future whose status is none of the four known codes.
inline Answer unknownStatus() {
  return settledBy([](auto& state) { state.status.store(static_cast<detail::Status>(7)); });
}

}  // namespace test_support
}  // namespace connector
