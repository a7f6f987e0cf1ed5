// A test message that counts its live instances, so a test can prove that every message is
// deleted exactly once: the count returns to its starting value, and a double delete trips
// the sanitizers or drives the count below it.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "framework/ServiceProvider.h"

namespace connector {
namespace test_support {

class CountedMessage : public Message {
 public:
  explicit CountedMessage(std::string text = {}) : text_(std::move(text)) { live_.fetch_add(1); }
  CountedMessage(const CountedMessage&) = delete;
  ~CountedMessage() override { live_.fetch_sub(1); }

  const std::string& text() const { return text_; }

  // Instances alive right now, across all threads.
  static long alive() { return live_.load(); }

 private:
  static inline std::atomic<long> live_{0};
  std::string text_;
};

}  // namespace test_support
}  // namespace connector
