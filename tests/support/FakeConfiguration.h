// A recording configuration store, for tests of the code that writes and follows configuration
// keys.
//
// FakeConfiguration records every set() and observe() in order of arrival. Each subscriber of a
// key is sent onSubscribe at once with a FakeSubscription whose cancel() is recorded, so a test
// sees which keys were cancelled and in which order. send() pushes any ConfigValue to the
// subscribers of a key on the calling thread; an exception of a subscriber's onNext reaches the
// caller of send().
//
// Threads: every member may be called from any thread, concurrently. failObserveOf is set before
// the fake is shared.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/Configuration.h"
#include "tests/support/ReactiveFakes.h"

namespace connector {
namespace test_support {

class FakeConfiguration : public configuration::Configuration {
 public:
  using ConfigValue = configuration::ConfigValue;
  using Publisher = FakePublisher<ConfigValue>;

  struct Call {
    std::string operation;  // "set" or "observe"
    std::string key;
    std::optional<ConfigValue> value;  // set() only
    std::string label;                 // set() only
  };

  // observe() of this key throws std::runtime_error("observe failed").
  std::optional<std::string> failObserveOf;

  using configuration::Configuration::set;
  Future<bool> set(const std::string& key, ConfigValue value, const std::string& label) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(Call{"set", key, std::move(value), label});
    return makeResolvedFuture(true);
  }

  std::shared_ptr<reactive_streams::Publisher<ConfigValue>> observe(const std::string& key) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(Call{"observe", key, std::nullopt, {}});
    if (failObserveOf == key) {
      throw std::runtime_error("observe failed");
    }
    auto publisher = std::make_shared<Publisher>();
    publisher->onSubscribed = [this, key](const Publisher::SubscriberPtr& subscriber) {
      auto subscription = std::make_shared<FakeSubscription>();
      subscription->onCancel = [this, key] {
        std::lock_guard<std::mutex> lock(mutex_);
        cancelled_.push_back(key);
      };
      {
        std::lock_guard<std::mutex> lock(mutex_);
        subscriptions_.push_back(subscription);  // the subscriber holds it only weakly
      }
      subscriber->onSubscribe(subscription);
    };
    publishers_[key].push_back(publisher);
    return publisher;
  }

  // Sends `value` to every subscriber of `key`.
  void send(const std::string& key, const ConfigValue& value) {
    std::vector<std::shared_ptr<Publisher>> targets;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      targets = publishers_[key];
    }
    for (const auto& publisher : targets) {
      publisher->publish(value);
    }
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  // The keys whose subscription was cancelled, once per cancel(), in order.
  std::vector<std::string> cancelledKeys() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Call> calls_;                                                    // guarded by mutex_
  std::map<std::string, std::vector<std::shared_ptr<Publisher>>> publishers_;  // guarded by mutex_
  std::vector<std::shared_ptr<FakeSubscription>> subscriptions_;               // guarded by mutex_
  std::vector<std::string> cancelled_;                                         // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
