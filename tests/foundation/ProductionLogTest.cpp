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
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"
#include "tests/support/ProcessLogFixture.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
namespace flog = foundation::log;
using connector::test_support::TempDirectory;
using ::testing::HasSubstr;

class ProductionLog : public connector::test_support::ProcessLogFixture {
 protected:
  // The lines of a file, in order, with everything up to the text cut off if `whole` is false.
  static std::vector<std::string> lines(const std::string& file, bool whole = false) {
    std::istringstream in(TempDirectory::read(file));
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
      all.push_back(whole ? line : line.substr(line.rfind("] ") + 2));
    }
    return all;
  }

  TempDirectory dir;
};

// Whether the destination moves on or the process exits normally, the queue of an async: file is
// written out first: the file holds every record, in order.
TEST_F(ProductionLog, AChangeOrANormalExitWritesOutTheQueue) {
  const auto write = [](const std::string& file) {
    flog::set_destination("async:file:" + file);
    for (int i = 0; i < 8000; ++i) {  // 8,000 fit the queue: nothing may be dropped
      flog::channel("prodlog.drain").info(std::to_string(i));
    }
  };
  write(dir / "changed.log");
  flog::set_destination("null");
  EXPECT_EXIT((write(dir / "exited.log"), std::exit(0)), ::testing::ExitedWithCode(0), "");
  for (const char* name : {"changed.log", "exited.log"}) {
    const std::vector<std::string> texts = lines(dir / name);
    ASSERT_EQ(texts.size(), 8000u) << name;
    for (std::size_t i = 0; i < texts.size(); ++i) {
      ASSERT_EQ(texts[i], std::to_string(i)) << name;
    }
  }
}

// A stalled destination: the queue keeps the newest 8,192 records in order, counts the ones it
// dropped, and once it has room again writes one warning that says how many. The audit trail
// passes the queue, on the writer's own thread.
TEST_F(ProductionLog, AFullQueueDropsTheOldestCountsThemAndWarnsOnce) {
  std::promise<void> entered, release;
  std::shared_future<void> released = release.get_future().share();
  std::vector<std::string> warnings, kept;  // written under the sink's lock, read once it is drained
  std::thread::id auditWriter;
  flog::testing::define_test_destination("prodlog.stall", [&](std::string_view record) {
    if (record.find("[connector.audit]") != std::string_view::npos) {
      auditWriter = std::this_thread::get_id();
      return;
    }
    if (kept.empty()) {
      entered.set_value();
      released.wait();
    }
    (record.find("[foundation.log]") != std::string_view::npos ? warnings : kept).emplace_back(record);
  });
  flog::set_destination("async:test:prodlog.stall");
  flog::channel(flog::audit_channel_name).info("audited");
  EXPECT_EQ(auditWriter, std::this_thread::get_id());
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

// rotating:1K:2:PATH keeps the file and two old ones, each rotated when the next record would
// pass 1,024 bytes (the records here are all of one length), and the newest records in the file.
TEST_F(ProductionLog, RotationKeepsFilesOldFilesOfAtMostMaxBytes) {
  flog::set_destination("rotating:1K:2:" + (dir / "app.log"));
  for (int i = 10; i < 100; ++i) {
    flog::channel("prodlog.rotation").info("record " + std::to_string(i) + std::string(40, '.'));
  }
  flog::set_destination("null");
  const std::size_t length = lines(dir / "app.log", true).at(0).size() + 1;
  for (const char* name : {"app.log", "app.1.log", "app.2.log"}) {
    EXPECT_EQ(fs::file_size(dir / name), 1024 / length * length) << name;
  }
  EXPECT_FALSE(fs::exists(dir / "app.3.log"));
  EXPECT_THAT(lines(dir / "app.log").back(), HasSubstr("record 99."));
}

// After an outside tool renamed the file, reopening starts a new one under the name: the two files
// hold every record exactly once and in order, those written before the reopen in the renamed one.
TEST_F(ProductionLog, ReopeningAfterARenameSplitsTheRecordsAcrossTheTwoFiles) {
  for (const std::string prefix : {"file:", "rotating:1M:2:", "async:file:"}) {
    fs::remove(dir / "app.log");
    fs::remove(dir / "renamed.log");
    flog::set_destination(prefix + (dir / "app.log"));
    std::vector<std::string> written;
    auto write = [&](int count) {
      for (int i = 0; i < count; ++i) {
        written.push_back(std::to_string(written.size()));
        flog::channel("prodlog.reopen").info(written.back());
      }
    };
    write(10);
    fs::rename(dir / "app.log", dir / "renamed.log");
    write(5);
    flog::reopen();
    write(10);
    flog::set_destination("null");
    std::vector<std::string> both = lines(dir / "renamed.log");
    const std::vector<std::string> fresh = lines(dir / "app.log");
    // Behind async: the split depends on how far the queue's thread had got at each step.
    EXPECT_TRUE(prefix == "async:file:" || both.size() == 15u) << prefix;
    both.insert(both.end(), fresh.begin(), fresh.end());
    EXPECT_EQ(both, written) << prefix;
  }
}

// A timed specification is restored when its time is up, unless another was set meanwhile: the
// first restore below is cancelled by a plain set, so only the second one happens.
TEST_F(ProductionLog, ATimedSpecificationIsRestoredUnlessAnotherWasSetMeanwhile) {
  flog::set_specification_for(std::chrono::seconds(1), "debug");
  flog::set_specification("warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  flog::set_specification_for(std::chrono::seconds(1), "trace");
  const auto pending = flog::statistics().pending_restore;
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->specification, "warn");
  EXPECT_EQ(pending->remaining, std::chrono::seconds(1));
  EXPECT_TRUE(flog::channel("prodlog.timed").enabled(flog::level::trace));
  while (flog::specification() == "trace") {  // the restoring thread's turn; the time-out bounds it
    std::this_thread::yield();
  }
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  EXPECT_FALSE(flog::channel("prodlog.timed").enabled(flog::level::info));
}

// Every malformed destination, duration or reopen is refused with a text that says why, and
// leaves the destination, the specification and the absence of a restore as they were.
TEST_F(ProductionLog, ARefusedTextDurationOrReopenChangesNothing) {
  flog::set_destination("stderr");
  flog::set_specification("warn");
  flog::confine_file_destinations(dir.path().string());
  const auto refusal = [](auto call) -> std::string {
    try {
      call();
    } catch (const std::exception& error) {
      return error.what();
    }
    return "accepted";
  };
  for (const auto& [text, fragment] : std::vector<std::pair<std::string, std::string>>{
           {"async:", "async: goes before one destination"},
           {"async:async:null", "async: goes before one destination"},
           {"rotating:1K:2", "write rotating:MAX_BYTES:FILES:PATH"},
           {"rotating:0:2:x.log", "MAX_BYTES \"0\" is not a size"},
           {"rotating:1025M:2:x.log", "MAX_BYTES \"1025M\" is not a size from 1 byte to 1024M"},
           {"rotating:1K:1001:x.log", "FILES \"1001\" is not a number of old files from 0 to 1000"},
           {"rotating:1K:2:", "names no file"},
           {"async:rotating:1K:2:../x.log", "\"..\" may not appear"},
           {"test:prodlog.undefined", "no test destination \"prodlog.undefined\""}}) {
    EXPECT_THAT(refusal([&, &text = text] { flog::set_destination(text); }), HasSubstr(fragment)) << text;
  }
  for (const long seconds : {0L, 86401L}) {
    EXPECT_THAT(refusal([&] { flog::set_specification_for(std::chrono::seconds(seconds), "debug"); }),
                HasSubstr("\"debug\" for " + std::to_string(seconds) +
                          " seconds is refused: a timed specification lasts 1 to 86400 seconds"));
  }
  EXPECT_THAT(refusal([] { flog::set_specification_for(std::chrono::seconds(5), "loud"); }),
              HasSubstr("unknown level \"loud\""));
  EXPECT_EQ(refusal([] { flog::reopen(); }),
            "the log destination \"stderr\" has no file to reopen; reopening applies to file:, rotating: and "
            "async: before one of them");
  EXPECT_EQ(flog::destination(), "stderr");
  EXPECT_EQ(flog::specification(), "warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

}  // namespace
