// Calls the five logging commands and the connector command with random argument lists (0 to
// 300 strings of any bytes, NUL and line feed included) against the real process log, whose
// file destinations are confined to a scratch directory.
//
// Checked for every call: a getter answers the setting in force exactly; a setter either
// answers "" and makes its first argument the setting, or throws and leaves the setting as it
// was; a file the log accepted lies inside the confinement directory; the channel list is the
// admin's, one name per line; the connector command answers the same text whatever it is given.
#include <fnmatch.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Admin.h"
#include "foundation/log/Log.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConnector.h"

namespace {

using connector::testing::FakeAdministration;
using connector::testing::FakeConnector;

[[noreturn]] void mismatch(const std::string& what) {
  std::fprintf(stderr, "MODEL MISMATCH: %s\n", what.c_str());
  std::fflush(stderr);
  std::abort();
}

#define MODEL_CHECK(ok, what) \
  do {                        \
    if (!(ok)) {              \
      mismatch(what);         \
    }                         \
  } while (false)

// Printable, for mismatch reports: NUL and line feeds made visible.
std::string shown(const std::string& text) {
  std::string out;
  for (char c : text.substr(0, 200)) {
    out += c == '\0' ? std::string("\\0") : c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return "\"" + out + (text.size() > 200 ? "...\"" : "\"");
}

std::string lines(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += name + "\n";
  }
  return text;
}

// The process-wide set-up, made once: the registry with both providers, a connector with names
// that need care (a line feed, upper before lower case), channels to list, and the confinement.
struct World {
  std::shared_ptr<FakeAdministration> administration = std::make_shared<FakeAdministration>();
  std::shared_ptr<FakeConnector> connector =
      std::make_shared<FakeConnector>(std::set<std::string>{"alpha", "Beta", "a\nb"});
  connector::common_services::LoggingCommandProvider logging{administration};
  connector::common_services::ConnectorCommandProvider listing{connector, administration};
  std::string directory;
  std::vector<foundation::log::channel> channels;

  World() {
    const char* scratch = std::getenv("FUZZ_SCRATCH_DIR");
    std::string pattern = std::string(scratch ? scratch : "/tmp") + "/command-fuzzer-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    char resolved[PATH_MAX];
    directory = ::realpath(pattern.c_str(), resolved) ? resolved : pattern;
    foundation::log::confine_file_destinations(directory);
    foundation::log::set_destination("null");
    for (const char* name : {"connector.fuzz.a", "connector.fuzz.b", "other"}) {
      channels.emplace_back(name);
    }
  }
};

World& world() {
  // Never destroyed: the log may be written to during static teardown. Its scratch directory
  // goes when the process exits.
  static World* instance = [] {
    auto* made = new World();
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(world().directory, ignored);
    });
    return made;
  }();
  return *instance;
}

const char* const kCommands[] = {"connector.log.getDestination",   "connector.log.setDestination",
                                 "connector.log.getSpecification", "connector.log.setSpecification",
                                 "connector.log.getChannels",      "connector.listServiceProviders"};

// Arguments that the log understands now and then, and any bytes the rest of the time.
std::string argument(FuzzedDataProvider& input) {
  static const char* const kKnown[] = {"null",
                                       "stderr",
                                       "file:a.log",
                                       "file:sub/../b.log",
                                       "file:/tmp/x.log",
                                       "file:../x",
                                       "info",
                                       "off",
                                       "warn,connector.*=debug",
                                       "connector.*",
                                       "*",
                                       "other",
                                       "trace , x=error"};
  if (input.ConsumeIntegralInRange<int>(0, 3) == 0) {
    return kKnown[input.ConsumeIntegralInRange<std::size_t>(0, sizeof kKnown / sizeof kKnown[0] - 1)];
  }
  return input.ConsumeRandomLengthString(64);
}

// The file a "file:" destination names, resolved as the log does (relative to the confinement
// directory), must lie inside that directory both by its name and after links are followed.
void checkConfined(const std::string& destination, const std::string& directory) {
  if (destination.rfind("file:", 0) != 0) {
    return;
  }
  const std::string path = destination.substr(5);
  const std::filesystem::path full =
      !path.empty() && path[0] == '/' ? std::filesystem::path(path) : std::filesystem::path(directory) / path;
  const std::string inside = directory + "/";
  MODEL_CHECK(full.lexically_normal().string().rfind(inside, 0) == 0,
              "the accepted destination " + shown(destination) + " names a file outside " + directory);
  char resolved[PATH_MAX];
  if (::realpath(full.c_str(), resolved) != nullptr) {
    MODEL_CHECK(std::string(resolved).rfind(inside, 0) == 0,
                "the accepted destination " + shown(destination) + " leads outside " + directory);
  }
}

void runOne(FuzzedDataProvider& input) {
  World& w = world();
  const int command = input.ConsumeIntegralInRange<int>(0, 5);
  std::vector<std::string> arguments(input.ConsumeIntegralInRange<std::size_t>(0, 300));
  for (std::string& each : arguments) {
    each = argument(input);
  }
  const std::vector<std::string> given = arguments;
  const std::string destinationBefore = foundation::log::destination();
  const std::string specificationBefore = foundation::log::specification();

  std::string answer;
  bool threw = false;
  std::string error;
  try {
    answer = w.administration->run(kCommands[command], std::move(arguments));
  } catch (const std::exception& e) {
    threw = true;
    error = e.what();
  }
  const std::string destination = foundation::log::destination();
  const std::string specification = foundation::log::specification();
  const std::string name = kCommands[command];

  switch (command) {
    case 0:
    case 2:
      MODEL_CHECK(!threw, name + " threw " + error);
      MODEL_CHECK(answer == (command == 0 ? destinationBefore : specificationBefore),
                  name + " answered " + shown(answer));
      MODEL_CHECK(destination == destinationBefore && specification == specificationBefore,
                  name + " changed the log");
      break;
    case 1:
    case 3: {
      const std::string& after = command == 1 ? destination : specification;
      const std::string& before = command == 1 ? destinationBefore : specificationBefore;
      const std::string& other = command == 1 ? specification : destination;
      const std::string& otherBefore = command == 1 ? specificationBefore : destinationBefore;
      MODEL_CHECK(other == otherBefore, name + " changed the other setting");
      if (given.empty()) {
        MODEL_CHECK(threw && after == before,
                    name + " without an argument did not refuse, or changed the log");
      } else if (threw) {
        MODEL_CHECK(after == before,
                    name + " threw \"" + error + "\" but changed the setting to " + shown(after));
      } else {
        MODEL_CHECK(answer.empty(), name + " answered " + shown(answer));
        MODEL_CHECK(after == given[0], name + " set " + shown(after) + " instead of " + shown(given[0]));
        if (command == 1) {
          checkConfined(after, w.directory);
          foundation::log::set_destination("null");  // keep the open files few
        }
      }
      break;
    }
    case 4: {
      MODEL_CHECK(!threw, name + " threw " + error);
      const boost::shared_ptr<foundation::log::local::admin> admin = foundation::log::local::admin::get();
      const std::vector<std::string> all = admin->getChannels();
      if (given.empty()) {
        MODEL_CHECK(answer == lines(all), name + " answered " + shown(answer));
      } else if (given[0].find('\0') == std::string::npos) {
        std::vector<std::string> matching;
        for (const std::string& channel : all) {
          if (::fnmatch(given[0].c_str(), channel.c_str(), 0) == 0) {
            matching.push_back(channel);
          }
        }
        MODEL_CHECK(answer == lines(matching), name + " " + shown(given[0]) + " answered " + shown(answer));
      }
      MODEL_CHECK(destination == destinationBefore && specification == specificationBefore,
                  name + " changed the log");
      break;
    }
    default:
      MODEL_CHECK(!threw, name + " threw " + error);
      MODEL_CHECK(answer == "Beta\na\nb\nalpha\n", name + " answered " + shown(answer));
      break;
  }
  // Whatever happened, the log still takes records.
  w.channels[0].critical("after " + name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  runOne(input);
  return 0;
}
