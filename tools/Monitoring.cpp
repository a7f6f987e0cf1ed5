#include "tools/Monitoring.h"

#include <ostream>
#include <utility>

#include "host/Metrics.h"
#include "host/StatusPage.h"

namespace connector {
namespace shell {

std::unique_ptr<host::HttpServer> startMonitoring(const std::string& endpoint,
                                                  host::MonitoringSources sources, std::ostream& out,
                                                  std::ostream& err) {
  host::HttpServer::Options options;
  host::HttpServer::parseEndpoint(endpoint, options);
  const auto shared = std::make_shared<const host::MonitoringSources>(std::move(sources));
  options.metrics = [shared] { return host::renderMetrics(*shared, {}); };
  options.statusPage = [shared] { return host::renderStatusPage(*shared); };
  const std::string address = options.address;
  auto server = std::make_unique<host::HttpServer>(std::move(options));
  if (!host::HttpServer::isLoopback(address)) {
    err << "connector-shell: warning: " << address << " is not a loopback address: anyone who can reach port "
        << server->port() << " can read the figures it serves" << std::endl;
  }
  out << "serving HTTP on " << endpoint.substr(0, endpoint.rfind(':')) << ":" << server->port() << std::endl;
  return server;
}

}  // namespace shell
}  // namespace connector
