// The process log while its destination keeps moving between an async: file, a plain file and a
// rotating one, with four threads writing all along.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace log = foundation::log;
using connector::test_support::stressCount;
using connector::test_support::TempDirectory;

// Every record lands in exactly one file, whole; the only ones missing are those an async: queue
// counted as dropped.
TEST(LogDestinationUnderLoad, EachRecordLandsWholeInExactlyOneFileWhileTheDestinationMoves) {
  TempDirectory dir;
  log::set_specification("info");
  const int moves = stressCount(1000);
  const int records = stressCount(20000);  // per writer: about 20 per move
  constexpr int kWriters = 4;
  // Rotation never deletes here: 1,000 old files of 256 KiB hold more than every record.
  const std::vector<std::string> destinations = {"async:file:" + (dir / "queued.log"),
                                                 "file:" + (dir / "plain.log"),
                                                 "rotating:256K:1000:" + (dir / "rotating.log")};
  const std::uint64_t droppedBefore = log::statistics().dropped;
  log::set_destination(destinations[0]);
  std::vector<std::thread> writers;
  for (int t = 0; t < kWriters; ++t) {
    writers.emplace_back([t, records] {
      const log::channel channel("stress.destination");
      for (int i = 0; i < records; ++i) {
        channel.info("w" + std::to_string(t) + " n" + std::to_string(i) + " end");
      }
    });
  }
  for (int m = 1; m <= moves; ++m) {
    log::set_destination(destinations[m % destinations.size()]);
  }
  for (auto& writer : writers) {
    writer.join();
  }
  log::set_destination("null");

  // Each line but a queue's drop report is one whole record, with nothing after it.
  const auto whole =
      ::testing::MatchesRegex("\\[[0-9:.TZ-]*\\] \\[stress\\.destination\\] \\[info\\] w[0-9] n[0-9]+ end");
  std::set<std::string> seen;  // "wW nN end"
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) {
      if (line.find("] [foundation.log] [warn] ") == std::string::npos) {
        ASSERT_THAT(line, whole);
        ASSERT_TRUE(seen.insert(line.substr(line.find("] w") + 2)).second) << "written twice: " << line;
      }
    }
  }
  EXPECT_EQ(seen.size() + (log::statistics().dropped - droppedBefore), std::uint64_t(kWriters) * records);
}

}  // namespace
