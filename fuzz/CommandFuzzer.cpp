// Calls the five logging commands and the connector command with 0 to 300 random arguments (any
// bytes, NUL and line feed included) against the real process log, whose file destinations are
// confined to a temporary directory. Checked for every call: a getter answers the setting in
// force; a setter either answers "" and makes its first argument the setting, or throws and
// leaves it as it was, and changes nothing else; an accepted file lies inside the confinement
// directory; the channel list is the log admin's, one name per line; the connector command
// answers the same text whatever it is given.
#include <climits>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Admin.h"
#include "foundation/log/Log.h"
#include "fuzz/FuzzInput.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace log = foundation::log;
namespace test_support = connector::test_support;

const char* const kCommands[] = {"connector.log.getDestination",   "connector.log.setDestination",
                                 "connector.log.getSpecification", "connector.log.setSpecification",
                                 "connector.log.getChannels",      "connector.listServiceProviders"};
// What connector.listServiceProviders answers for the names below: sorted bytewise, each on a line.
const std::string kNames = "Beta\na\nb\nalpha\n";

// A connector whose names need care: a line feed, upper before lower case.
struct Names : connector::Connector {
  std::set<std::string> getServiceProviderNames() override { return {"alpha", "Beta", "a\nb"}; }
};

// The registry with both providers, the connector above, and channels to list. Made once and
// never destroyed: the log may be written to during static teardown.
struct World {
  std::shared_ptr<test_support::FakeAdministration> registry =
      std::make_shared<test_support::FakeAdministration>();
  connector::common_services::LoggingCommandProvider logging{registry};
  connector::common_services::ConnectorCommandProvider listing{std::make_shared<Names>(), registry};
  log::channel fuzz{"connector.fuzz"}, other{"other"};

  explicit World(const std::string& directory) {
    log::confine_file_destinations(directory);
    log::set_destination("null");
  }
};

}  // namespace

void runOne(fuzz::Input& input) {
  static test_support::TempDirectory scratch;  // under $TMPDIR; removed when the process exits
  static const std::string directory = scratch.path().string() + "/";
  static World& world = *new World(directory);
  const int command = input.pick(6);
  std::vector<std::string> arguments(input.ConsumeIntegralInRange<std::size_t>(0, 300));
  for (std::string& each : arguments) {
    each = input.ConsumeRandomLengthString(64);  // the seeds hold texts that the log understands
  }
  const std::string first = arguments.empty() ? "" : arguments[0];
  const bool none = arguments.empty();
  const std::string name = kCommands[command];
  const std::string before[] = {log::destination(), log::specification()};
  const std::string answer = fuzz::outcomeOf([&] { return world.registry->run(name, std::move(arguments)); });
  const std::string after[] = {log::destination(), log::specification()};

  // The setters (commands 1 and 3) may change their own setting (0: destination, 1: specification).
  const bool setter = command == 1 || command == 3;
  for (int setting = 0; setting < 2; ++setting) {
    MODEL_CHECK(after[setting] == before[setting] || (setter && setting == command / 2 && answer.empty()),
                name + " changed the log, answering " + answer);
  }
  if (setter) {
    MODEL_CHECK(answer.empty() ? !none && after[command / 2] == first : answer.rfind("throw:", 0) == 0,
                name + " answered " + answer + " and set " + after[command / 2]);
  } else {
    const auto admin = log::local::admin::get();
    std::string listed;  // the admin's channels, one per line
    for (const std::string& channel : none ? admin->getChannels() : admin->getChannels(first)) {
      listed += channel + "\n";
    }
    const std::string want = command == 4 ? listed : command == 5 ? kNames : before[command / 2];
    fuzz::expect(name, want, answer);
  }
  // A file the log accepted lies inside the confinement, by its name and after links are followed,
  // whether plain or rotating, and behind a queue or not.
  std::string target = first.rfind("async:", 0) == 0 ? first.substr(6) : first;
  if (target.rfind("rotating:", 0) == 0) {
    const auto sizeEnd = target.find(':', 9);
    const auto countEnd = sizeEnd == std::string::npos ? sizeEnd : target.find(':', sizeEnd + 1);
    target = countEnd == std::string::npos ? std::string() : "file:" + target.substr(countEnd + 1);
  }
  if (command == 1 && answer.empty() && target.rfind("file:", 0) == 0) {
    const std::filesystem::path file = std::filesystem::path(directory) / target.substr(5);
    char resolved[PATH_MAX];
    MODEL_CHECK(file.lexically_normal().string().rfind(directory, 0) == 0 &&
                    (!::realpath(file.c_str(), resolved) || std::string(resolved).rfind(directory, 0) == 0),
                first + " leads outside " + directory);
    log::set_destination("null");  // keeps the open files few
  }
  world.fuzz.critical("after " + name);  // whatever happened, the log still takes records
}
