// The command handlers of both command providers, run from several threads at once while the
// process log's destination and specification keep changing and a channel keeps writing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/log/Log.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConnector.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using common_services::ConnectorCommandProvider;
using common_services::LoggingCommandProvider;
using testing::FakeAdministration;
using testing::FakeConnector;
using testing::stressCount;
using testing::TempDirectory;

// Every specification lets the writer's info records through, so none may be lost.
const std::vector<std::string> kDestinations = {"file:a.log", "file:b.log"};
const std::vector<std::string> kSpecifications = {"info", "debug,connector.*=trace", "trace"};

int countLines(const std::string& text, const std::string& needle) {
  std::istringstream lines(text);
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    count += line.find(needle) != std::string::npos ? 1 : 0;
  }
  return count;
}

// Getters only ever see a value that was set, whole; the channel list and the service provider
// list come out the same every time; every record written while the destination moves between
// two files lands in exactly one of them.
TEST(CommandHandlersUnderLoad, ConcurrentCallsWhileTheLogMovesSeeOnlyWholeSettings) {
  const int threads = 4;
  const int iterations = stressCount(5000);
  const int records = stressCount(20000);

  TempDirectory directory;
  foundation::log::confine_file_destinations(directory.path().string());
  foundation::log::set_destination(kDestinations[0]);
  foundation::log::set_specification(kSpecifications[0]);
  std::vector<foundation::log::channel> channels;
  for (int i = 0; i < threads; ++i) {
    channels.emplace_back("connector.stress." + std::to_string(i));
  }
  std::string expectedChannels;
  for (const auto& channel : channels) {
    expectedChannels += channel.name() + "\n";
  }

  auto administration = std::make_shared<FakeAdministration>();
  auto connector = std::make_shared<FakeConnector>(std::set<std::string>{"alpha", "Beta"});
  {
    LoggingCommandProvider logging(administration);
    ConnectorCommandProvider listing(connector, administration);

    std::mutex failureMutex;
    std::vector<std::string> failures;
    auto fail = [&](const std::string& what) {
      std::lock_guard<std::mutex> lock(failureMutex);
      failures.push_back(what);
    };
    auto known = [](const std::vector<std::string>& values, const std::string& value) {
      return std::find(values.begin(), values.end(), value) != values.end();
    };

    std::thread writer([&] {
      foundation::log::channel channel("stress.writer");
      for (int i = 0; i < records; ++i) {
        channel.info("record " + std::to_string(i) + " end");
      }
    });
    auto work = [&](int self) {
      for (int i = 0; i < iterations; ++i) {
        const std::size_t turn = static_cast<std::size_t>(self + i);
        if (turn % 4 == 0) {
          administration->run("connector.log.setDestination",
                              {kDestinations[turn / 4 % kDestinations.size()]});
        } else if (turn % 4 == 2) {
          administration->run("connector.log.setSpecification",
                              {kSpecifications[turn / 4 % kSpecifications.size()], "ignored"});
        }
        const std::string destination = administration->run("connector.log.getDestination");
        if (!known(kDestinations, destination)) {
          fail("getDestination answered \"" + destination + "\"");
        }
        const std::string specification = administration->run("connector.log.getSpecification");
        if (!known(kSpecifications, specification)) {
          fail("getSpecification answered \"" + specification + "\"");
        }
        const std::string listed = administration->run("connector.log.getChannels", {"connector.stress.*"});
        if (listed != expectedChannels) {
          fail("getChannels answered \"" + listed + "\"");
        }
        const std::string everything = administration->run("connector.log.getChannels");
        if (everything.find(expectedChannels) == std::string::npos) {
          fail("getChannels without a pattern left out some of \"" + expectedChannels + "\"");
        }
        const std::string providers = administration->run("connector.listServiceProviders", {"any", "args"});
        if (providers != "Beta\nalpha\n") {
          fail("listServiceProviders answered \"" + providers + "\"");
        }
        channels[self].debug("worker " + std::to_string(self) + " turn " + std::to_string(i));
      }
    };
    std::vector<std::thread> workers;
    for (int t = 1; t < threads; ++t) {
      workers.emplace_back(work, t);
    }
    work(0);
    for (std::thread& worker : workers) {
      worker.join();
    }
    writer.join();
    EXPECT_TRUE(failures.empty()) << failures.size() << " wrong answers, the first: " << failures.front();
  }

  foundation::log::set_destination("null");
  const std::string written =
      TempDirectory::read(directory / "a.log") + TempDirectory::read(directory / "b.log");
  for (int i : {0, records / 2, records - 1}) {
    EXPECT_EQ(countLines(written, "record " + std::to_string(i) + " end"), 1) << "record " << i;
  }
  EXPECT_EQ(countLines(written, " end"), records) << "records were lost or written twice";
  foundation::log::confine_file_destinations("");
  foundation::log::set_specification("info");
  foundation::log::set_destination("stderr");
}

}  // namespace
}  // namespace connector
