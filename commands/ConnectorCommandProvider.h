// Offers the administration command "connector.listServiceProviders": the names of the service
// providers registered with the connector, one per line.
//
// The constructor registers the command and the destructor withdraws it, neither waiting for the
// registry. The provider shares ownership of the connector and the registry; the command's
// handler holds its own reference to the connector and nothing of the provider, so the registry
// may keep and call it after the provider is gone. The provider changes nothing after
// construction; the handler may run on any thread, concurrently with itself.
#pragma once

#include <memory>

#include "foundation/Export.h"
#include "framework/Administration.h"
#include "framework/Connector.h"

namespace connector {
namespace common_services {

class CONNECTOR_EXPORT ConnectorCommandProvider : public connector::administration::CommandProvider {
 public:
  // Registers the command. An exception from registerCommand() leaves here, with nothing to withdraw.
  ConnectorCommandProvider(std::shared_ptr<connector::Connector> connector,
                           std::shared_ptr<connector::administration::Administration> administration);

  // Withdraws the command. The registry's unregisterCommand() must not throw.
  ~ConnectorCommandProvider() override;

 private:
  std::shared_ptr<connector::Connector> connector_;
  std::shared_ptr<connector::administration::Administration> administration_;
};

}  // namespace common_services
}  // namespace connector
