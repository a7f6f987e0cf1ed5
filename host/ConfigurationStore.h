// The reference host's configuration store: values under keys, each set under a label, and
// live subscriptions to a key's value.
//
// Labels are layers. "default" is the lowest: a key's effective value is the value of the
// label other than "default" that was set most recently, or its "default" value when no other
// label has set it. So an operator's value set before a provider starts survives the default
// the provider writes when it starts.
//
// Types: a key's alternative of ConfigValue is fixed by its first value, whatever the label.
// A value of another alternative is refused before anything is stored or delivered, every time,
// so subscribers never see it: set() answers with a Future rejected with std::invalid_argument
// whose text names the key, what it takes and what it was given, e.g. "svc.enabled takes a bool
// (true or false), not the int 1".
//
// set() answers with an already settled Future<bool>: true when the value is now the key's
// effective value, false when it was stored under "default" but another label's value stays in
// force; rejected with std::invalid_argument for an empty key or label or a value of the wrong
// alternative.
//
// observe(key) gives a Publisher. Each subscription first receives the key's effective value
// (if it has one), then every change of it, in the order of the set() calls that made them. A
// set() under a label other than "default" delivers its value even when it is the value already in
// force, so that setting a value again makes its subscribers apply it again (an access log reopens
// its file, after a rename say); a set() under "default" that leaves the effective value as it was
// delivers nothing. Values are sent only as
// far as the subscriber has requested them (request(0) asks for nothing); the others wait, in
// order, for demand. After cancel() returns, the subscriber is never called again, and no call
// to it is still running unless cancel() was made from inside that call. The stream has no
// end: a subscription lasts until it is cancelled or the store and its publishers are gone.
//
// Delivery thread: values are delivered synchronously, on the thread that makes them
// deliverable: a change on the thread that calls set(), the current value and values held back
// for demand on the thread that calls request(). If another thread is already delivering to
// the same subscription, that thread delivers the value instead, so one subscriber never
// receives two values at once or out of order. No lock of the store is held while a subscriber
// is called, so a subscriber may call the store (set, observe, cancel) from onNext.
//
// A subscriber's onNext that throws (a value of the wrong alternative, say) is handed, with the
// key, to the delivery-error handler given at construction, on the delivering thread, and the
// store goes on delivering. The handler must not throw; if it does, the exception is dropped.
// When a subscriber refuses a change that set() delivers on its own thread, the set is taken
// back: the store holds what it held before (unless another set of that label came since), the
// subscribers that took the refused value get the value in force again, and set() answers with a
// Future rejected with std::invalid_argument naming the key, the value and the refusal's text.
//
// Threads: every operation is safe from any thread, concurrently with every other. The store's
// state is shared with its publishers and subscriptions, which stay usable after the store is
// destroyed (set() is then no longer possible, so nothing more is delivered).
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "framework/Configuration.h"

namespace connector {
namespace host {

namespace detail {
struct ConfigurationState;  // keys, layers and subscriptions; in ConfigurationStore.cpp
}

class ConfigurationStore final : public configuration::Configuration {
 public:
  using ConfigValue = configuration::ConfigValue;
  using DeliveryErrorHandler = std::function<void(const std::string& key, std::exception_ptr error)>;

  // A key's effective value and the label it was set under.
  struct Entry {
    std::string key;
    std::string label;
    ConfigValue value;
  };

  explicit ConfigurationStore(DeliveryErrorHandler onDeliveryError = {});
  ~ConfigurationStore() override;

  using Configuration::set;  // texts are stored as std::string, not as bool
  Future<bool> set(const std::string& key, ConfigValue value, const std::string& label) override;
  std::shared_ptr<reactive_streams::Publisher<ConfigValue>> observe(const std::string& key) override;

  // The key's effective value, or nothing when no label has set it.
  std::optional<Entry> get(const std::string& key) const;

  // Every key that has a value, with its effective value, in ascending order of key.
  std::vector<Entry> list() const;

 private:
  Future<bool> refuse(const std::string& key, const ConfigValue& value, const std::string& label,
                      const std::optional<ConfigValue>& previousAtLabel, const std::string& previousOverride,
                      std::exception_ptr refusal);

  std::shared_ptr<detail::ConfigurationState> state_;
};

}  // namespace host
}  // namespace connector
