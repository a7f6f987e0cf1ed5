// The service-provider contract: the base class of every object that answers messages, and the
// three framework types a delivery carries (Message, Address, Context).
//
// The host owns each provider through std::shared_ptr and calls deliver() for every message
// addressed to it; deliver() returns the Future of the answer. Messages are owned through
// std::unique_ptr and move along the delivery: from the host into deliver(), on through
// Context::forward(), and back inside the answer. Whether deliver() may run on several threads
// at once is each provider's own contract; both of this library's providers allow it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "foundation/Export.h"
#include "framework/Future.h"

namespace connector {
namespace common {

// The lifecycle the framework drives on its objects. Both operations do nothing by default; a
// provider that overrides neither answers from the end of its constructor until its destructor.
class CONNECTOR_EXPORT Lifecycle {
 public:
  Lifecycle() noexcept;
  virtual ~Lifecycle();
  virtual void start();
  virtual void stop();

 private:
  // The framework's own bookkeeping word; providers never touch it.
  [[maybe_unused]] std::uintptr_t frameworkWord_ = 0;
};

}  // namespace common

// A message. Polymorphic; always owned through std::unique_ptr<Message>, so deleting it runs
// the most-derived destructor. The name of its dynamic type (typeid) identifies its kind.
class CONNECTOR_EXPORT Message {
 public:
  Message() = default;
  Message(const Message&) = default;
  Message(Message&&) = default;
  Message& operator=(const Message&) = default;
  Message& operator=(Message&&) = default;
  virtual ~Message();
};

// Where a message is sent. A small value type: the host routes by its name. Providers pass it
// on without looking at it.
class CONNECTOR_EXPORT Address {
 public:
  Address() = default;
  explicit Address(std::string name) : name_(std::move(name)) {}
  const std::string& name() const noexcept { return name_; }
  friend bool operator==(const Address& a, const Address& b) { return a.name_ == b.name_; }
  friend bool operator!=(const Address& a, const Address& b) { return !(a == b); }

 private:
  std::string name_;
};

// The per-delivery context, shared through std::shared_ptr. forward() passes a message on along
// the rest of the delivery chain for the address and returns the Future of the answer.
class CONNECTOR_EXPORT Context {
 public:
  Context() = default;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  virtual ~Context();
  virtual Future<std::unique_ptr<Message>> forward(std::unique_ptr<Message>&& message, Address&& address) = 0;
};

// The base of every service provider. The host owns providers through std::shared_ptr, so a
// provider may call shared_from_this(); neither of this library's providers does.
class CONNECTOR_EXPORT ServiceProvider : public common::Lifecycle,
                                         public std::enable_shared_from_this<ServiceProvider> {
 public:
  ServiceProvider() noexcept;
  ServiceProvider(const ServiceProvider&) = delete;
  ServiceProvider& operator=(const ServiceProvider&) = delete;
  ~ServiceProvider() override;

  // Answers `message`. The returned Future is valid; it may already be settled or be settled
  // later by whoever holds its Promise. A failure of the answer travels inside the Future; what
  // deliver() itself may throw is each provider's own contract. A provider may take over, pass
  // on or leave each argument with the caller.
  virtual Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                                   std::shared_ptr<Context>&& context) = 0;
};

}  // namespace connector
