// The two command providers against a recording registry; the logging commands drive the real
// process log. What each handler answers for any arguments is the command fuzzer's model
// (fuzz/CommandFuzzer.cpp).
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Log.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConnector.h"

namespace {

using namespace connector::common_services;
using connector::test_support::FakeAdministration;

// One registerCommand per command, in order, with its exact record; one unregisterCommand per
// command, by the same name and in the same order, when its provider goes. The handlers hold
// what they need themselves, so they answer after their provider is gone: names in byte order,
// one per line, fetched afresh; a setter's own usage text when its argument is missing.
TEST(CommandProviders, RegisterInOrderWithdrawByTheSameNamesAndLeaveHandlersThatOutliveThem) {
  auto registry = std::make_shared<FakeAdministration>();
  auto connector = std::make_shared<connector::test_support::FakeConnector>(std::set<std::string>{"b", "A"});
  const std::weak_ptr<connector::test_support::FakeConnector> held = connector;
  {
    ConnectorCommandProvider listing(std::move(connector), registry);
    LoggingCommandProvider logging(registry);  // destroyed first
  }
  connector = held.lock();
  ASSERT_TRUE(connector) << "the handler keeps the connector alive";
  EXPECT_EQ(registry->calls(),
            (std::vector<std::string>{
                "register connector.listServiceProviders 0..255 List all the registered service providers.",
                "register connector.log.getDestination 0..0 Get the current fl::log destination.",
                "register connector.log.setDestination 1..1 Configure the fl::log destination.",
                "register connector.log.getSpecification 0..0 Get the current fl::log specification.",
                "register connector.log.setSpecification 1..1 Update the fl::log specification.",
                "register connector.log.getChannels 0..1 Get the current list of fl::log channels.",
                "unregister connector.log.getDestination", "unregister connector.log.setDestination",
                "unregister connector.log.getSpecification", "unregister connector.log.setSpecification",
                "unregister connector.log.getChannels", "unregister connector.listServiceProviders"}));
  EXPECT_EQ(registry->run("connector.listServiceProviders"), "A\nb\n");
  connector->setNames({"alpha"});
  EXPECT_EQ(registry->run("connector.listServiceProviders", {"ignored"}), "alpha\n");
  using ::testing::ThrowsMessage;
  EXPECT_THAT(
      [&] { registry->run("connector.log.setDestination"); },
      ThrowsMessage<std::invalid_argument>(
          "connector.log.setDestination needs one argument (a destination such as stderr or file:app.log)"));
  EXPECT_THAT([&] { registry->run("connector.log.setSpecification"); },
              ThrowsMessage<std::invalid_argument>("connector.log.setSpecification needs one argument (a "
                                                   "specification such as warn,connector.*=debug)"));
  const foundation::log::channel zulu("cmdtest.zulu"), alpha("cmdtest.alpha");
  EXPECT_EQ(registry->run("connector.log.getChannels", {"cmdtest.*"}), "cmdtest.zulu\ncmdtest.alpha\n");
}

}  // namespace
