// The connector as the library sees it: the registry of named service providers.
//
// getServiceProviderNames() must be safe to call from any thread, concurrently with providers
// being added and removed; it returns a snapshot taken at the time of the call.
#pragma once

#include <set>
#include <string>

#include "foundation/Export.h"

namespace connector {

class CONNECTOR_EXPORT Connector {
 public:
  Connector() noexcept;
  Connector(const Connector&) = delete;
  Connector& operator=(const Connector&) = delete;
  virtual ~Connector();

  virtual std::set<std::string> getServiceProviderNames() = 0;
};

}  // namespace connector
