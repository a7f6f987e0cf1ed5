// The reactive-streams interfaces through which the framework delivers streams of values (for
// example the successive values of one configuration key).
//
// A Publisher accepts subscribers, hands each a Subscription, then pushes values followed by at
// most one end signal (onComplete or onError). A subscriber asks for values with
// Subscription::request and stops them with Subscription::cancel. A Canceller owns a
// subscription from the consumer's side: holding it keeps the subscription going. On which
// threads a publisher calls its subscribers is the publisher's own contract.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>

#include "foundation/Export.h"
#include "framework/Future.h"

namespace connector {
namespace reactive_streams {

class CONNECTOR_EXPORT Subscription {
 public:
  virtual ~Subscription();
  // Asks for `count` more values; 0xFFFFFFFFFFFFFFFF means no limit.
  virtual void request(std::uint64_t count) = 0;
  // Asks the publisher to stop sending values to this subscription.
  virtual void cancel() = 0;
};

class CONNECTOR_EXPORT Subscriber {
 public:
  Subscriber() noexcept;
  Subscriber(const Subscriber&) = delete;
  Subscriber& operator=(const Subscriber&) = delete;
  virtual ~Subscriber();
};

// The calls a publisher makes on a subscriber of values of type T. getFuture() gives the one
// Future that reports how the stream ended.
template <typename T>
class SubscriberAPI : public Subscriber {
 public:
  virtual void onSubscribe(const std::shared_ptr<Subscription>& subscription) = 0;
  virtual void onComplete() = 0;
  virtual Future<bool> getFuture() = 0;
  virtual void onNext(T&& value) = 0;
  virtual void onError(std::exception_ptr error) = 0;
};

template <typename T>
class Publisher {
 public:
  virtual ~Publisher() = default;
  // Attaches `subscriber`; the publisher may keep the pointer for as long as it sends.
  virtual void subscribe(std::shared_ptr<SubscriberAPI<T>> subscriber) = 0;
};

// Owns a subscription from the consumer's side: cancel() ends it, and so does destroying the
// last owner of the canceller.
class CONNECTOR_EXPORT Canceller {
 public:
  Canceller() noexcept;
  Canceller(const Canceller&) = delete;
  Canceller& operator=(const Canceller&) = delete;
  virtual ~Canceller();
  virtual void cancel() = 0;
};

}  // namespace reactive_streams
}  // namespace connector
