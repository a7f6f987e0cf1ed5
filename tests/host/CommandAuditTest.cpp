// The audit trail: every command the registry runs leaves one info record on connector.audit,
// read back here from a log file in a fresh directory.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "host/CommandRegistry.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

namespace flog = foundation::log;
using test_support::TempDirectory;

class CommandAudit : public ::testing::Test {
 protected:
  void SetUp() override {
    flog::set_destination("file:" + (dir / "audit.log"));
    registry.registerCommand({"test.audit.echo", "Answers its first argument.",
                              [](std::vector<std::string>&& arguments) { return arguments.at(0); }, 1, 2});
  }
  void TearDown() override {
    flog::set_specification("info");
    flog::set_destination("null");
  }
  // The records without their time stamps.
  std::string audit() const {
    std::istringstream lines(TempDirectory::read(dir / "audit.log"));
    std::string records;
    for (std::string line; std::getline(lines, line);) {
      records += line.substr(line.find("] ") + 2) + '\n';
    }
    return records;
  }

  TempDirectory dir;
  host::CommandRegistry registry;
};

// Who, what, the arguments with blanks and line feeds visible, and the outcome: "ok", or the
// error text the caller was given.
TEST_F(CommandAudit, EachRunLeavesOneRecordWithCallerArgumentsAndOutcome) {
  registry.execute("test.audit.echo", {"a b", "two\nlines"}, "uid=7 pid=42");
  const auto failed = registry.execute("test.audit.echo", {}, "alice");
  EXPECT_EQ(audit(),
            "[connector.audit] [info] caller=\"uid=7 pid=42\" command=\"test.audit.echo\" "
            "arguments=[\"a b\", \"two\\nlines\"] outcome=ok\n"
            "[connector.audit] [info] caller=\"alice\" command=\"test.audit.echo\" arguments=[] outcome=\"" +
                std::string("command \\\"test.audit.echo\\\" takes 1 to 2 arguments, but was given 0") +
                "\"\n")
      << "the error text was: " << failed.text;
}

// Neither a default of off nor a pattern silences the trail; an override naming it does.
TEST_F(CommandAudit, OnlyAnOverrideNamingTheChannelTurnsItOff) {
  for (const std::string specification : {"off", "off,connector.*=off", "off,*=off", "connector.audit=off"}) {
    flog::set_specification(specification);
    registry.execute("test.audit.echo", {specification});
    EXPECT_EQ(audit().find("[\"" + specification + "\"]") == std::string::npos,
              specification == "connector.audit=off")
        << specification;
  }
}

}  // namespace
}  // namespace connector
