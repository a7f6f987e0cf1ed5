// The cost of one answer: the echo service's deliver + get, and a Promise/Future round trip
// (getFuture, resolve, get) side by side with std::promise/std::future and
// boost::promise/boost::future, on one thread and across two. Every benchmark moves one message
// around and back, so its own allocations are those of the mechanism; the "allocs" counter gives
// them per iteration.
#include <benchmark/benchmark.h>
#include <boost/thread/future.hpp>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "bench/BenchMain.h"
#include "framework/Future.h"
#include "framework/ServiceProvider.h"
#include "services/EchoServiceProvider.h"
#include "tests/support/FailingAllocation.h"

namespace {

using connector::Message;
using MessagePtr = std::unique_ptr<Message>;
using connector::test_support::allocationsOnThisThread;

// Reports the allocations made on this thread (plus `elsewhere`) since construction.
class AllocationCounter {
 public:
  explicit AllocationCounter(benchmark::State& state) : state_(state), start_(allocationsOnThisThread()) {}
  void report(long elsewhere = 0) {
    state_.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocationsOnThisThread() - start_ + elsewhere),
                           benchmark::Counter::kAvgIterations);
  }

 private:
  benchmark::State& state_;
  long start_;
};

void EchoDeliverGet(benchmark::State& state) {
  connector::common_services::EchoServiceProvider echo;
  connector::ServiceProvider& provider = echo;
  connector::Address address("echo");
  std::shared_ptr<connector::Context> context;
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    message = provider.deliver(std::move(message), std::move(address), std::move(context)).get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report();
}
BENCHMARK(EchoDeliverGet);

void OursRoundTrip(benchmark::State& state) {
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    connector::Promise<MessagePtr> promise;
    connector::Future<MessagePtr> future = promise.getFuture();
    promise.resolve(std::move(message));
    message = future.get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report();
}
BENCHMARK(OursRoundTrip);

void StdRoundTrip(benchmark::State& state) {
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    std::promise<MessagePtr> promise;
    std::future<MessagePtr> future = promise.get_future();
    promise.set_value(std::move(message));
    message = future.get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report();
}
BENCHMARK(StdRoundTrip);

void BoostRoundTrip(benchmark::State& state) {
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    boost::promise<MessagePtr> promise;
    boost::future<MessagePtr> future = promise.get_future();
    promise.set_value(std::move(message));
    message = future.get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report();
}
BENCHMARK(BoostRoundTrip);

// A thread that takes over each promise handed to it, resolves it with the message handed along
// and drops it, as a producer does. The hand-over is a spinning slot, the same for every
// promise type, so the figures differ by the mechanism.
template <typename PromiseType, typename Resolve>
class Resolver {
 public:
  explicit Resolver(Resolve resolve) : resolve_(resolve), thread_([this] { run(); }) {}
  ~Resolver() {
    stop_.store(true, std::memory_order_release);
    thread_.join();
  }
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  void hand(PromiseType&& promise, MessagePtr&& message) {
    while (full_.load(std::memory_order_acquire)) {
      std::this_thread::yield();  // the previous promise is still being dropped
    }
    promise_.emplace(std::move(promise));
    message_ = std::move(message);
    full_.store(true, std::memory_order_release);
  }
  // Allocations made on the resolver thread so far, once it has dropped the last promise.
  long allocations() const {
    while (full_.load(std::memory_order_acquire)) {
      std::this_thread::yield();
    }
    return allocations_.load(std::memory_order_acquire);
  }

 private:
  void run() {
    const long start = allocationsOnThisThread();
    while (!stop_.load(std::memory_order_acquire)) {
      if (full_.load(std::memory_order_acquire)) {
        resolve_(*promise_, std::move(message_));
        promise_.reset();
        allocations_.store(allocationsOnThisThread() - start, std::memory_order_release);
        full_.store(false, std::memory_order_release);
      } else {
        std::this_thread::yield();  // a busy machine needs the core for the waiting side
      }
    }
  }

  Resolve resolve_;
  // Owned by the resolver thread while full_ is true, by the benchmark thread otherwise.
  std::optional<PromiseType> promise_;
  MessagePtr message_;
  std::atomic<bool> full_{false};
  std::atomic<bool> stop_{false};
  std::atomic<long> allocations_{0};
  std::thread thread_;
};

void OursCrossThread(benchmark::State& state) {
  auto resolve = [](connector::Promise<MessagePtr>& p, MessagePtr&& m) { p.resolve(std::move(m)); };
  Resolver<connector::Promise<MessagePtr>, decltype(resolve)> resolver(resolve);
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    connector::Promise<MessagePtr> promise;
    connector::Future<MessagePtr> future = promise.getFuture();
    resolver.hand(std::move(promise), std::move(message));
    message = future.get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report(resolver.allocations());
}
BENCHMARK(OursCrossThread)->UseRealTime();

void StdCrossThread(benchmark::State& state) {
  auto resolve = [](std::promise<MessagePtr>& p, MessagePtr&& m) { p.set_value(std::move(m)); };
  Resolver<std::promise<MessagePtr>, decltype(resolve)> resolver(resolve);
  MessagePtr message = std::make_unique<Message>();
  AllocationCounter counter(state);
  for (auto _ : state) {
    std::promise<MessagePtr> promise;
    std::future<MessagePtr> future = promise.get_future();
    resolver.hand(std::move(promise), std::move(message));
    message = future.get();
    benchmark::DoNotOptimize(*message);
  }
  counter.report(resolver.allocations());
}
BENCHMARK(StdCrossThread)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return connector::bench::runBenchmarks(argc, argv);
}
