// A delivery context whose answer the test decides, for tests of providers that pass requests on.
//
// FakeContext::forward() counts its calls and returns whatever its Answer makes of the message:
// the answers below cover an echo and a throw.
//
// Threads: forward() may be called from any thread, concurrently; the answer runs on the calling
// thread with no lock held. The answer is set before the context is shared.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
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

  Future<MessagePtr> forward(MessagePtr&& message, Address&&) override {
    forwards_.fetch_add(1);
    return answer_(std::move(message));
  }
  int forwardCount() const { return forwards_.load(); }

 private:
  const Answer answer_;
  std::atomic<int> forwards_{0};
};

// Resolved with the message itself.
inline Answer echoing() {
  return [](MessagePtr&& message) { return makeResolvedFuture(std::move(message)); };
}

// forward() itself throws `error`.
inline Answer throwing(std::exception_ptr error) {
  return [error](MessagePtr&&) -> Future<MessagePtr> { std::rethrow_exception(error); };
}

}  // namespace test_support
}  // namespace connector
