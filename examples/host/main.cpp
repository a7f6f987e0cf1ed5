// Embeds the library on the reference host: an echo service behind a logging service on the
// address "orders", both command providers, messages sent from two threads, the logging filter
// changed while the host runs, a command run as an operator would run it, and the HTTP
// monitoring endpoint that Prometheus would scrape, asked whether the host is healthy.
//
// Exits with 0 when every answer was the message sent, the command succeeded and the endpoint
// answered.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "host/CommandRegistry.h"
#include "host/ConfigurationStore.h"
#include "host/Connector.h"
#include "host/HttpServer.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"

namespace app {

struct Ping : connector::Message {};
struct Order : connector::Message {};

}  // namespace app

namespace {

using connector::common_services::ConnectorCommandProvider;
using connector::common_services::EchoServiceProvider;
using connector::common_services::LoggingCommandProvider;
using connector::common_services::LoggingServiceProvider;

// Sends `count` messages from each of two threads, pings from one and orders from the other, and
// counts the answers that are not the message sent.
int sendFromTwoThreads(connector::host::Connector& connector, int count) {
  std::atomic<int> wrong{0};
  const auto send = [&](bool pings) {
    for (int i = 0; i < count; ++i) {
      std::unique_ptr<connector::Message> message;
      if (pings) {
        message = std::make_unique<app::Ping>();
      } else {
        message = std::make_unique<app::Order>();
      }
      const connector::Message* sent = message.get();
      if (connector.send(std::move(message), connector::Address("orders")).get().get() != sent) {
        ++wrong;
      }
    }
  };
  std::thread pings(send, true);
  std::thread orders(send, false);
  pings.join();
  orders.join();
  return wrong.load();
}

// GET /healthz from the endpoint on this host's `port`; returns the whole answer.
std::string askHealth(unsigned short port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  const std::string request = "GET /healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size())) {
    char chunk[512];
    for (ssize_t n; (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) {
      answer.append(chunk, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  return answer;
}

}  // namespace

int main() {
  auto configuration = std::make_shared<connector::host::ConfigurationStore>();
  auto registry = std::make_shared<connector::host::CommandRegistry>();
  auto connector = std::make_shared<connector::host::Connector>();

  // The message goes to "svc" first, which logs it and forwards it to "echo".
  connector->addServiceProvider("echo", std::make_shared<EchoServiceProvider>());
  connector->addServiceProvider("svc",
                                std::make_shared<LoggingServiceProvider>(configuration, "svc", std::cout));
  connector->setRoute("orders", {"svc", "echo"});
  ConnectorCommandProvider connectorCommands(connector, registry);
  LoggingCommandProvider logCommands(registry);

  // Log only orders, then, while the host runs, only pings.
  configuration->set("svc.filter", "app::Order", "operator");
  int wrong = sendFromTwoThreads(*connector, 2);
  configuration->set("svc.filter", "app::Ping", "operator");
  wrong += sendFromTwoThreads(*connector, 2);

  const connector::host::CommandRegistry::Result providers =
      registry->execute("connector.listServiceProviders", {});
  std::cout << "connector.listServiceProviders:\n" << providers.text;
  std::cout << (wrong == 0 ? "every answer was the message sent\n" : "some answers were wrong\n");

  // The monitoring endpoint, on loopback; port 0 takes any free port (a real host names one, such
  // as 9464, in Prometheus's scrape configuration). The callables render the bodies of /metrics
  // and of the status page /, on the endpoint's thread, at each request.
  connector::host::HttpServer::Options http;
  http.port = 0;
  http.metrics = [] { return std::string("# TYPE example_up gauge\nexample_up 1\n"); };
  connector::host::HttpServer monitoring(http);
  const bool healthy = askHealth(monitoring.port()).find("\r\n\r\nok") != std::string::npos;
  std::cout << "GET /healthz on port " << monitoring.port() << (healthy ? ": ok\n" : ": no answer\n");
  return wrong == 0 && providers.succeeded && healthy ? 0 : 1;
}
