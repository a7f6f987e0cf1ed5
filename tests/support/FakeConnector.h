// A connector for tests whose service provider names the test sets. Safe from any thread.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "framework/Connector.h"

namespace connector {
namespace test_support {

class FakeConnector : public Connector {
 public:
  explicit FakeConnector(std::set<std::string> names = {}) : names_(std::move(names)) {}
  void setNames(std::set<std::string> names) {
    std::lock_guard<std::mutex> lock(mutex_);
    names_ = std::move(names);
  }
  std::set<std::string> getServiceProviderNames() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

 private:
  std::mutex mutex_;
  std::set<std::string> names_;  // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
