// The two command providers against a recording registry. The logging commands drive the real
// process log.
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Log.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConnector.h"

namespace {

using connector::common_services::ConnectorCommandProvider;
using connector::common_services::LoggingCommandProvider;
using connector::test_support::FakeAdministration;
using connector::test_support::FakeConnector;
using Arguments = std::vector<std::string>;

// One registerCommand per command, in order, with its exact record; one unregisterCommand per
// command, by the same name and in the same order, when its provider goes.
TEST(CommandProviders, RegisterTheirCommandsInOrderAndWithdrawThemByTheSameNames) {
  auto registry = std::make_shared<FakeAdministration>();
  {
    ConnectorCommandProvider listing(std::make_shared<FakeConnector>(), registry);
    LoggingCommandProvider logging(registry);  // destroyed first
  }
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
}

// A refused registration leaves the constructor; the commands registered before it stay, usable.
TEST(CommandProviders, ARefusedRegistrationFailsTheConstructorAndWithdrawsNothing) {
  auto registry = std::make_shared<FakeAdministration>();
  registry->throwOnRegistration(3);
  EXPECT_THROW(LoggingCommandProvider{registry}, std::runtime_error);
  EXPECT_EQ(registry->run("connector.log.setDestination", {"null"}), "");
  EXPECT_EQ(registry->run("connector.log.getDestination"), "null");
  registry->throwOnRegistration(4);  // the next one
  EXPECT_THROW(ConnectorCommandProvider(std::make_shared<FakeConnector>(), registry), std::runtime_error);
  EXPECT_EQ(registry->calls().size(), 4u) << "nothing was withdrawn";
}

TEST(ConnectorCommandProvider, ListsNamesInByteOrderOnePerLineWhateverTheArgumentsAfterTheProviderIsGone) {
  auto registry = std::make_shared<FakeAdministration>();
  auto connector = std::make_shared<FakeConnector>();
  const std::weak_ptr<FakeConnector> held = connector;
  { ConnectorCommandProvider provider(std::move(connector), registry); }
  connector = held.lock();
  ASSERT_TRUE(connector) << "the handler keeps the connector alive";
  for (const auto& [names, listing] : std::vector<std::pair<std::set<std::string>, std::string>>{
           {{}, ""},
           {{"alpha", "Beta"}, "Beta\nalpha\n"},
           {{"alphabet", "alpha", "a\nb"}, "a\nb\nalpha\nalphabet\n"}}) {
    connector->setNames(names);  // fetched afresh on every call
    for (const Arguments& arguments : {Arguments{}, Arguments{"ignored"}, Arguments(255, "x")}) {
      EXPECT_EQ(registry->run("connector.listServiceProviders", arguments), listing) << arguments.size();
    }
  }
}

// Texts pass through unchanged: a setter uses its first argument as it stands (not trimmed, the
// empty one included) and ignores the rest, a getter ignores its arguments, channels come in the
// log's order (creation order, not sorted), one per line. A missing argument is refused naming
// the command; the log's own refusal comes back as it is. The handlers outlive their provider.
TEST(LoggingCommandProvider, HandlersPassTextsThroughUnchanged) {
  auto registry = std::make_shared<FakeAdministration>();
  { LoggingCommandProvider provider(registry); }
  const foundation::log::channel zulu("cmdtest.zulu");
  const foundation::log::channel alpha("cmdtest.alpha");
  const auto answer = [&registry](const std::string& name, Arguments arguments) -> std::string {
    try {
      return registry->run("connector.log." + name, std::move(arguments));
    } catch (const std::invalid_argument& error) {
      return std::string("refused: ") + error.what();
    }
  };
  for (const auto& [name, arguments, expected] : std::vector<std::tuple<std::string, Arguments, std::string>>{
           {"setDestination", {"null", "stdout"}, ""},
           {"setSpecification", {" warn , a.*=debug", "info"}, ""},
           {"setDestination",
            {},
            "refused: connector.log.setDestination needs one argument (a destination such as "
            "stderr or file:app.log)"},
           {"setSpecification",
            {},
            "refused: connector.log.setSpecification needs one argument (a specification such as "
            "warn,connector.*=debug)"},
           {"setDestination",
            {""},
            "refused: unknown log destination \"\": use stderr, stdout, null, file:PATH or "
            "rotating:MAX_BYTES:FILES:PATH, or async: before one of them (e.g. file:/var/log/app.log)"},
           {"getDestination", {}, "null"},
           {"getDestination", {"x", "y"}, "null"},
           {"getSpecification", {"x"}, " warn , a.*=debug"},
           {"getChannels", {"cmdtest.*"}, "cmdtest.zulu\ncmdtest.alpha\n"},
           {"getChannels", {"cmdtest.a*", "cmdtest.z*"}, "cmdtest.alpha\n"},
           {"getChannels", {"no.such.*"}, ""},
           {"setSpecification", {"info"}, ""}}) {
    EXPECT_EQ(answer(name, arguments), expected) << name << " with " << arguments.size() << " arguments";
  }
  EXPECT_THAT(answer("getChannels", {}), ::testing::EndsWith("cmdtest.zulu\ncmdtest.alpha\n"));
}

}  // namespace
