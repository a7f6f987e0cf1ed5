// A connector for tests whose service provider names the test sets, and which counts how often
// they were asked for. Safe from any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "framework/Connector.h"

namespace connector {
namespace testing {

class FakeConnector : public Connector {
 public:
  explicit FakeConnector(std::set<std::string> names = {}) : names_(std::move(names)) {}

  void setNames(std::set<std::string> names) {
    std::lock_guard<std::mutex> lock(mutex_);
    names_ = std::move(names);
  }

  std::set<std::string> getServiceProviderNames() override {
    ++queries_;
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

  int queries() const { return queries_.load(); }

 private:
  std::mutex mutex_;
  std::set<std::string> names_;  // guarded by mutex_
  std::atomic<int> queries_{0};
};

}  // namespace testing
}  // namespace connector
