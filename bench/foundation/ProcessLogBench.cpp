// What a record costs the thread that writes it, for each destination of the process log, side
// by side: async:file: against file: (which flushes every record), and async: in front of a
// destination that stalls (1 ms per record, through the log's test destination) against null.
//
// Every case writes one info record of the same text per iteration on one channel. The stalled
// case also checks that every record was either written or counted as dropped.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench/BenchMain.h"
#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"

namespace {

namespace flog = foundation::log;

const std::string kRecord = "request 12345 answered in 0.42 ms by svc for client 10.0.0.7";

std::string benchFile() {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/connector-process-log-bench.log";
}

void writeRecords(benchmark::State& state, const std::string& destination) {
  flog::set_specification("info");
  flog::set_destination(destination);
  const flog::channel channel("bench.process_log");
  for (auto _ : state) {
    channel.info(kRecord);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_File(benchmark::State& state) {
  writeRecords(state, "file:" + benchFile());
  flog::set_destination("null");
}

void BM_AsyncFile(benchmark::State& state) {
  const auto before = flog::statistics();
  writeRecords(state, "async:file:" + benchFile());
  flog::set_destination("null");  // writes out the queue, outside the timed loop
  state.counters["dropped"] = static_cast<double>(flog::statistics().dropped - before.dropped);
}

void BM_Null(benchmark::State& state) {
  writeRecords(state, "null");
}

// Records the stalling destination wrote, and whether it still stalls.
std::atomic<std::uint64_t> stalledWritten{0};
std::atomic<bool> stalling{true};

void BM_AsyncStalled(benchmark::State& state) {
  flog::testing::define_test_destination("bench.stall", [](std::string_view record) {
    if (record.find("[bench.process_log]") == std::string_view::npos) {
      return;  // the queue's drop report
    }
    stalledWritten.fetch_add(1, std::memory_order_relaxed);
    if (stalling.load(std::memory_order_relaxed)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  stalledWritten = 0;
  stalling = true;
  const auto before = flog::statistics();
  writeRecords(state, "async:test:bench.stall");
  stalling = false;               // the rest of the queue goes out at once
  flog::set_destination("null");  // and is written out before this returns
  const std::uint64_t dropped = flog::statistics().dropped - before.dropped;
  const std::uint64_t written = stalledWritten.load();
  state.counters["dropped"] = static_cast<double>(dropped);
  state.counters["written"] = static_cast<double>(written);
  if (dropped + written != static_cast<std::uint64_t>(state.iterations())) {
    state.SkipWithError("the dropped count does not match the records that did not fit");
  }
}

BENCHMARK(BM_File);
BENCHMARK(BM_AsyncFile);
BENCHMARK(BM_Null);
BENCHMARK(BM_AsyncStalled);

}  // namespace

int main(int argc, char** argv) {
  return connector::bench::runBenchmarks(argc, argv);
}
