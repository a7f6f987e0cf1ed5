// A configuration store for tests of the code that writes and follows configuration keys.
//
// set() stores the value; a subscriber of observe(key) is sent onSubscribe at once and then the
// value last set for the key, if any, as a store delivers the current value. send() pushes any
// ConfigValue to the subscribers of a key on the calling thread; an exception of a subscriber's
// onNext reaches the caller of send(). `failAt` ("set KEY" or "subscribe KEY") makes that call
// throw std::runtime_error. The cancel() of each subscription is recorded by its key.
//
// Threads: every member may be called from any thread, concurrently; failAt is set before the
// fake is shared.
#pragma once

#include <map>
#include <memory>
#include <mutex>
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

  std::string failAt;

  using configuration::Configuration::set;
  Future<bool> set(const std::string& key, ConfigValue value, const std::string&) override {
    if (failAt == "set " + key) {
      throw std::runtime_error(failAt);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    values_.insert_or_assign(key, std::move(value));
    return makeResolvedFuture(true);
  }

  std::shared_ptr<reactive_streams::Publisher<ConfigValue>> observe(const std::string& key) override {
    auto publisher = std::make_shared<Publisher>();
    if (failAt == "subscribe " + key) {
      publisher->subscribeFailure = std::make_exception_ptr(std::runtime_error(failAt));
    }
    auto subscription = std::make_shared<FakeSubscription>();
    subscription->onCancel = [this, key] {
      std::lock_guard<std::mutex> lock(mutex_);
      cancelled_.push_back(key);
    };
    // The publisher holds the subscription, which the subscriber holds only weakly.
    publisher->onSubscribed = [this, key, subscription](const Publisher::SubscriberPtr& subscriber) {
      subscriber->onSubscribe(subscription);
      std::unique_lock<std::mutex> lock(mutex_);
      const auto current = values_.find(key);
      if (current != values_.end()) {
        ConfigValue value = current->second;
        lock.unlock();
        subscriber->onNext(std::move(value));
      }
    };
    std::lock_guard<std::mutex> lock(mutex_);
    publishers_[key].push_back(publisher);
    return publisher;
  }

  // Sends `value` to every subscriber of `key`.
  void send(const std::string& key, const ConfigValue& value) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::vector<std::shared_ptr<Publisher>> targets = publishers_[key];
    lock.unlock();
    for (const auto& publisher : targets) {
      publisher->publish(value);
    }
  }

  // The keys whose subscription was cancelled, once per cancel(), in order.
  std::vector<std::string> cancelledKeys() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, ConfigValue> values_;                                  // guarded by mutex_
  std::map<std::string, std::vector<std::shared_ptr<Publisher>>> publishers_;  // guarded by mutex_
  std::vector<std::string> cancelled_;                                         // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
