// The main() of every benchmark binary here.
//
// libstdc++ skips atomic reference counts and lock-prefixed paths while a process has a single
// thread, which would flatter every figure; a host always has several threads, so one is
// started and joined before anything is measured.
#pragma once

#include <benchmark/benchmark.h>

#include <thread>

namespace connector {
namespace bench {

inline int runBenchmarks(int argc, char** argv) {
  std::thread([] {}).join();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
}  // namespace connector
