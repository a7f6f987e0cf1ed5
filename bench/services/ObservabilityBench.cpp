// The cost of the access log and the statistics provider in front of an echo service, side by
// side with their references in one run:
//   AccessLogNotWritten (errorsOnly, answer ok)   against EchoAlone
//   AccessLogJsonToNull                           against LoggingToNullStream (two lines)
//   AccessLogJsonToFile                           against LoggingToFile (two lines)
//   Statistics                                    against EchoAlone
//   Statistics, 2 threads (different types, then one type) against 1 thread, in items per second,
//   beside EchoAlone on 1 and 2 threads (what a second thread can add on the machine at all)
//   StatisticsWithAThousandInFlight               against EchoAlone (1,000 other requests pending)
//   TwoClockReadings                              against EchoAlone (the statistics provider's floor)
//   StatisticsSnapshot: one snapshot() of 100 types, each recorded by 4 threads (bound: 200 us),
//   with the bytes a type costs per thread that has completed one of its requests as a counter
// Every case sends one message round trip per iteration (deliver, then get) and reuses the message.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/BenchMain.h"
#include "foundation/core/detail/TickClock.h"
#include "services/AccessLogServiceProvider.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "services/detail/StripedCounters.h"
#include "tests/support/FakeConfiguration.h"

namespace {

using connector::Address;
using connector::Context;
using connector::Future;
using connector::Message;
using connector::Promise;
using connector::ServiceProvider;
using connector::common_services::AccessLogServiceProvider;
using connector::common_services::EchoServiceProvider;
using connector::common_services::LoggingServiceProvider;
using connector::common_services::StatisticsServiceProvider;
using connector::test_support::FakeConfiguration;
using MessagePtr = std::unique_ptr<Message>;

namespace app {
struct Ping : Message {};
struct Order : Message {};
}  // namespace app

// Discards everything, successfully.
class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// Passes every request on to an echo service, as the framework would.
class EchoContext : public Context {
 public:
  Future<MessagePtr> forward(MessagePtr&& message, Address&& address) override {
    return echo.deliver(std::move(message), std::move(address), std::move(none));
  }

 private:
  EchoServiceProvider echo;
  std::shared_ptr<Context> none;
};

std::string logPath(const char* name) {
  return std::string("/tmp/observability_bench_") + name + ".log";
}

// Round trips through `provider` in front of echo, with a message of type M.
template <typename M = app::Ping>
void roundTrips(benchmark::State& state, ServiceProvider& provider) {
  std::shared_ptr<Context> context = std::make_shared<EchoContext>();
  Address address("svc");
  MessagePtr message = std::make_unique<M>();
  for (auto _ : state) {
    Future<MessagePtr> answer = provider.deliver(std::move(message), std::move(address), std::move(context));
    message = answer.get();
    benchmark::DoNotOptimize(*message);
  }
  state.SetItemsProcessed(state.iterations());
}

void EchoAlone(benchmark::State& state) {
  EchoServiceProvider echo;
  roundTrips(state, echo);
}

void runAccessLog(benchmark::State& state, bool errorsOnly, const std::string& format,
                  const std::string& destination) {
  auto configuration = std::make_shared<FakeConfiguration>();
  AccessLogServiceProvider provider(configuration, "access");
  configuration->send("access.destination", destination);
  configuration->send("access.errorsOnly", errorsOnly);
  configuration->send("access.format", format);
  roundTrips(state, provider);
  // The writer's queue drops what a destination cannot keep up with: say how much was written.
  provider.flush();
  const AccessLogServiceProvider::LineCounts counts = provider.lineCounts();
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["written_share"] = static_cast<double>(counts.written) / iterations;
  state.counters["dropped_share"] = static_cast<double>(counts.dropped) / iterations;
}

void AccessLogNotWritten(benchmark::State& state) {
  runAccessLog(state, true, "text", "null");
}

void AccessLogJsonToNull(benchmark::State& state) {
  runAccessLog(state, false, "json", "null");
}

void AccessLogJsonToFile(benchmark::State& state) {
  runAccessLog(state, false, "json", "file:" + logPath("access"));
}

void runLogging(benchmark::State& state, std::ostream& stream) {
  LoggingServiceProvider provider(nullptr, "svc", stream);
  roundTrips(state, provider);
}

void LoggingToNullStream(benchmark::State& state) {
  NullBuffer buffer;
  std::ostream stream(&buffer);
  runLogging(state, stream);
}

void LoggingToFile(benchmark::State& state) {
  std::ofstream stream(logPath("logging"), std::ios::trunc);
  runLogging(state, stream);
}

// One provider shared by every thread of a case; thread 1 sends Orders when `types` is 2.
StatisticsServiceProvider& statistics() {
  static StatisticsServiceProvider provider(nullptr, "metrics");
  return provider;
}

void Statistics(benchmark::State& state) {
  roundTrips(state, statistics());
}

void StatisticsTwoTypes(benchmark::State& state) {
  if (state.thread_index() == 1) {
    roundTrips<app::Order>(state, statistics());
  } else {
    roundTrips(state, statistics());
  }
}

// Holds every request it is given, unanswered, until it goes.
class HoldingContext : public Context {
 public:
  Future<MessagePtr> forward(MessagePtr&&, Address&&) override {
    held_.emplace_back();
    return held_.back().getFuture();
  }

 private:
  std::vector<Promise<MessagePtr>> held_;
};

void StatisticsWithAThousandInFlight(benchmark::State& state) {
  StatisticsServiceProvider provider(nullptr, "metrics");
  auto holding = std::make_shared<HoldingContext>();
  for (int i = 0; i < 1000; ++i) {
    std::shared_ptr<Context> context = holding;
    provider.deliver(std::make_unique<app::Order>(), Address("svc"), std::move(context));
  }
  roundTrips(state, provider);
}

// The statistics provider's two clock readings a request, alone: the floor of its cost.
void TwoClockReadings(benchmark::State& state) {
  using foundation::core::detail::tick_clock;
  for (auto _ : state) {
    const tick_clock::time_point start = tick_clock::now();
    tick_clock::duration elapsed = tick_clock::now() - start;
    benchmark::DoNotOptimize(elapsed);
  }
}

template <int N>
struct Numbered : Message {};

// One request of each of the 100 types Numbered<0> to Numbered<99>, each latency its own.
template <int... N>
void deliverEach(StatisticsServiceProvider& provider, std::integer_sequence<int, N...>) {
  std::shared_ptr<Context> context = std::make_shared<EchoContext>();
  (provider.deliver(std::make_unique<Numbered<N>>(), Address("svc"), std::shared_ptr<Context>(context)).get(),
   ...);
}

void StatisticsSnapshot(benchmark::State& state) {
  StatisticsServiceProvider provider(nullptr, "metrics");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int round = 0; round < 100; ++round) {
        deliverEach(provider, std::make_integer_sequence<int, 100>());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(provider.snapshot());
  }
  state.counters["types"] = static_cast<double>(provider.snapshot().size());
  state.counters["bytes_per_type_per_thread"] =
      static_cast<double>(sizeof(connector::common_services::detail::TypeBlock));
}

BENCHMARK(EchoAlone);
// What two threads can add on this machine at all, for the statistics provider's two-thread rows.
BENCHMARK(EchoAlone)->Threads(1)->UseRealTime();
BENCHMARK(EchoAlone)->Threads(2)->UseRealTime();
BENCHMARK(AccessLogNotWritten);
BENCHMARK(LoggingToNullStream);
BENCHMARK(AccessLogJsonToNull);
BENCHMARK(LoggingToFile);
BENCHMARK(AccessLogJsonToFile);
BENCHMARK(Statistics);
BENCHMARK(Statistics)->Threads(1)->UseRealTime();
BENCHMARK(StatisticsTwoTypes)->Threads(2)->UseRealTime();
BENCHMARK(Statistics)->Threads(2)->UseRealTime();
BENCHMARK(StatisticsWithAThousandInFlight);
BENCHMARK(TwoClockReadings);
BENCHMARK(StatisticsSnapshot)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  const int status = connector::bench::runBenchmarks(argc, argv);
  std::remove(logPath("access").c_str());
  std::remove(logPath("logging").c_str());
  return status;
}
