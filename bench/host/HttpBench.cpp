// The HTTP monitoring endpoint's costs, side by side in one run:
//   ScrapeOf100TypesOn4Providers  one GET /metrics of 4 statistics providers that have each seen
//       requests of 100 message types; counter server_cpu_us is the CPU time of the endpoint's I/O
//       thread per scrape (reading the request, rendering, writing), read from that thread's clock
//   StatisticsRequest/scraping:0  a request's round trip through a statistics provider in front of
//   StatisticsRequest/scraping:1  echo, without and with a client scraping the endpoint every 100 ms;
//       the ratio of the two is what scraping costs the request path
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "bench/BenchMain.h"
#include "foundation/log/Log.h"
#include "host/HttpServer.h"
#include "host/Metrics.h"
#include "host/MonitoringSources.h"
#include "services/EchoServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "tests/support/HttpPeer.h"

namespace {

using namespace connector;
using common_services::StatisticsServiceProvider;
using MessagePtr = std::unique_ptr<Message>;

template <std::size_t N>
struct Typed : Message {};

// Passes every request on to an echo service, as the framework would.
class EchoContext : public Context {
 public:
  Future<MessagePtr> forward(MessagePtr&& message, Address&& address) override {
    return echo_.deliver(std::move(message), std::move(address), nullptr);
  }

 private:
  common_services::EchoServiceProvider echo_;
};

MessagePtr roundTrip(ServiceProvider& provider, MessagePtr message) {
  return provider.deliver(std::move(message), Address("svc"), std::make_shared<EchoContext>()).get();
}

template <std::size_t... N>
void sendEveryType(ServiceProvider& provider, std::index_sequence<N...>) {
  (roundTrip(provider, std::make_unique<Typed<N>>()), ...);
}

// An endpoint whose /metrics renders `sources`; `ioClock` is set to its I/O thread's CPU clock at
// the first scrape.
std::unique_ptr<host::HttpServer> endpoint(host::MonitoringSources sources, clockid_t* ioClock = nullptr) {
  host::HttpServer::Options options;
  options.port = 0;
  options.metrics = [sources = std::move(sources), ioClock] {
    if (ioClock != nullptr) {
      pthread_getcpuclockid(pthread_self(), ioClock);
    }
    return host::renderMetrics(sources, {});
  };
  return std::make_unique<host::HttpServer>(std::move(options));
}

double cpuMicroseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

const std::string kScrape = "GET /metrics HTTP/1.1\r\nHost: bench\r\n\r\n";

void ScrapeOf100TypesOn4Providers(benchmark::State& state) {
  host::MonitoringSources sources;
  for (int p = 0; p < 4; ++p) {
    auto provider = std::make_shared<StatisticsServiceProvider>(nullptr, "metrics" + std::to_string(p));
    sendEveryType(*provider, std::make_index_sequence<100>());
    sources.statistics.push_back(provider);
  }
  clockid_t ioClock{};
  auto server = endpoint(sources, &ioClock);
  test_support::HttpPeer peer(server->port());
  peer.send(kScrape);
  std::size_t bytes = peer.next().size();  // the first scrape learns the I/O thread's clock
  double cpu = 0;
  for (auto _ : state) {
    const double before = cpuMicroseconds(ioClock);
    peer.send(kScrape);
    bytes = peer.next().size();
    cpu += cpuMicroseconds(ioClock) - before;
  }
  state.counters["server_cpu_us"] = benchmark::Counter(cpu / static_cast<double>(state.iterations()));
  state.counters["answer_bytes"] = static_cast<double>(bytes);
}

void StatisticsRequest(benchmark::State& state) {
  auto provider = std::make_shared<StatisticsServiceProvider>(nullptr, "metrics");
  host::MonitoringSources sources;
  sources.statistics.push_back(provider);
  auto server = endpoint(sources);
  std::mutex mutex;
  std::condition_variable wake;
  bool done = false;
  int scrapes = 0;
  std::thread scraper;
  if (state.range(0) != 0) {
    scraper = std::thread([&] {
      test_support::HttpPeer peer(server->port());
      std::unique_lock<std::mutex> lock(mutex);
      while (!wake.wait_for(lock, std::chrono::milliseconds(100), [&] { return done; })) {
        peer.send(kScrape);
        peer.next();
        ++scrapes;
      }
    });
  }
  MessagePtr message = std::make_unique<Typed<0>>();
  for (auto _ : state) {
    message = roundTrip(*provider, std::move(message));
    benchmark::DoNotOptimize(*message);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  wake.notify_all();
  if (scraper.joinable()) {
    scraper.join();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["scrapes"] = scrapes;
}

}  // namespace

BENCHMARK(ScrapeOf100TypesOn4Providers)->Unit(benchmark::kMicrosecond);
BENCHMARK(StatisticsRequest)->ArgName("scraping")->Arg(0)->Arg(1)->MinTime(2.0);

int main(int argc, char** argv) {
  foundation::log::set_specification("off");
  return connector::bench::runBenchmarks(argc, argv);
}
