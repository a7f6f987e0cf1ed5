#include "host/ConfigurationStore.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/DisplayText.h"

namespace connector {
namespace host {

namespace {

const char* const kDefaultLabel = "default";
constexpr std::uint64_t kUnbounded = UINT64_MAX;

class KeySubscription;

// What a key of `value`'s alternative takes, for the refusal of a value of another one.
std::string expectedType(const ConfigurationStore::ConfigValue& value) {
  const std::string type = describeType(value);
  if (type == "bool") {
    return "a bool (true or false)";
  }
  return (type == "int" || type == "unsigned" ? "an " : "a ") + type;
}

}  // namespace

namespace detail {

// Lock order: this mutex, then a subscription's. A subscription never takes this mutex while
// holding its own.
struct ConfigurationState {
  struct Key {
    std::map<std::string, ConfigurationStore::ConfigValue> byLabel;  // all of one alternative
    std::string override;  // the label other than "default" set most recently; empty if none
    std::vector<std::shared_ptr<KeySubscription>> subscriptions;

    const ConfigurationStore::ConfigValue* effective() const {
      auto found = byLabel.find(override.empty() ? std::string(kDefaultLabel) : override);
      return found == byLabel.end() ? nullptr : &found->second;
    }
    const std::string& effectiveLabel() const {
      static const std::string defaultLabel(kDefaultLabel);
      return override.empty() ? defaultLabel : override;
    }
  };

  explicit ConfigurationState(ConfigurationStore::DeliveryErrorHandler handler)
      : onDeliveryError(std::move(handler)) {}

  const ConfigurationStore::DeliveryErrorHandler onDeliveryError;  // never changed
  mutable std::mutex mutex;
  std::map<std::string, Key> keys;  // guarded by mutex
};

}  // namespace detail

namespace {

using ConfigValue = ConfigurationStore::ConfigValue;
using Subscriber = reactive_streams::SubscriberAPI<ConfigValue>;

// One subscriber's subscription to one key. Values are queued under the store's lock, in the
// order of the changes, and delivered by whichever thread finds the subscription idle, so a
// subscriber sees them one at a time and in order.
class KeySubscription final : public reactive_streams::Subscription,
                              public std::enable_shared_from_this<KeySubscription> {
 public:
  KeySubscription(std::weak_ptr<detail::ConfigurationState> state, std::string key,
                  std::shared_ptr<Subscriber> subscriber)
      : state_(std::move(state)), key_(std::move(key)), subscriber_(std::move(subscriber)) {}

  // Called with the store's lock held, so queue order is change order.
  void enqueue(const ConfigValue& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cancelled_) {
      pending_.push_back(value);
    }
  }

  void request(std::uint64_t count) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      demand_ = (kUnbounded - demand_ < count) ? kUnbounded : demand_ + count;
    }
    drain();
  }

  void cancel() override {
    // The store's list may hold the last owner of this subscription.
    std::shared_ptr<KeySubscription> self = shared_from_this();
    std::shared_ptr<Subscriber> released;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cancelled_ = true;
      pending_.clear();
      // A call running on another thread finishes before cancel() returns; one running on this
      // thread is the caller's own (a subscriber cancelling from onNext) and cannot be waited for.
      idle_.wait(lock, [this] { return !draining_ || drainer_ == std::this_thread::get_id(); });
      released = std::move(subscriber_);
    }
    // The subscriber is released outside the lock: its destructor may cancel again.
    released.reset();
    if (std::shared_ptr<detail::ConfigurationState> state = state_.lock()) {
      std::shared_ptr<KeySubscription> removed;
      std::lock_guard<std::mutex> lock(state->mutex);
      auto key = state->keys.find(key_);
      if (key != state->keys.end()) {
        auto& list = key->second.subscriptions;
        auto found = std::find(list.begin(), list.end(), self);
        if (found != list.end()) {
          removed = std::move(*found);
          list.erase(found);
        }
      }
    }
  }

  // Delivers queued values while there is demand, unless another thread is already doing so;
  // that thread then delivers whatever this one queued. Returns the first exception a delivery
  // made by this call threw (each is also reported), or null.
  std::exception_ptr drain() {
    std::exception_ptr refusal;
    std::unique_lock<std::mutex> lock(mutex_);
    if (draining_) {
      return refusal;
    }
    draining_ = true;
    drainer_ = std::this_thread::get_id();
    while (!cancelled_ && demand_ > 0 && !pending_.empty()) {
      ConfigValue value = std::move(pending_.front());
      pending_.pop_front();
      if (demand_ != kUnbounded) {
        --demand_;
      }
      std::shared_ptr<Subscriber> subscriber = subscriber_;
      lock.unlock();
      try {
        subscriber->onNext(std::move(value));
      } catch (...) {
        if (!refusal) {
          refusal = std::current_exception();
        }
        report(std::current_exception());
      }
      subscriber.reset();
      lock.lock();
    }
    draining_ = false;
    drainer_ = std::thread::id();
    lock.unlock();
    idle_.notify_all();
    return refusal;
  }

 private:
  void report(std::exception_ptr error) noexcept {
    std::shared_ptr<detail::ConfigurationState> state = state_.lock();
    if (!state || !state->onDeliveryError) {
      return;
    }
    try {
      state->onDeliveryError(key_, std::move(error));
    } catch (...) {
      // The handler's contract is not to throw; there is no one else to tell.
    }
  }

  const std::weak_ptr<detail::ConfigurationState> state_;
  const std::string key_;
  std::mutex mutex_;
  std::condition_variable idle_;            // notified when draining_ turns false
  std::shared_ptr<Subscriber> subscriber_;  // guarded by mutex_; released by cancel()
  std::deque<ConfigValue> pending_;         // guarded by mutex_; values not yet delivered
  std::uint64_t demand_ = 0;                // guarded by mutex_; kUnbounded means no limit
  bool cancelled_ = false;                  // guarded by mutex_
  bool draining_ = false;                   // guarded by mutex_; a thread is delivering
  std::thread::id drainer_;                 // guarded by mutex_; that thread
};

class KeyPublisher final : public reactive_streams::Publisher<ConfigValue> {
 public:
  KeyPublisher(std::shared_ptr<detail::ConfigurationState> state, std::string key)
      : state_(std::move(state)), key_(std::move(key)) {}

  void subscribe(std::shared_ptr<Subscriber> subscriber) override {
    if (!subscriber) {
      throw std::invalid_argument("cannot subscribe a null subscriber to configuration key \"" + key_ + "\"");
    }
    auto subscription = std::make_shared<KeySubscription>(state_, key_, subscriber);
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      detail::ConfigurationState::Key& key = state_->keys[key_];
      key.subscriptions.push_back(subscription);
      if (const ConfigValue* current = key.effective()) {
        subscription->enqueue(*current);
      }
    }
    try {
      subscriber->onSubscribe(subscription);
    } catch (...) {
      subscription->cancel();
      throw;
    }
  }

 private:
  const std::shared_ptr<detail::ConfigurationState> state_;
  const std::string key_;
};

}  // namespace

ConfigurationStore::ConfigurationStore(DeliveryErrorHandler onDeliveryError)
    : state_(std::make_shared<detail::ConfigurationState>(std::move(onDeliveryError))) {}

ConfigurationStore::~ConfigurationStore() = default;

Future<bool> ConfigurationStore::set(const std::string& key, ConfigValue value, const std::string& label) {
  if (key.empty()) {
    return makeRejectedFuture<bool>(std::invalid_argument("a configuration key must not be empty"));
  }
  if (label.empty()) {
    return makeRejectedFuture<bool>(
        std::invalid_argument("the label for configuration key \"" + key +
                              "\" must not be empty (\"default\" sets a default value)"));
  }
  const bool isDefault = label == kDefaultLabel;
  std::vector<std::shared_ptr<KeySubscription>> changed;
  std::optional<ConfigValue> previousAtLabel;
  std::string previousOverride;
  bool taken = false;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    detail::ConfigurationState::Key& entry = state_->keys[key];
    // Every value stored under a key has the alternative of the first one.
    if (!entry.byLabel.empty() && entry.byLabel.begin()->second.which() != value.which()) {
      return makeRejectedFuture<bool>(
          std::invalid_argument(key + " takes " + expectedType(entry.byLabel.begin()->second) + ", not the " +
                                describeType(value) + " " + describeValue(value)));
    }
    std::optional<ConfigValue> before;
    if (const ConfigValue* current = entry.effective()) {
      before = *current;
    }
    auto atLabel = entry.byLabel.find(label);
    if (atLabel != entry.byLabel.end()) {
      previousAtLabel = atLabel->second;
    }
    previousOverride = entry.override;
    entry.byLabel[label] = value;
    if (!isDefault) {
      entry.override = label;
    }
    taken = !isDefault || entry.override.empty();
    const ConfigValue& now = *entry.effective();
    // A set under another label is in force and reaches the subscribers even when it repeats the
    // value, so that setting a value again applies it again (an access log reopens its file).
    if (!isDefault || !before || !(*before == now)) {
      for (const auto& subscription : entry.subscriptions) {
        subscription->enqueue(now);
      }
      changed = entry.subscriptions;
    }
  }
  std::exception_ptr refusal;
  for (const auto& subscription : changed) {
    std::exception_ptr error = subscription->drain();
    refusal = refusal ? refusal : error;
  }
  if (refusal) {
    return refuse(key, value, label, previousAtLabel, previousOverride, refusal);
  }
  return makeResolvedFuture(taken);
}

Future<bool> ConfigurationStore::refuse(const std::string& key, const ConfigValue& value,
                                        const std::string& label,
                                        const std::optional<ConfigValue>& previousAtLabel,
                                        const std::string& previousOverride, std::exception_ptr refusal) {
  std::string reason = "an exception that is not a std::exception";
  try {
    std::rethrow_exception(refusal);
  } catch (const std::exception& error) {
    reason = error.what();
  } catch (...) {
  }
  std::vector<std::shared_ptr<KeySubscription>> changed;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto& entry = state_->keys[key];
    auto atLabel = entry.byLabel.find(label);
    // A set made since, by another thread, stays: only this set's own value is taken back.
    if (atLabel != entry.byLabel.end() && atLabel->second == value) {
      if (previousAtLabel) {
        atLabel->second = *previousAtLabel;
      } else {
        entry.byLabel.erase(atLabel);
      }
      entry.override = previousOverride;
      // The subscribers that took the refused value get the one in force again.
      const ConfigValue* now = entry.effective();
      if (now != nullptr && !(*now == value)) {
        for (const auto& subscription : entry.subscriptions) {
          subscription->enqueue(*now);
        }
        changed = entry.subscriptions;
      }
    }
  }
  for (const auto& subscription : changed) {
    subscription->drain();
  }
  return makeRejectedFuture<bool>(std::invalid_argument(
      key + " = " + describeValue(value) + " was refused by a subscriber and not kept: " + reason));
}

std::shared_ptr<reactive_streams::Publisher<ConfigurationStore::ConfigValue>> ConfigurationStore::observe(
    const std::string& key) {
  return std::make_shared<KeyPublisher>(state_, key);
}

std::optional<ConfigurationStore::Entry> ConfigurationStore::get(const std::string& key) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto found = state_->keys.find(key);
  if (found == state_->keys.end() || found->second.effective() == nullptr) {
    return std::nullopt;
  }
  return Entry{key, found->second.effectiveLabel(), *found->second.effective()};
}

std::vector<ConfigurationStore::Entry> ConfigurationStore::list() const {
  std::vector<Entry> entries;
  std::lock_guard<std::mutex> lock(state_->mutex);
  for (const auto& key : state_->keys) {
    if (const ConfigValue* value = key.second.effective()) {
      entries.push_back(Entry{key.first, key.second.effectiveLabel(), *value});
    }
  }
  return entries;
}

}  // namespace host
}  // namespace connector
