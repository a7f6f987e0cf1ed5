// Embeds the library on the reference host: an echo service behind a logging service on the
// address "orders", both command providers, messages sent from two threads, the logging filter
// changed while the host runs, and a command run as an operator would run it.
//
// Exits with 0 when every answer was the message sent and the command succeeded.
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
  return wrong == 0 && providers.succeeded ? 0 : 1;
}
