// A configuration store for tests of the code that writes and follows configuration keys.
//
// set() stores the value; a subscriber of observe(key) is sent onSubscribe at once and then the
// value last set for the key, if any, as a store delivers the current value. send() pushes any
// ConfigValue to the subscribers of a key on the calling thread; an exception of a subscriber's
// onNext reaches the caller of send(). `failAt` ("set KEY" or "subscribe KEY") makes that call
// throw std::runtime_error. The cancel() of each subscription is recorded by its key.
//
// Threads: every member may be called from any thread, concurrently; failAt is set before the
// fake is shared, which must outlive the publishers it hands out.
#pragma once

#include <functional>
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
  using SubscriberPtr = std::shared_ptr<reactive_streams::SubscriberAPI<ConfigValue>>;

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
    return std::make_shared<KeyPublisher>([this, key](const SubscriberPtr& subscriber) {
      if (failAt == "subscribe " + key) {
        throw std::runtime_error(failAt);
      }
      auto subscription = std::make_shared<FakeSubscription>();
      subscription->onCancel = [this, key] {
        std::lock_guard<std::mutex> lock(mutex_);
        cancelled_.push_back(key);
      };
      std::unique_lock<std::mutex> lock(mutex_);
      // Kept here with its subscription, which the subscriber holds only weakly.
      subscribers_[key].emplace_back(subscriber, subscription);
      std::optional<ConfigValue> value;
      if (const auto current = values_.find(key); current != values_.end()) {
        value = current->second;
      }
      lock.unlock();
      subscriber->onSubscribe(subscription);
      value ? subscriber->onNext(std::move(*value)) : void();
    });
  }

  // Sends `value` to every subscriber of `key`, in order of subscription.
  void send(const std::string& key, const ConfigValue& value) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto targets = subscribers_[key];
    lock.unlock();
    for (const auto& target : targets) {
      target.first->onNext(ConfigValue(value));
    }
  }

  // The keys whose subscription was cancelled, once per cancel(), in order.
  std::vector<std::string> cancelledKeys() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
  }

 private:
  struct KeyPublisher : reactive_streams::Publisher<ConfigValue> {
    explicit KeyPublisher(std::function<void(const SubscriberPtr&)> take) : take_(std::move(take)) {}
    void subscribe(SubscriberPtr subscriber) override { take_(subscriber); }
    const std::function<void(const SubscriberPtr&)> take_;
  };

  mutable std::mutex mutex_;
  std::map<std::string, ConfigValue> values_;  // guarded by mutex_
  std::map<std::string, std::vector<std::pair<SubscriberPtr, std::shared_ptr<FakeSubscription>>>>
      subscribers_;                     // guarded by mutex_
  std::vector<std::string> cancelled_;  // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
