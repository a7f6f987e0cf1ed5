// The two command providers against a recording registry. The logging commands drive the real
// process log, so each test that touches it sets the destination and specification it needs.
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

using connector::common_services::ConnectorCommandProvider;
using connector::common_services::LoggingCommandProvider;
using connector::testing::FakeAdministration;
using connector::testing::FakeConnector;
using Call = FakeAdministration::Call;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

const char* const kList = "connector.listServiceProviders";
const std::vector<std::string> kLogCommands = {"connector.log.getDestination", "connector.log.setDestination",
                                               "connector.log.getSpecification",
                                               "connector.log.setSpecification", "connector.log.getChannels"};

TEST(ConnectorCommandProvider, RegistersOneCommandAndWithdrawsItByTheSameName) {
  auto registry = std::make_shared<FakeAdministration>();
  { ConnectorCommandProvider provider(std::make_shared<FakeConnector>(), registry); }

  EXPECT_THAT(registry->calls(), ElementsAre(Call{Call::Register, kList}, Call{Call::Unregister, kList}));
  const auto command = registry->command(kList);
  EXPECT_EQ(command.description, "List all the registered service providers.");
  EXPECT_EQ(command.minArguments, 0);
  EXPECT_EQ(command.maxArguments, 255);
}

TEST(ConnectorCommandProvider, ListsNamesInByteOrderOnePerLineWhateverTheArguments) {
  auto connector = std::make_shared<FakeConnector>();
  auto registry = std::make_shared<FakeAdministration>();
  ConnectorCommandProvider provider(connector, registry);

  EXPECT_EQ(registry->run(kList), "");
  connector->setNames({"alpha", "Beta", "alphabet", "two\nlines"});
  const std::string expected = "Beta\nalpha\nalphabet\ntwo\nlines\n";
  EXPECT_EQ(registry->run(kList), expected);
  EXPECT_EQ(registry->run(kList, {"ignored"}), expected);
  EXPECT_EQ(registry->run(kList, std::vector<std::string>(255, "x")), expected);
  EXPECT_EQ(connector->queries(), 4);  // fetched afresh, never cached
}

TEST(ConnectorCommandProvider, HandlerKeepsTheConnectorAndWorksAfterTheProviderIsGone) {
  auto registry = std::make_shared<FakeAdministration>();
  std::weak_ptr<FakeConnector> watched;
  {
    auto connector = std::make_shared<FakeConnector>(std::set<std::string>{"echo"});
    watched = connector;
    ConnectorCommandProvider provider(connector, registry);
  }
  EXPECT_FALSE(watched.expired());
  EXPECT_EQ(registry->run(kList), "echo\n");
}

TEST(ConnectorCommandProvider, RefusedRegistrationFailsTheConstructorAndWithdrawsNothing) {
  auto registry = std::make_shared<FakeAdministration>();
  registry->throwOnRegistration(1);
  EXPECT_THROW(ConnectorCommandProvider(std::make_shared<FakeConnector>(), registry), std::runtime_error);
  EXPECT_THAT(registry->calls(), ElementsAre(Call{Call::Register, kList}));
  EXPECT_EQ(registry.use_count(), 1);
}

class LoggingCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    foundation::log::set_destination("null");
    foundation::log::set_specification("info");
  }
  void TearDown() override { SetUp(); }

  std::shared_ptr<FakeAdministration> registry = std::make_shared<FakeAdministration>();
};

TEST_F(LoggingCommands, RegistersFiveCommandsAndWithdrawsThemInTheSameOrder) {
  { LoggingCommandProvider provider(registry); }

  std::vector<Call> expected;
  for (const auto& name : kLogCommands) {
    expected.push_back({Call::Register, name});
  }
  for (const auto& name : kLogCommands) {
    expected.push_back({Call::Unregister, name});
  }
  EXPECT_EQ(registry->calls(), expected);

  struct Row {
    const char* name;
    const char* description;
    int min;
    int max;
  };
  for (const Row& row :
       {Row{"connector.log.getDestination", "Get the current fl::log destination.", 0, 0},
        Row{"connector.log.setDestination", "Configure the fl::log destination.", 1, 1},
        Row{"connector.log.getSpecification", "Get the current fl::log specification.", 0, 0},
        Row{"connector.log.setSpecification", "Update the fl::log specification.", 1, 1},
        Row{"connector.log.getChannels", "Get the current list of fl::log channels.", 0, 1}}) {
    const auto command = registry->command(row.name);
    EXPECT_EQ(command.description, row.description) << row.name;
    EXPECT_EQ(command.minArguments, row.min) << row.name;
    EXPECT_EQ(command.maxArguments, row.max) << row.name;
  }
}

TEST_F(LoggingCommands, ThirdRefusedRegistrationLeavesTheFirstTwoRegisteredAndUsable) {
  registry->throwOnRegistration(3);
  EXPECT_THROW(LoggingCommandProvider{registry}, std::runtime_error);

  EXPECT_THAT(registry->calls(),
              ElementsAre(Call{Call::Register, kLogCommands[0]}, Call{Call::Register, kLogCommands[1]},
                          Call{Call::Register, kLogCommands[2]}));
  EXPECT_EQ(registry->run(kLogCommands[1], {"stderr"}), "");
  EXPECT_EQ(registry->run(kLogCommands[0]), "stderr");
  EXPECT_THROW(registry->command(kLogCommands[2]), std::out_of_range);
}

TEST_F(LoggingCommands, SettersTakeTheFirstArgumentAsItStandsAndGettersIgnoreArguments) {
  { LoggingCommandProvider provider(registry); }  // handlers outlive their provider

  EXPECT_EQ(registry->run("connector.log.setDestination", {"stdout", "null"}), "");
  EXPECT_EQ(registry->run("connector.log.getDestination"), "stdout");
  EXPECT_EQ(registry->run("connector.log.getDestination", {"x", "y"}), "stdout");
  EXPECT_EQ(registry->run("connector.log.setSpecification", {"warn,a.*=debug", "info"}), "");
  EXPECT_EQ(registry->run("connector.log.getSpecification"), "warn,a.*=debug");
  EXPECT_EQ(registry->run("connector.log.getSpecification", {"x"}), "warn,a.*=debug");

  // Not trimmed, not checked: the log's own refusal comes back unchanged, and nothing changes.
  EXPECT_THROW(registry->run("connector.log.setDestination", {" null"}), std::invalid_argument);
  EXPECT_THROW(registry->run("connector.log.setSpecification", {""}), std::invalid_argument);
  EXPECT_EQ(foundation::log::destination(), "stdout");
  EXPECT_EQ(foundation::log::specification(), "warn,a.*=debug");
}

TEST_F(LoggingCommands, SetCommandWithoutArgumentNamesItselfAndChangesNothing) {
  LoggingCommandProvider provider(registry);
  const auto errorOf = [&](const std::string& name) -> std::string {
    try {
      registry->run(name, {});
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "<no std::invalid_argument>";
  };
  EXPECT_EQ(errorOf("connector.log.setDestination"),
            "connector.log.setDestination needs one argument (a destination such as file:/var/log/app.log)");
  EXPECT_EQ(
      errorOf("connector.log.setSpecification"),
      "connector.log.setSpecification needs one argument (a specification such as warn,connector.*=debug)");
  EXPECT_EQ(foundation::log::destination(), "null");
  EXPECT_EQ(foundation::log::specification(), "info");
}

TEST_F(LoggingCommands, ChannelsAreListedInTheLogsOrderOnePerLine) {
  LoggingCommandProvider provider(registry);
  const foundation::log::channel zulu("cmdtest.zulu");
  const foundation::log::channel alpha("cmdtest.alpha");

  EXPECT_EQ(registry->run("connector.log.getChannels", {"cmdtest.*"}), "cmdtest.zulu\ncmdtest.alpha\n");
  EXPECT_EQ(registry->run("connector.log.getChannels", {"cmdtest.a*", "cmdtest.z*"}), "cmdtest.alpha\n");
  EXPECT_EQ(registry->run("connector.log.getChannels", {"no.such.*"}), "");
  const std::string all = registry->run("connector.log.getChannels");
  EXPECT_THAT(all, HasSubstr("cmdtest.zulu\ncmdtest.alpha\n"));
  EXPECT_EQ(all.back(), '\n');
}

}  // namespace
