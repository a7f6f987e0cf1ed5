// The process log while its destination keeps moving between an async: file, a plain file and a
// rotating one, with four threads writing all along.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

namespace fs = std::filesystem;
namespace log = foundation::log;
using test_support::stressCount;
using test_support::TempDirectory;

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
  const log::channel channel("stress.destination");
  std::promise<void> go;
  std::shared_future<void> started = go.get_future().share();
  std::vector<std::thread> writers;
  for (int t = 0; t < kWriters; ++t) {
    writers.emplace_back([&, t] {
      started.wait();
      for (int i = 0; i < records; ++i) {
        channel.info("w" + std::to_string(t) + " n" + std::to_string(i) + " " + std::string(20, 'x') +
                     " end");
      }
    });
  }
  log::set_destination(destinations[0]);
  go.set_value();
  for (int m = 1; m <= moves; ++m) {
    log::set_destination(destinations[m % destinations.size()]);
  }
  for (auto& writer : writers) {
    writer.join();
  }
  log::set_destination("null");

  std::vector<std::vector<int>> seen(kWriters, std::vector<int>(records, 0));
  std::uint64_t found = 0;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    std::ifstream in(entry.path());
    for (std::string line; std::getline(in, line);) {
      if (line.find("[foundation.log] [warning]") != std::string::npos) {
        continue;  // a queue's drop report
      }
      // A whole record: "[time] [stress.destination] [info] wW nN xxxxxxxxxxxxxxxxxxxx end", nothing after.
      int writer = -1, number = -1, end = 0;
      std::sscanf(line.c_str(),
                  "[%*[0-9: .-]] [stress.destination] [info] w%d n%d xxxxxxxxxxxxxxxxxxxx end%n", &writer,
                  &number, &end);
      ASSERT_TRUE(end > 0 && static_cast<std::size_t>(end) == line.size() && writer >= 0 && number >= 0)
          << "torn or foreign: " << line;
      ASSERT_EQ(++seen.at(writer).at(number), 1) << "written twice: " << line;
      ++found;
    }
  }
  EXPECT_EQ(found + (log::statistics().dropped - droppedBefore), std::uint64_t(kWriters) * records);
}

}  // namespace
}  // namespace connector
