#include "commands/ConnectorCommandProvider.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace connector {
namespace common_services {

namespace {

constexpr const char* kListServiceProviders = "connector.listServiceProviders";
constexpr const char* kListServiceProvidersDescription = "List all the registered service providers.";

}  // namespace

ConnectorCommandProvider::ConnectorCommandProvider(
    std::shared_ptr<connector::Connector> connector,
    std::shared_ptr<connector::administration::Administration> administration)
    : connector_(std::move(connector)), administration_(std::move(administration)) {
  // The handler keeps its own copy of the connector: the registry may call it after we are gone.
  administration::CommandHandler handler = [connector = connector_](std::vector<std::string>&&) {
    std::string output;
    for (const std::string& name : connector->getServiceProviderNames()) {
      output += name;
      output += '\n';
    }
    return output;
  };
  administration_->registerCommand(administration::Command{
      kListServiceProviders, kListServiceProvidersDescription, std::move(handler), 0, 255});
}

ConnectorCommandProvider::~ConnectorCommandProvider() {
  administration_->unregisterCommand(kListServiceProviders);
}

}  // namespace common_services
}  // namespace connector
