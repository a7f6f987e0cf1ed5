// The reference host's connector: named service providers, and routes that send each message
// along a chain of them.
//
// A route maps an address name to a chain of provider names. send() delivers a message to the
// first provider of its address's chain; that provider's Context::forward() passes it to the
// second, and so on. Providers are looked up by name at each step, so a chain may name a
// provider that is added later, and one removed meanwhile answers as missing. A send to an
// unknown address, a step to a provider that is not added, and a forward() from the last
// provider of a chain all answer with a rejected Future whose std::runtime_error names the
// address and the provider; an exception thrown by a provider's deliver() is returned the same
// way, as a rejected Future holding that exception. send() and forward() never throw for these.
//
// Ownership: the connector shares ownership of every provider it holds; a delivery in flight
// keeps its provider alive even if it is removed meanwhile. Contexts share the connector's
// registry, so a forward() made after the connector is destroyed still answers (as missing).
//
// Threads: every operation is safe from any thread, concurrently with every other. A delivery
// runs on the thread that calls send() or forward(); no lock of the connector is held while a
// provider's deliver(), start() or stop() runs, so providers may call back into the connector.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "framework/Connector.h"
#include "framework/Future.h"
#include "framework/ServiceProvider.h"

namespace connector {
namespace host {

namespace detail {
struct ConnectorRegistry;  // the providers and routes, shared with the contexts; in Connector.cpp
}

class Connector final : public connector::Connector {
 public:
  Connector();
  // Stops the providers still added, the most recently added first. An exception from a
  // provider's stop() is dropped here, since a destructor cannot report it.
  ~Connector() override;

  // Starts `provider` (its start() runs on the calling thread) and then makes it reachable under
  // `name`. Throws std::invalid_argument for an empty name, a null provider or a name already in
  // use; an exception from start() leaves here and the provider is not added.
  void addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider);

  // Makes the provider unreachable, then stops it. Deliveries already running finish. Throws
  // std::invalid_argument when no provider of that name is added; an exception from stop()
  // leaves here after the provider has been removed.
  void removeServiceProvider(const std::string& name);

  // Routes `address` to `chain` (provider names, first to receive first), replacing any route
  // it had. Deliveries already under way keep the chain they started with. Throws
  // std::invalid_argument for an empty address, an empty chain or an empty provider name.
  void setRoute(const std::string& address, std::vector<std::string> chain);

  // Returns false when the address had no route.
  bool removeRoute(const std::string& address);

  // Every route, by address.
  std::map<std::string, std::vector<std::string>> getRoutes() const;

  // Delivers `message` to the first provider of the chain for `address` and returns its answer.
  Future<std::unique_ptr<Message>> send(std::unique_ptr<Message>&& message, Address address);

  // The names of the providers added now, in ascending order.
  std::set<std::string> getServiceProviderNames() override;

 private:
  std::shared_ptr<detail::ConnectorRegistry> registry_;
};

}  // namespace host
}  // namespace connector
