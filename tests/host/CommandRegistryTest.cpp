#include "host/CommandRegistry.h"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace connector {
namespace {

using administration::Command;
using Arguments = std::vector<std::string>;

Command command(
    const std::string& name, std::uint8_t min, std::uint8_t max,
    administration::CommandHandler handler = [](Arguments&& a) {
      return std::to_string(a.size()) + " arguments";
    }) {
  return Command{name, "Does " + name + ".", std::move(handler), min, max};
}

std::string failure(const host::CommandRegistry& registry, const std::string& name, Arguments arguments) {
  host::CommandRegistry::Result result = registry.execute(name, std::move(arguments));
  EXPECT_FALSE(result.succeeded) << name << " answered " << result.text;
  return result.text;
}

TEST(CommandRegistry, ArgumentCountsOutsideTheBoundsAreRefusedNamingTheCommandAndTheBounds) {
  host::CommandRegistry registry;
  std::atomic<int> calls{0};
  auto counted = [&calls](Arguments&&) {
    ++calls;
    return std::string();
  };
  registry.registerCommand(command("none", 0, 0, counted));
  registry.registerCommand(command("one", 1, 1, counted));
  registry.registerCommand(command("optional", 0, 1, counted));
  registry.registerCommand(command("some", 1, 255, counted));
  EXPECT_EQ(failure(registry, "none", {"x"}), "command \"none\" takes no arguments, but was given 1");
  EXPECT_EQ(failure(registry, "one", {}), "command \"one\" takes exactly 1 argument, but was given 0");
  EXPECT_EQ(failure(registry, "one", {"a", "b"}),
            "command \"one\" takes exactly 1 argument, but was given 2");
  EXPECT_EQ(failure(registry, "optional", {"a", "b"}),
            "command \"optional\" takes 0 to 1 arguments, but was given 2");
  EXPECT_EQ(failure(registry, "some", {}), "command \"some\" takes at least 1 argument, but was given 0");
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(registry.execute("some", Arguments(255, "x")).succeeded);
  EXPECT_EQ(failure(registry, "some", Arguments(256, "x")),
            "command \"some\" takes at least 1 argument, but was given 256");
  EXPECT_EQ(failure(registry, "nope", {}), "unknown command \"nope\"; \"help\" lists the commands");
}

TEST(CommandRegistry, AHandlersExceptionBecomesAnErrorText) {
  host::CommandRegistry registry;
  registry.registerCommand(command("bad", 0, 1, [](Arguments&&) -> std::string {
    throw std::invalid_argument("level \"loud\" is not one of trace, debug");
  }));
  registry.registerCommand(command("odd", 0, 0, [](Arguments&&) -> std::string { throw 42; }));
  EXPECT_EQ(failure(registry, "bad", {}),
            "command \"bad\" failed: level \"loud\" is not one of trace, debug");
  EXPECT_EQ(failure(registry, "odd", {}),
            "command \"odd\" failed with an exception that is not a std::exception");
}

TEST(CommandRegistry, ADuplicateIsRefusedAndTheFirstCommandStays) {
  host::CommandRegistry registry;
  EXPECT_TRUE(registry.registerCommand(command("a", 0, 0, [](Arguments&&) { return "first"; })).get());
  EXPECT_FALSE(registry.registerCommand(command("a", 0, 0, [](Arguments&&) { return "second"; })).get());
  EXPECT_FALSE(registry.registerCommand(command("help", 0, 0)).get());
  EXPECT_EQ(registry.execute("a", {}).text, "first");

  EXPECT_FALSE(registry.unregisterCommand("help").get());
  EXPECT_TRUE(registry.unregisterCommand("a").get());
  EXPECT_FALSE(registry.unregisterCommand("a").get());
  EXPECT_TRUE(registry.registerCommand(command("a", 0, 0, [](Arguments&&) { return "again"; })).get());
  EXPECT_EQ(registry.execute("a", {}).text, "again");
}

TEST(CommandRegistry, MalformedRecordsAreRejected) {
  host::CommandRegistry registry;
  EXPECT_THROW(registry.registerCommand(command("", 0, 0)).get(), std::invalid_argument);
  EXPECT_THROW(registry.registerCommand(command("x", 0, 0, nullptr)).get(), std::invalid_argument);
  EXPECT_THROW(registry.registerCommand(command("x", 2, 1)).get(), std::invalid_argument);
  EXPECT_EQ(registry.describeCommands().size(), 1u);
}

TEST(CommandRegistry, HelpListsEveryCommandWithItsDescription) {
  host::CommandRegistry registry;
  registry.registerCommand(command("connector.b", 0, 0));
  registry.registerCommand(command("connector.alpha", 0, 0));
  EXPECT_EQ(registry.execute("help", {}).text,
            "connector.alpha  Does connector.alpha.\n"
            "connector.b      Does connector.b.\n"
            "help             List every command with its description.\n");
}

// Handlers run without the registry's lock: one may withdraw itself or run another command, and
// commands can come and go while others execute.
TEST(CommandRegistry, HandlersMayReenterAndCommandsMayComeAndGoWhileOthersRun) {
  host::CommandRegistry registry;
  registry.registerCommand(command("inner", 0, 0, [](Arguments&&) { return "inner"; }));
  registry.registerCommand(command("once", 0, 0, [&registry](Arguments&&) {
    registry.unregisterCommand("once");
    return registry.execute("inner", {}).text;
  }));
  EXPECT_EQ(registry.execute("once", {}).text, "inner");
  EXPECT_FALSE(registry.execute("once", {}).succeeded);

  std::thread churn([&registry] {
    for (int i = 0; i < 500; ++i) {
      registry.registerCommand(command("churn", 0, 0));
      registry.unregisterCommand("churn");
    }
  });
  for (int i = 0; i < 500; ++i) {
    EXPECT_TRUE(registry.execute("inner", {}).succeeded);
    registry.execute("churn", {});
    registry.describeCommands();
  }
  churn.join();
}

}  // namespace
}  // namespace connector
