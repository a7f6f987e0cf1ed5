#include "host/Connector.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "host/DisplayText.h"

namespace connector {
namespace host {

namespace {

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += text.empty() ? "" : ", ";
    text += name;
  }
  return text;
}

// The texts of the failures a delivery answers with. An address that is not routed is often a
// typing mistake, echoed shortened and with control bytes escaped.
std::runtime_error noRoute(const std::string& address, const std::vector<std::string>& routed) {
  return std::runtime_error("no route for address " + quoted(address, kEchoLimit) + " (routed addresses: " +
                            (routed.empty() ? std::string("none") : joined(routed)) + ")");
}
std::runtime_error notAdded(const std::string& address, const std::string& provider) {
  return std::runtime_error("the chain for address \"" + address + "\" names service provider \"" + provider +
                            "\", which is not added");
}
std::runtime_error pastEnd(const std::string& address, const std::vector<std::string>& chain) {
  return std::runtime_error("service provider \"" + chain.back() +
                            "\" is the last of the chain for address \"" + address + "\" (" + joined(chain) +
                            "); there is no service provider to forward to");
}

// One route, shared by every delivery that started on it; never changed once made.
struct Route {
  std::string address;
  std::vector<std::string> chain;
};

}  // namespace

namespace detail {

struct ConnectorRegistry {
  struct Entry {
    std::shared_ptr<ServiceProvider> provider;
    std::uint64_t sequence;  // order of addition, so that the connector stops the newest first
  };

  mutable std::mutex mutex;
  std::map<std::string, Entry> providers;                      // guarded by mutex
  std::map<std::string, std::shared_ptr<const Route>> routes;  // guarded by mutex
  std::uint64_t nextSequence = 0;                              // guarded by mutex
};

}  // namespace detail

namespace {

using Answer = Future<std::unique_ptr<Message>>;

Answer deliverAt(const std::shared_ptr<detail::ConnectorRegistry>& registry,
                 const std::shared_ptr<const Route>& route, std::size_t position,
                 std::unique_ptr<Message>&& message, Address&& address);

// The context of one step of a delivery: forward() hands the message to the next provider of
// the chain the delivery started on.
class ChainContext final : public Context {
 public:
  ChainContext(std::shared_ptr<detail::ConnectorRegistry> registry, std::shared_ptr<const Route> route,
               std::size_t position)
      : registry_(std::move(registry)), route_(std::move(route)), position_(position) {}

  Answer forward(std::unique_ptr<Message>&& message, Address&& address) override {
    if (position_ + 1 >= route_->chain.size()) {
      return makeRejectedFuture<std::unique_ptr<Message>>(pastEnd(route_->address, route_->chain));
    }
    return deliverAt(registry_, route_, position_ + 1, std::move(message), std::move(address));
  }

 private:
  const std::shared_ptr<detail::ConnectorRegistry> registry_;
  const std::shared_ptr<const Route> route_;
  const std::size_t position_;
};

Answer deliverAt(const std::shared_ptr<detail::ConnectorRegistry>& registry,
                 const std::shared_ptr<const Route>& route, std::size_t position,
                 std::unique_ptr<Message>&& message, Address&& address) {
  const std::string& name = route->chain[position];
  std::shared_ptr<ServiceProvider> provider;
  {
    std::lock_guard<std::mutex> lock(registry->mutex);
    auto found = registry->providers.find(name);
    if (found != registry->providers.end()) {
      provider = found->second.provider;
    }
  }
  if (!provider) {
    return makeRejectedFuture<std::unique_ptr<Message>>(notAdded(route->address, name));
  }
  try {
    return provider->deliver(std::move(message), std::move(address),
                             std::make_shared<ChainContext>(registry, route, position));
  } catch (...) {
    return makeRejectedFuture<std::unique_ptr<Message>>(std::current_exception());
  }
}

}  // namespace

Connector::Connector() : registry_(std::make_shared<detail::ConnectorRegistry>()) {}

Connector::~Connector() {
  std::vector<std::pair<std::uint64_t, std::shared_ptr<ServiceProvider>>> added;
  {
    std::lock_guard<std::mutex> lock(registry_->mutex);
    for (auto& entry : registry_->providers) {
      added.emplace_back(entry.second.sequence, std::move(entry.second.provider));
    }
    registry_->providers.clear();
  }
  std::sort(added.begin(), added.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (auto& entry : added) {
    try {
      entry.second->stop();
    } catch (...) {
      // Nothing to report to: the host is being torn down.
    }
  }
}

void Connector::addServiceProvider(const std::string& name, std::shared_ptr<ServiceProvider> provider) {
  if (name.empty()) {
    throw std::invalid_argument("a service provider needs a non-empty name");
  }
  if (!provider) {
    throw std::invalid_argument("service provider \"" + name + "\" is null; pass the provider to add");
  }
  const std::string taken =
      "a service provider named \"" + name + "\" is already added; remove it first or choose another name";
  {
    std::lock_guard<std::mutex> lock(registry_->mutex);
    if (registry_->providers.count(name) != 0) {
      throw std::invalid_argument(taken);
    }
  }
  // Started outside the lock: start() may call back into the connector.
  provider->start();
  bool added = false;
  {
    std::lock_guard<std::mutex> lock(registry_->mutex);
    added = registry_->providers
                .emplace(name, detail::ConnectorRegistry::Entry{provider, registry_->nextSequence})
                .second;
    ++registry_->nextSequence;
  }
  if (!added) {
    // Another thread added the same name while this provider was starting.
    provider->stop();
    throw std::invalid_argument(taken);
  }
}

void Connector::removeServiceProvider(const std::string& name) {
  std::shared_ptr<ServiceProvider> provider;
  {
    std::lock_guard<std::mutex> lock(registry_->mutex);
    auto found = registry_->providers.find(name);
    if (found != registry_->providers.end()) {
      provider = std::move(found->second.provider);
      registry_->providers.erase(found);
    }
  }
  if (!provider) {
    throw std::invalid_argument("no service provider named \"" + name + "\" is added");
  }
  provider->stop();
}

void Connector::setRoute(const std::string& address, std::vector<std::string> chain) {
  if (address.empty()) {
    throw std::invalid_argument("a route needs a non-empty address");
  }
  if (chain.empty()) {
    throw std::invalid_argument("the route for address \"" + address +
                                "\" needs at least one service provider name");
  }
  if (std::find(chain.begin(), chain.end(), std::string()) != chain.end()) {
    throw std::invalid_argument("the route for address \"" + address +
                                "\" has an empty service provider name");
  }
  auto route = std::make_shared<const Route>(Route{address, std::move(chain)});
  std::shared_ptr<const Route> replaced;  // released after the lock
  std::lock_guard<std::mutex> lock(registry_->mutex);
  std::shared_ptr<const Route>& slot = registry_->routes[address];
  replaced = std::move(slot);
  slot = std::move(route);
}

bool Connector::removeRoute(const std::string& address) {
  std::lock_guard<std::mutex> lock(registry_->mutex);
  return registry_->routes.erase(address) != 0;
}

std::map<std::string, std::vector<std::string>> Connector::getRoutes() const {
  std::map<std::string, std::vector<std::string>> routes;
  std::lock_guard<std::mutex> lock(registry_->mutex);
  for (const auto& entry : registry_->routes) {
    routes.emplace(entry.first, entry.second->chain);
  }
  return routes;
}

Future<std::unique_ptr<Message>> Connector::send(std::unique_ptr<Message>&& message, Address address) {
  std::shared_ptr<const Route> route;
  std::vector<std::string> routed;
  {
    std::lock_guard<std::mutex> lock(registry_->mutex);
    auto found = registry_->routes.find(address.name());
    if (found != registry_->routes.end()) {
      route = found->second;
    } else {
      for (const auto& entry : registry_->routes) {
        routed.push_back(entry.first);
      }
    }
  }
  if (!route) {
    return makeRejectedFuture<std::unique_ptr<Message>>(noRoute(address.name(), routed));
  }
  return deliverAt(registry_, route, 0, std::move(message), std::move(address));
}

std::set<std::string> Connector::getServiceProviderNames() {
  std::set<std::string> names;
  std::lock_guard<std::mutex> lock(registry_->mutex);
  for (const auto& entry : registry_->providers) {
    names.insert(entry.first);
  }
  return names;
}

}  // namespace host
}  // namespace connector
