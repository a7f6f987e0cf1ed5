#include "tools/Monitoring.h"

#include <ostream>
#include <utility>

namespace connector {
namespace shell {

namespace {

// Until the exposition writer and the status page renderer are wired in, the endpoint serves the
// build's version alone.
std::string buildInfo(const host::MonitoringSources& sources) {
  return "# HELP connector_build_info The library's version; always 1.\n"
         "# TYPE connector_build_info gauge\n"
         "connector_build_info{version=\"" +
         sources.version + "\"} 1\n";
}

std::string statusPage(const host::MonitoringSources& sources) {
  return "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>connector</title></head>"
         "<body><h1>connector " +
         sources.version + "</h1></body></html>\n";
}

}  // namespace

std::unique_ptr<host::HttpServer> startMonitoring(const std::string& endpoint,
                                                  host::MonitoringSources sources, std::ostream& out,
                                                  std::ostream& err) {
  host::HttpServer::Options options;
  host::HttpServer::parseEndpoint(endpoint, options);
  const auto shared = std::make_shared<const host::MonitoringSources>(std::move(sources));
  options.metrics = [shared] { return buildInfo(*shared); };
  options.statusPage = [shared] { return statusPage(*shared); };
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
