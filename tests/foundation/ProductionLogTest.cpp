// The process log's production destinations and operations: the async queue, rotation, reopening,
// timed specifications and the statistics, read back from files in a fresh temporary directory
// or from a test destination. The log is process-wide, so every test sets what it needs.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
namespace flog = foundation::log;
using connector::test_support::TempDirectory;
using ::testing::HasSubstr;

class ProductionLog : public ::testing::Test {
 protected:
  void SetUp() override { TearDown(); }
  void TearDown() override {
    flog::confine_file_destinations("");
    flog::set_specification("info");
    flog::set_destination("null");
  }

  // The lines of a file, in order.
  static std::vector<std::string> lines(const std::string& file) {
    std::istringstream in(TempDirectory::read(file));
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
      all.push_back(line);
    }
    return all;
  }

  // The texts of the records in `file` (what follows "] " after the level).
  static std::vector<std::string> texts(const std::string& file) {
    std::vector<std::string> all;
    for (const std::string& line : lines(file)) {
      all.push_back(line.substr(line.rfind("] ") + 2));
    }
    return all;
  }

  TempDirectory dir;
};

// Four threads write to an async: file; moving to another destination writes out the queue
// first, so the old file holds every record, each thread's in the order written.
TEST_F(ProductionLog, ChangingTheDestinationWritesOutTheQueueFirst) {
  flog::set_destination("async:file:" + (dir / "queued.log"));
  constexpr int kThreads = 4, kRecords = 2000;  // 8,000 fit the queue: nothing may be dropped
  const flog::channel channel("prodlog.drain");
  std::promise<void> go;
  std::shared_future<void> started = go.get_future().share();
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      started.wait();
      for (int i = 0; i < kRecords; ++i) {
        channel.info(std::to_string(t) + " " + std::to_string(i));
      }
    });
  }
  go.set_value();
  for (auto& writer : writers) {
    writer.join();
  }
  flog::set_destination("null");
  std::vector<int> next(kThreads, 0);
  for (const std::string& text : texts(dir / "queued.log")) {
    std::istringstream record(text);
    int t = 0, i = 0;
    record >> t >> i;
    ASSERT_EQ(i, next.at(t)) << text;
    ++next[t];
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kRecords));
}

// A normal exit writes out what is still queued.
TEST_F(ProductionLog, ANormalExitWritesOutTheQueue) {
  const std::string file = dir / "exit.log";
  EXPECT_EXIT(
      {
        flog::set_destination("async:file:" + file);
        const flog::channel channel("prodlog.exit");
        for (int i = 0; i < 8000; ++i) {
          channel.info(std::to_string(i));
        }
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(lines(file).size(), 8000u);
}

// A stalled destination: the queue keeps the newest 8,192 records in order, counts the ones it
// dropped, and once it has room again writes one warning that says how many.
TEST_F(ProductionLog, AFullQueueDropsTheOldestCountsThemAndWarnsOnce) {
  std::promise<void> entered, release;
  std::shared_future<void> released = release.get_future().share();
  std::vector<std::string> received;  // written by the queue's thread, read after it is joined
  flog::testing::define_test_destination("prodlog.stall", [&](std::string_view record) {
    if (received.empty()) {
      entered.set_value();
      released.wait();
    }
    received.emplace_back(record);
  });
  flog::set_destination("async:test:prodlog.stall");
  const flog::channel channel("prodlog.drops");
  const auto before = flog::statistics();
  channel.info("r0");
  entered.get_future().wait();  // r0 has left the queue: 8,192 places are free
  constexpr std::uint64_t kQueue = 8192, kDropped = 5;
  for (std::uint64_t i = 1; i <= kQueue + kDropped; ++i) {
    channel.info("r" + std::to_string(i));
  }
  const auto during = flog::statistics();
  EXPECT_EQ(during.dropped - before.dropped, kDropped);
  EXPECT_EQ(during.queued, kQueue);
  EXPECT_EQ(during.records - before.records, kQueue + kDropped + 1);
  release.set_value();
  flog::set_destination("null");
  std::vector<std::string> warnings, kept;
  for (const std::string& record : received) {
    (record.find("[foundation.log]") != std::string::npos ? warnings : kept).push_back(record);
  }
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0],
              HasSubstr("[foundation.log] [warning] 5 log records were dropped because the async "
                        "queue of 8192 records was full\n"));
  ASSERT_EQ(kept.size(), 1u + kQueue);
  EXPECT_THAT(kept[0], HasSubstr("[prodlog.drops] [info] r0\n"));
  for (std::uint64_t i = 1; i <= kQueue; ++i) {
    ASSERT_THAT(kept[i], HasSubstr("] r" + std::to_string(i + kDropped) + "\n"));
  }
  EXPECT_EQ(flog::statistics().dropped - before.dropped, kDropped);
}

// rotating:1K:2:PATH keeps the file and two old ones, none larger than 1,024 bytes, and the
// newest records in the file itself.
TEST_F(ProductionLog, RotationKeepsFilesOldFilesOfAtMostMaxBytes) {
  flog::set_destination("rotating:1K:2:" + (dir / "app.log"));
  const flog::channel channel("prodlog.rotation");
  for (int i = 0; i < 100; ++i) {
    channel.info("record " + std::to_string(i) + std::string(40, '.'));
  }
  flog::set_destination("null");
  for (const char* name : {"app.log", "app.1.log", "app.2.log"}) {
    EXPECT_TRUE(fs::exists(dir / name)) << name;
    EXPECT_LE(fs::file_size(dir / name), 1024u) << name;
    EXPECT_GT(fs::file_size(dir / name), 1024u - 150u) << name;  // rotated only when a record did not fit
  }
  EXPECT_FALSE(fs::exists(dir / "app.3.log"));
  EXPECT_THAT(texts(dir / "app.log").back(), HasSubstr("record 99."));
}

// After an outside tool renamed the file, reopening starts a new one under the name: the two files
// hold every record exactly once and in order, those written before the reopen in the renamed one.
TEST_F(ProductionLog, ReopeningAfterARenameSplitsTheRecordsAcrossTheTwoFiles) {
  for (const std::string prefix : {"file:", "rotating:1M:2:", "async:file:"}) {
    fs::remove(dir / "app.log");
    fs::remove(dir / "renamed.log");
    flog::set_destination(prefix + (dir / "app.log"));
    const flog::channel channel("prodlog.reopen");
    std::vector<std::string> written;
    auto write = [&](int count) {
      for (int i = 0; i < count; ++i) {
        written.push_back(std::to_string(written.size()));
        channel.info(written.back());
      }
    };
    write(10);
    fs::rename(dir / "app.log", dir / "renamed.log");
    write(5);
    flog::reopen();
    write(10);
    flog::set_destination("null");
    std::vector<std::string> both = texts(dir / "renamed.log");
    const std::vector<std::string> fresh = texts(dir / "app.log");
    // Behind async: the split depends on how far the queue's thread had got at each step.
    if (prefix != "async:file:") {
      EXPECT_EQ(both.size(), 15u) << prefix;
    }
    both.insert(both.end(), fresh.begin(), fresh.end());
    EXPECT_EQ(both, written) << prefix;
  }
}

// A timed specification is restored when its time is up, unless another was set meanwhile: the
// first restore below is cancelled by a plain set, so only the second one happens.
TEST_F(ProductionLog, ATimedSpecificationIsRestoredUnlessAnotherWasSetMeanwhile) {
  flog::set_specification_for(std::chrono::seconds(1), "debug");
  EXPECT_EQ(flog::statistics().pending_restore->specification, "info");
  flog::set_specification("warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  flog::set_specification_for(std::chrono::seconds(1), "trace");
  const auto pending = flog::statistics().pending_restore;
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->specification, "warn");
  EXPECT_EQ(pending->remaining, std::chrono::seconds(1));
  EXPECT_TRUE(flog::channel("prodlog.timed").enabled(flog::level::trace));
  // Waits for the restoring thread; the test's time-out bounds the wait.
  while (flog::specification() == "trace") {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  EXPECT_FALSE(flog::channel("prodlog.timed").enabled(flog::level::info));
}

// "invalid_argument: " or "runtime_error: " and the text of what `call` throws.
template <typename Call>
std::string refusal(Call call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return std::string("invalid_argument: ") + error.what();
  } catch (const std::runtime_error& error) {
    return std::string("runtime_error: ") + error.what();
  }
  return "accepted";
}

// Every malformed destination, duration or reopen is refused, and leaves the destination, the
// specification and the absence of a restore as they were.
TEST_F(ProductionLog, ARefusedTextDurationOrReopenChangesNothing) {
  flog::set_destination("stderr");
  flog::set_specification("warn");
  const std::vector<std::tuple<std::string, std::string>> destinations = {
      {"async:", "async: goes before one destination"},
      {"async:async:null", "async: goes before one destination"},
      {"async:nowhere", "unknown log destination \"nowhere\""},
      {"rotating:", "write rotating:MAX_BYTES:FILES:PATH"},
      {"rotating:1K:2", "write rotating:MAX_BYTES:FILES:PATH"},
      {"rotating:0:2:x.log", "MAX_BYTES \"0\" is not a size"},
      {"rotating:1025M:2:x.log", "MAX_BYTES \"1025M\" is not a size"},
      {"rotating:10G:2:x.log", "MAX_BYTES \"10G\" is not a size"},
      {"rotating:K:2:x.log", "MAX_BYTES \"K\" is not a size"},
      {"rotating:1K:x:x.log", "FILES \"x\" is not a number of old files from 0 to 1000"},
      {"rotating:1K:1001:x.log", "FILES \"1001\""},
      {"rotating:1K:2:", "names no file"},
      {"rotating:1K:2:../x.log", "\"..\" may not appear"},
      {"async:file:../x.log", "\"..\" may not appear"},
      {"test:prodlog.undefined", "no test destination \"prodlog.undefined\""},
  };
  flog::confine_file_destinations(dir.path().string());
  for (const auto& [destination, fragment] : destinations) {
    const std::string& text = destination;  // a lambda may not capture a structured binding
    EXPECT_THAT(refusal([&] { flog::set_destination(text); }), HasSubstr(fragment)) << text;
  }
  for (const long seconds : {0L, -1L, 86401L}) {
    EXPECT_THAT(refusal([&] { flog::set_specification_for(std::chrono::seconds(seconds), "debug"); }),
                HasSubstr("a timed specification lasts 1 to 86400 seconds"));
  }
  EXPECT_THAT(refusal([] { flog::set_specification_for(std::chrono::seconds(5), "loud"); }),
              HasSubstr("unknown level \"loud\""));
  EXPECT_EQ(
      refusal([] { flog::reopen(); }),
      "invalid_argument: the log destination \"stderr\" has no file to reopen; reopening applies to file:, "
      "rotating: and async: before one of them");
  EXPECT_EQ(flog::destination(), "stderr");
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
