// A demo service that fails on purpose: it answers every message with the message itself, except
// every third one (the 3rd, 6th, ...), which it refuses with std::runtime_error "flaky: refused
// request N", N counting the messages it has received from 1. For showing how failures look in
// the access log and the statistics.
//
// Owns nothing between calls; deliver() is safe from any number of threads at once (the count is
// atomic) and always answers with a settled future.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "framework/Future.h"
#include "framework/ServiceProvider.h"

namespace demo {

class FlakyServiceProvider final : public connector::ServiceProvider {
 public:
  connector::Future<std::unique_ptr<connector::Message>> deliver(
      std::unique_ptr<connector::Message>&& message, connector::Address&&,
      std::shared_ptr<connector::Context>&&) override {
    const std::uint64_t number = received_.fetch_add(1) + 1;
    if (number % 3 == 0) {
      return connector::makeRejectedFuture<std::unique_ptr<connector::Message>>(
          std::runtime_error("flaky: refused request " + std::to_string(number)));
    }
    return connector::makeResolvedFuture(std::move(message));
  }

 private:
  std::atomic<std::uint64_t> received_{0};
};

}  // namespace demo
