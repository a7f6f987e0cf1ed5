// What every fuzzer shares: the input read as a series of choices, the outcome of a call as a
// comparable text, and the report of a disagreement with the fuzzer's model, which fuzz/run.sh
// looks for. Each fuzzer defines runOne(), which plays one input against its model.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

// Reports a disagreement with the model and stops. The report is built only when the check
// fails: the checks run by the million.
#define MODEL_CHECK(ok, what) \
  ((ok) ? void() : (std::fprintf(stderr, "MODEL MISMATCH: %s\n", std::string(what).c_str()), std::abort()))

namespace fuzz {

struct Input : FuzzedDataProvider {
  using FuzzedDataProvider::FuzzedDataProvider;
  int pick(int choices) { return ConsumeIntegralInRange<int>(0, choices - 1); }
};

// What `operation` returned ("ok" for nothing), or "throw:" and the text of what it threw
// ("throw:other" for what is not a std::exception).
template <typename F>
std::string outcomeOf(F&& operation) {
  try {
    if constexpr (std::is_void_v<decltype(operation())>) {
      operation();
      return "ok";
    } else {
      return operation();
    }
  } catch (const std::exception& e) {
    return std::string("throw:") + e.what();
  } catch (...) {
    return "throw:other";
  }
}

inline void expect(const std::string& operation, const std::string& expected, const std::string& actual) {
  MODEL_CHECK(actual == expected, operation + ": expected " + expected + ", got " + actual);
}

}  // namespace fuzz

void runOne(fuzz::Input& input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  runOne(input);
  return 0;
}
