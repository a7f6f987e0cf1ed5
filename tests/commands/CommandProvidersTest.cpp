// The three command providers against a recording registry, driving the real process log. What
// the logging and connector handlers answer for any arguments is the command fuzzer's model
// (fuzz/CommandFuzzer.cpp); the bounds users see are pinned by the shell transcripts.
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LogOperationsCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Log.h"
#include "host/Connector.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/ProcessLogFixture.h"

namespace connector {
namespace {

namespace flog = foundation::log;
using namespace common_services;
using ::testing::MatchesRegex;

class CommandProviders : public test_support::ProcessLogFixture {
 protected:
  std::shared_ptr<test_support::FakeAdministration> registry =
      std::make_shared<test_support::FakeAdministration>();
};

// Each provider withdraws every command it registered, by the same name, when it goes. The
// handlers hold what they need themselves, so they answer after their provider is gone: a timed
// specification shows in the statistics as a line of its own.
TEST_F(CommandProviders, EveryCommandIsWithdrawnAndItsHandlerOutlivesItsProvider) {
  auto connector = std::make_shared<host::Connector>();
  const std::weak_ptr<host::Connector> held = connector;
  {
    ConnectorCommandProvider listing(std::move(connector), registry);
    LoggingCommandProvider logging(registry);
    LogOperationsCommandProvider operations(registry);
  }
  EXPECT_EQ(registry->live(), std::set<std::string>());
  EXPECT_EQ(registry->command("connector.listServiceProviders").maxArguments, 255);
  ASSERT_TRUE(held.lock()) << "the handler keeps the connector alive";
  EXPECT_EQ(registry->run("connector.listServiceProviders", {"ignored"}), "");
  EXPECT_THROW(registry->run("connector.log.setDestination"), std::invalid_argument);

  flog::set_specification("warn");
  EXPECT_EQ(registry->run("connector.log.setSpecificationFor", {"600", "debug,x=trace"}), "");
  EXPECT_EQ(flog::specification(), "debug,x=trace");
  EXPECT_THAT(
      registry->run("connector.log.getStatistics"),
      MatchesRegex(
          "records=[0-9]+ dropped=[0-9]+ queued=0 rotations=[0-9]+ reopens=[0-9]+\ntrace=[0-9]+ debug=[0-9]+ "
          "info=[0-9]+ warn=[0-9]+ error=[0-9]+ critical=[0-9]+\ndestination=null\nrestore=warn "
          "in_s=(600|599)\n"));
}

// SECONDS must be a whole number in range; a refusal says so and changes nothing.
TEST_F(CommandProviders, ABadDurationIsRefusedAndChangesNothing) {
  LogOperationsCommandProvider provider(registry);
  flog::set_specification("warn");
  for (const std::string seconds : {"", "abc", "1.5", "+5", "0", "86401", "9999999"}) {
    EXPECT_THAT(
        [&] {
          registry->run("connector.log.setSpecificationFor", {seconds, "debug"});
        },
        ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr("1 to 86400")))
        << seconds;
  }
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
}

}  // namespace
}  // namespace connector
