// The log-linear latency histogram's costs, in one run:
//   Record          one latency by the block's owner (relaxed loads and stores)
//   RecordShared    one latency into a block several threads write (locked increments)
//   Snapshot100x4   the snapshot of 100 message types, each recorded by 4 threads, for two spreads
// Every case reports bytes_per_type_thread, the memory one thread costs one message type.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "bench/BenchMain.h"
#include "services/detail/LogLinearHistogram.h"

namespace {

using connector::common_services::detail::LatencyBlock;
using connector::common_services::detail::LatencyMerge;
using connector::common_services::detail::LatencySnapshot;

// Latencies from 100 ns to tens of milliseconds, median 50 us, drawn once so that drawing them
// is not measured.
std::vector<std::int64_t> latencies(std::size_t n, double sigma = 1.5) {
  std::mt19937_64 random(20261124);
  std::lognormal_distribution<double> spread(std::log(50'000.0), sigma);
  std::vector<std::int64_t> drawn(n);
  for (std::int64_t& latency : drawn) {
    latency = 100 + static_cast<std::int64_t>(spread(random));
  }
  return drawn;
}

void reportBytes(benchmark::State& state) {
  state.counters["bytes_per_type_thread"] = static_cast<double>(sizeof(LatencyBlock));
}

void Record(benchmark::State& state) {
  const std::vector<std::int64_t> drawn = latencies(4096);
  auto block = std::make_unique<LatencyBlock>();
  std::size_t i = 0;
  for (auto _ : state) {
    block->record(drawn[i++ % drawn.size()]);
  }
  benchmark::DoNotOptimize(block->sumNanoseconds.load());
  reportBytes(state);
}

void RecordShared(benchmark::State& state) {
  const std::vector<std::int64_t> drawn = latencies(4096);
  auto block = std::make_unique<LatencyBlock>();
  std::size_t i = 0;
  for (auto _ : state) {
    block->recordShared(drawn[i++ % drawn.size()]);
  }
  benchmark::DoNotOptimize(block->sumNanoseconds.load());
  reportBytes(state);
}

// 100 types, 4 blocks each, 1,000 latencies per block: the work of one snapshot of every type.
// The argument is the spread of the latencies, in hundredths of the log-normal's sigma: 150 spans
// 100 ns to tens of milliseconds (about 160 cache lines of counts per block), 25 is a service
// whose latencies stay within about 2x of each other (about 20 lines).
void Snapshot100x4(benchmark::State& state) {
  constexpr std::size_t kTypes = 100;
  constexpr std::size_t kThreads = 4;
  const std::vector<std::int64_t> drawn = latencies(1000, static_cast<double>(state.range(0)) / 100);
  auto blocks = std::make_unique<LatencyBlock[]>(kTypes * kThreads);
  for (std::size_t b = 0; b < kTypes * kThreads; ++b) {
    for (std::int64_t latency : drawn) {
      blocks[b].record(latency);
    }
  }
  for (auto _ : state) {
    for (std::size_t type = 0; type < kTypes; ++type) {
      LatencyMerge merge;
      for (std::size_t thread = 0; thread < kThreads; ++thread) {
        merge.add(blocks[type * kThreads + thread]);
      }
      LatencySnapshot snapshot = merge.snapshot();
      benchmark::DoNotOptimize(snapshot);
    }
  }
  reportBytes(state);
}

}  // namespace

BENCHMARK(Record);
BENCHMARK(RecordShared);
BENCHMARK(Snapshot100x4)->Arg(150)->Arg(25)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
  return connector::bench::runBenchmarks(argc, argv);
}
