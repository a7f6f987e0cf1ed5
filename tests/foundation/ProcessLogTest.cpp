// The process log, for real: records are read back from files in a fresh temporary directory or
// from a test destination. The log is process-wide: the fixture resets it around every test, and
// each test uses channels of its own.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"
#include "tests/support/ProcessLogFixture.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
namespace flog = foundation::log;
using connector::test_support::TempDirectory;
using ::testing::HasSubstr;

class ProcessLog : public connector::test_support::ProcessLogFixture {
 protected:
  // The texts of a file's records, in order: each line with everything up to the last "] " cut off.
  static std::vector<std::string> texts(const std::string& file) {
    std::vector<std::string> all = TempDirectory::lines(file);
    for (std::string& line : all) {
      line.erase(0, line.rfind("] ") + 2);
    }
    return all;
  }

  TempDirectory dir;
};

// The last override that matches a channel decides its level, for channels made before and after
// the setting; a file: destination appends, and a record is in the file once write() returns.
// Every malformed or forbidden destination is refused with a text that says why, and a malformed
// level setting is refused too. With file destinations confined to `dir`, files outside are
// refused whether named by an absolute path, by ".." or through a symbolic link, and nothing is
// created outside.
TEST_F(ProcessLog, TheLastMatchingOverrideDecidesAndARefusedSettingChangesNothing) {
  TempDirectory outside;
  fs::create_directory(dir / "sub");
  fs::create_directory_symlink(outside.path(), dir / "linkdir");
  fs::create_symlink(outside / "target.log", dir / "link.log");
  EXPECT_THROW(flog::set_destination("file:" + (dir / "missing/x.log")), std::runtime_error);
  EXPECT_THROW(flog::confine_file_destinations(dir / "nowhere"), std::invalid_argument);
  flog::confine_file_destinations(dir.path().string());
  std::ofstream(dir / "app.log") << "[old] earlier\n";
  const flog::channel early("proclog.a");
  flog::set_destination("file:app.log");
  flog::set_specification(" debug ,proclog.*=off, proclog.a = trace ");
  const std::vector<std::pair<std::string, std::string>> refused = {
      {"rotating:1025M:2:x.log", "MAX_BYTES \"1025M\" is not a size from 1 byte to 1024M"},
      {"rotating:1K:1001:x.log", "FILES \"1001\" is not a number of old files from 0 to 1000"},
      {"file:missing/x.log", "does not exist"},
      {"file:sub", "not a regular file"},
      {"file:" + (outside / "x.log"), "lies outside the directory"},
      {"async:rotating:1K:2:../" + outside.path().filename().string() + "/x.log", "\"..\" may not appear"},
      {"file:linkdir/x.log", "through a symbolic link"},
      {"file:link.log", "is a symbolic link"},
  };
  for (const auto& row : refused) {
    EXPECT_THAT([&row] { flog::set_destination(row.first); },
                ::testing::ThrowsMessage<std::exception>(HasSubstr(row.second)));
  }
  // An unknown level, two default levels, a pattern that could never match:
  for (const char* text : {"INFO", "info,debug", "[=debug"}) {
    EXPECT_THROW(flog::set_specification(text), std::invalid_argument) << text;
  }
  EXPECT_THROW(flog::set_specification_for(std::chrono::seconds(86401), "debug"), std::invalid_argument);
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_TRUE(fs::is_empty(outside.path()));
  const flog::channel late("proclog.b"), other("proclog");
  early.trace("a trace");
  late.critical("b critical");
  other.trace("other trace");
  other.debug("other debug");
  EXPECT_THAT(texts(dir / "app.log"), ::testing::ElementsAre("earlier", "a trace", "other debug"));
  EXPECT_THROW(flog::channel(""), std::invalid_argument);
  // The audit trail answers neither to the default level nor to a pattern; only to its own name.
  const flog::channel audit(flog::audit_channel_name);
  flog::set_specification("off,connector.*=off");
  EXPECT_TRUE(audit.enabled(flog::level::info));
  flog::set_specification("info,connector.audit=off");
  EXPECT_FALSE(audit.enabled(flog::level::info));
}

// At a normal exit the queue of an async: file is written out: the file holds every record.
TEST_F(ProcessLog, ANormalExitWritesOutTheQueue) {
  const auto write = [this] {
    flog::set_destination("async:file:" + (dir / "exited.log"));
    for (int i = 0; i < 8000; ++i) {  // 8,000 fit the queue: nothing may be dropped
      flog::channel("proclog.exit").info(std::to_string(i));
    }
    std::exit(0);
  };
  EXPECT_EXIT(write(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(texts(dir / "exited.log").size(), 8000u);
}

// A stalled destination, twice: the queue keeps the newest 8,192 records, counts those it
// dropped, and once it has room again writes one warning with the drops since the last warning.
// An audit record written meanwhile travels in its own lane: it is neither dropped nor a cause of drops.
TEST_F(ProcessLog, AFullQueueDropsTheOldestCountsThemAndWarnsOncePerOverflow) {
  constexpr std::uint64_t kQueue = 8192;
  std::promise<void> entered[2], release[2];
  std::future<void> reached[2] = {entered[0].get_future(), entered[1].get_future()};
  std::future<void> released[2] = {release[0].get_future(), release[1].get_future()};
  std::vector<std::string> warnings, kept;  // the others and proclog.drops's, read once drained
  int stalls = 0;
  flog::testing::define_test_destination("proclog.stall", [&](std::string_view record) {
    if (record.find("] stall\n") != std::string_view::npos) {
      entered[stalls].set_value();
      released[stalls++].wait();
    } else {
      (record.find("[proclog.drops]") == std::string_view::npos ? warnings : kept).emplace_back(record);
    }
  });
  flog::set_destination("async:test:proclog.stall");
  const flog::channel channel("proclog.drops");
  const auto before = flog::statistics();
  const std::uint64_t drops[2] = {5, 3};
  for (int round = 0; round < 2; ++round) {
    while (flog::statistics().queued > 0) {  // the stall must find room in the queue
      std::this_thread::yield();
    }
    channel.info("stall");
    reached[round].wait();  // the stall has left the queue: 8,192 places are free
    for (std::uint64_t i = 0; i < kQueue + drops[round]; ++i) {
      channel.info("r" + std::to_string(i));
    }
    EXPECT_EQ(flog::statistics().queued, kQueue);
    flog::channel(flog::audit_channel_name).info("audited " + std::to_string(round));
    release[round].set_value();
  }
  flog::set_destination("null");
  const std::string warning = " log records were dropped because the async queue of 8192 records was full\n";
  EXPECT_THAT(warnings, ::testing::UnorderedElementsAre(HasSubstr("[foundation.log] [warn] 5" + warning),
                                                        HasSubstr("] 3" + warning), HasSubstr("] audited 0"),
                                                        HasSubstr("] audited 1")));
  ASSERT_EQ(kept.size(), 2 * kQueue);  // the oldest were dropped
  EXPECT_THAT(kept[0], HasSubstr("[proclog.drops] [info] r5\n"));
  EXPECT_EQ(flog::statistics().dropped - before.dropped, drops[0] + drops[1]);
}

// rotating:1K:2:PATH keeps the file and two old ones, each rotated when the next record would
// pass 1,024 bytes (the records here are all of one length), and the newest records in the file.
TEST_F(ProcessLog, RotationKeepsFilesOldFilesOfAtMostMaxBytes) {
  const auto before = flog::statistics();
  flog::set_destination("rotating:1K:2:" + (dir / "app.log"));
  for (int i = 10; i < 100; ++i) {
    flog::channel("proclog.rotation").info("record " + std::to_string(i) + std::string(40, '.'));
  }
  flog::set_destination("null");
  const std::size_t length = TempDirectory::read(dir / "app.log").find('\n') + 1;
  for (const char* name : {"app.log", "app.1.log", "app.2.log"}) {
    EXPECT_EQ(fs::file_size(dir / name), 1024 / length * length) << name;
  }
  EXPECT_FALSE(fs::exists(dir / "app.3.log"));
  EXPECT_THAT(texts(dir / "app.log").back(), HasSubstr("record 99."));
  const auto after = flog::statistics();
  EXPECT_EQ(after.records_by_level[2] - before.records_by_level[2], 90u);  // info, counted by level
  EXPECT_EQ(after.rotations - before.rotations, (90 + 1024 / length - 1) / (1024 / length) - 1);
}

// After an outside tool renamed the file, reopening starts a new one under the name: the two files
// hold every record exactly once and in order, those written before the reopen in the renamed one.
// A destination without a file refuses to reopen.
TEST_F(ProcessLog, ReopeningAfterARenameSplitsTheRecordsAcrossTheTwoFiles) {
  const flog::channel channel("proclog.reopen");
  const std::uint64_t reopens = flog::statistics().reopens;
  for (const std::string prefix : {"file:", "rotating:1M:2:", "async:file:"}) {
    fs::remove(dir / "app.log");
    flog::set_destination(prefix + (dir / "app.log"));
    channel.info("before");
    fs::rename(dir / "app.log", dir / "renamed.log");
    channel.info("renamed");
    flog::reopen();
    channel.info("after");
    flog::set_destination("null");
    std::vector<std::string> both = texts(dir / "renamed.log");
    // Behind async: the split depends on how far the queue's thread had got at each step.
    EXPECT_TRUE(prefix == "async:file:" || both.size() == 2u) << prefix;
    const std::vector<std::string> fresh = texts(dir / "app.log");
    both.insert(both.end(), fresh.begin(), fresh.end());
    EXPECT_THAT(both, ::testing::ElementsAre("before", "renamed", "after")) << prefix;
  }
  EXPECT_THROW(flog::reopen(), std::invalid_argument);
  EXPECT_EQ(flog::statistics().reopens - reopens, 3u);  // the refused one is not counted
}

// A timed specification is restored when its time is up, unless a plain set ended the window:
// the first window below is ended, the second is re-issued, which keeps what is restored, and
// the restore is logged.
TEST_F(ProcessLog, ATimedSpecificationRestoresWhatWasInForceBeforeItsFirstWindowAndSaysSo) {
  flog::set_destination("file:" + (dir / "app.log"));
  flog::set_specification_for(std::chrono::seconds(1), "debug");
  flog::set_specification("info,proclog.timed=warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  flog::set_specification_for(std::chrono::seconds(1), "trace");
  flog::set_specification_for(std::chrono::seconds(2), "debug");
  const auto pending = flog::statistics().pending_restore;
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->specification, "info,proclog.timed=warn");
  EXPECT_EQ(pending->remaining, std::chrono::seconds(2));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);  // generous, not timed
  while (TempDirectory::lines(dir / "app.log").empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(flog::specification(), "info,proclog.timed=warn");
  EXPECT_FALSE(flog::statistics().pending_restore);
  EXPECT_FALSE(flog::channel("proclog.timed").enabled(flog::level::info));
  EXPECT_THAT(
      texts(dir / "app.log"),
      ::testing::ElementsAre(::testing::MatchesRegex(
          "specification \"info,proclog.timed=warn\" restored after [2-9] s of the timed \"debug\"")));
}

// Under json:, every line parses whatever bytes its text holds, and gives the channel, the level
// as specifications spell it and the time in UTC, whatever the local time zone.
TEST_F(ProcessLog, EveryJsonLineParsesWhateverItsTextHoldsWithTheTimeInUtc) {
  ::setenv("TZ", "XXX-14", 1);  // fourteen hours ahead of UTC
  ::tzset();
  flog::set_destination("json:file:" + (dir / "app.log"));
  const flog::channel channel("proclog.json");
  std::mt19937 random(7);
  const std::time_t now = std::time(nullptr);
  for (int i = 0; i < 500; ++i) {
    std::string text(random() % 40, '\0');
    for (char& byte : text)
      byte = static_cast<char>(random());
    channel.warn(text);
  }
  flog::set_destination("null");
  char hour[16];
  std::strftime(hour, sizeof hour, "%Y-%m-%dT%H", std::gmtime(&now));
  const std::vector<std::string> lines = TempDirectory::lines(dir / "app.log");
  ASSERT_EQ(lines.size(), 500u);
  for (const std::string& line : lines) {
    const nlohmann::json record = nlohmann::json::parse(line);  // throws for a line that does not parse
    EXPECT_EQ(record["level"], "warn");
    EXPECT_THAT(record["time"].get<std::string>(),
                ::testing::MatchesRegex(std::string(hour) + ":..:..\\....Z"));
  }
}

}  // namespace
