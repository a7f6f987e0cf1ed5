// How many repeats a stress test runs. Each test names its full count, which is what runs by
// default; CONNECTOR_STRESS_SCALE in the environment scales every count, e.g. 0.01 for a quick
// local run or 10 for a long soak.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace connector::test_support {

inline int stressCount(int full) {
  const char* text = std::getenv("CONNECTOR_STRESS_SCALE");
  return std::max(1, static_cast<int>(full * (text != nullptr ? std::atof(text) : 1.0)));
}

}  // namespace connector::test_support
