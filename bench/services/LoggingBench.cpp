// Placeholder: benchmark not yet written.
#include <benchmark/benchmark.h>
BENCHMARK_MAIN();
