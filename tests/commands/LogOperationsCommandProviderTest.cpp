// The log operations commands against a recording registry, driving the real process log.
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/LogOperationsCommandProvider.h"
#include "foundation/log/Log.h"
#include "tests/support/FakeAdministration.h"

namespace {

namespace flog = foundation::log;
using connector::common_services::LogOperationsCommandProvider;
using connector::test_support::FakeAdministration;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class LogOperationsCommands : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    flog::set_specification("info");
    flog::set_destination("null");
  }
  std::shared_ptr<FakeAdministration> registry = std::make_shared<FakeAdministration>();
};

// One registerCommand per command, in order, with its exact record; withdrawn by the same names
// in the same order. The handlers stay usable once the provider is gone: a timed specification
// shows in the statistics as a line of its own until another specification replaces it.
TEST_F(LogOperationsCommands, RegisterInOrderWithdrawByNameAndServeAfterTheProviderIsGone) {
  { LogOperationsCommandProvider provider(registry); }
  EXPECT_EQ(
      registry->calls(),
      (std::vector<std::string>{
          "register connector.log.reopen 0..0 Reopen the file of the fl::log destination by its name.",
          "register connector.log.setSpecificationFor 2..2 Update the fl::log specification for SECONDS "
          "seconds, then restore the previous one.",
          "register connector.log.getStatistics 0..0 Get the fl::log record counts, destination and "
          "pending restore.",
          "unregister connector.log.reopen", "unregister connector.log.setSpecificationFor",
          "unregister connector.log.getStatistics"}));
  flog::set_specification("warn");
  EXPECT_EQ(registry->run("connector.log.setSpecificationFor", {"600", "debug,x=trace"}), "");
  EXPECT_EQ(flog::specification(), "debug,x=trace");
  EXPECT_THAT(registry->run("connector.log.getStatistics"),
              MatchesRegex(
                  "records=[0-9]+ dropped=[0-9]+ queued=0\ndestination=null\nrestore=warn in_s=(600|599)\n"));
  flog::set_specification("info");
  EXPECT_THAT(registry->run("connector.log.getStatistics"),
              MatchesRegex("records=[0-9]+ dropped=[0-9]+ queued=0\ndestination=null\n"));
}

// SECONDS must be a whole number in range; a refusal says so and changes nothing.
TEST_F(LogOperationsCommands, ABadDurationIsRefusedAndChangesNothing) {
  LogOperationsCommandProvider provider(registry);
  flog::set_specification("warn");
  for (const std::string seconds : {"", "abc", "1.5", "+5", "0", "86401", "9999999"}) {
    try {
      registry->run("connector.log.setSpecificationFor", {seconds, "debug"});
      ADD_FAILURE() << "accepted \"" << seconds << "\"";
    } catch (const std::invalid_argument& error) {
      EXPECT_THAT(error.what(), HasSubstr("1 to 86400")) << seconds;
    }
  }
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
}

}  // namespace
