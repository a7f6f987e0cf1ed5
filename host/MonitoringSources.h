// What the HTTP monitoring endpoint reads: the providers and servers whose figures it exports
// and shows. Shared, read-only: the renderers take snapshots of each at the moment of a scrape and
// never change any of them, so a scrape writes no audit record and resets nothing.
//
// Any member may be empty or null; what is missing is left out of the exposition and the page.
// Fill it once before the endpoint starts; it is read from the endpoint's I/O thread afterwards.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/AdminServer.h"
#include "host/Connector.h"
#include "services/AccessLogServiceProvider.h"
#include "services/StatisticsServiceProvider.h"

namespace connector {
namespace host {

struct MonitoringSources {
  std::vector<std::shared_ptr<const common_services::StatisticsServiceProvider>> statistics;
  std::vector<std::shared_ptr<const common_services::AccessLogServiceProvider>> accessLogs;
  std::shared_ptr<const AdminServer> admin;    // may be null
  std::shared_ptr<const Connector> connector;  // may be null: the provider list on the status page
  std::string version;                         // for connector_build_info
};

}  // namespace host
}  // namespace connector
