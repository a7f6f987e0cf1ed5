// The shell's HTTP monitoring endpoint (--http): a host::HttpServer over the host's figures.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "host/HttpServer.h"
#include "host/MonitoringSources.h"

namespace connector {
namespace shell {

// Starts serving `sources` on `endpoint` ("HOST:PORT" or "[V6]:PORT"; HOST an IP address) and
// prints "serving HTTP on HOST:PORT" on `out` once clients can connect; when HOST is not a
// loopback address, first prints on `err` that anyone who can reach the port can read the
// figures. Throws std::invalid_argument for a bad endpoint and std::runtime_error when it cannot
// listen, each naming the endpoint.
std::unique_ptr<host::HttpServer> startMonitoring(const std::string& endpoint,
                                                  host::MonitoringSources sources, std::ostream& out,
                                                  std::ostream& err);

}  // namespace shell
}  // namespace connector
