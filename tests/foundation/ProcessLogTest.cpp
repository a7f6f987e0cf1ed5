// The process log, for real: records are read back from files in a fresh temporary directory.
// The log is process-wide, so every test sets the destination, specification and confinement it
// needs, and uses channel names of its own.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/log/Admin.h"
#include "foundation/log/Log.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
namespace flog = foundation::log;
using connector::testing::TempDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

// The text of the E that `action` throws, or a marker that fails any HasSubstr check.
template <typename E, typename F>
std::string errorOf(F&& action) {
  try {
    action();
  } catch (const E& error) {
    return error.what();
  } catch (const std::exception& other) {
    return std::string("<wrong exception type: ") + other.what() + ">";
  }
  return "<no exception>";
}

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

class ProcessLog : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    flog::confine_file_destinations("");
    flog::set_specification("info");
    flog::set_destination("null");
  }

  TempDirectory dir;
};

TEST_F(ProcessLog, FileDestinationAppendsRecordsOfEveryChannelUntilItIsMoved) {
  const std::string file = dir / "app.log";
  std::ofstream(file) << "earlier line\n";
  const flog::channel before("proclog.append.before");
  flog::set_destination("file:" + file);
  const flog::channel after("proclog.append.after");
  before.info("first record");
  after.error("second record");
  EXPECT_EQ(flog::destination(), "file:" + file);
  flog::set_destination("file:" + (dir / "next.log"));
  before.info("third record");
  flog::set_destination("null");
  before.info("fourth record");

  const std::string text = TempDirectory::read(file);
  EXPECT_EQ(text.rfind("earlier line\n", 0), 0u);
  EXPECT_THAT(text, HasSubstr("[proclog.append.before] [info] first record\n"));
  EXPECT_THAT(text, HasSubstr("[proclog.append.after] [error] second record\n"));
  EXPECT_LT(text.find("first record"), text.find("second record"));
  EXPECT_THAT(text, Not(HasSubstr("third")));
  EXPECT_THAT(TempDirectory::read(dir / "next.log"),
              AllOf(HasSubstr("third record"), Not(HasSubstr("fourth"))));
}

TEST_F(ProcessLog, SpecificationSilencesAndEnablesExistingAndLaterChannels) {
  const std::string file = dir / "spec.log";
  flog::set_destination("file:" + file);
  const flog::channel loud("proclog.spec.loud");
  const flog::channel quiet("proclog.spec.quiet");

  loud.debug("d1 dropped at the initial info");
  loud.info("i1 kept");
  flog::set_specification("warn, proclog.spec.lo* = debug");
  EXPECT_EQ(flog::specification(), "warn, proclog.spec.lo* = debug");
  loud.debug("d2 kept by the override");
  quiet.info("i2 dropped by the default");
  quiet.warn("w2 kept");
  const flog::channel later("proclog.spec.later");
  later.info("i3 dropped: a later channel gets the default");
  const flog::channel lower("proclog.spec.lower");
  lower.debug("d3 kept: a later channel gets its override");
  flog::set_specification("debug,proclog.spec.*=off,proclog.spec.loud=trace");
  loud.trace("t4 kept: the last matching override wins");
  quiet.error("e4 dropped");
  flog::set_specification("off");
  loud.critical("c5 dropped");

  EXPECT_FALSE(loud.enabled(flog::level::critical));
  const std::string text = TempDirectory::read(file);
  for (const char* kept : {"i1", "d2", "w2", "d3", "t4"}) {
    EXPECT_THAT(text, HasSubstr(std::string("] ") + kept)) << kept;
  }
  for (const char* dropped : {"d1", "i2", "i3", "e4", "c5"}) {
    EXPECT_THAT(text, Not(HasSubstr(dropped))) << dropped;
  }
}

TEST_F(ProcessLog, RefusedDestinationLeavesThePreviousOneInForce) {
  const std::string good = "file:" + (dir / "good.log");
  flog::set_destination(good);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  const flog::channel channel("proclog.baddest");

  using std::invalid_argument;
  using std::runtime_error;
  EXPECT_THAT(errorOf<invalid_argument>([] { flog::set_destination(""); }),
              HasSubstr("unknown log destination \"\""));
  EXPECT_THAT(errorOf<invalid_argument>([] { flog::set_destination("syslog"); }), HasSubstr("\"syslog\""));
  EXPECT_THAT(errorOf<invalid_argument>([] { flog::set_destination("File:/tmp/x"); }),
              HasSubstr("file:PATH"));
  EXPECT_THAT(errorOf<invalid_argument>([] { flog::set_destination("stderr "); }), HasSubstr("\"stderr \""));
  EXPECT_THAT(errorOf<invalid_argument>([] { flog::set_destination("file:"); }), HasSubstr("names no file"));
  EXPECT_THAT(errorOf<runtime_error>([&] { flog::set_destination("file:" + (dir / "missing/x.log")); }),
              HasSubstr("does not exist"));
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_THAT(errorOf<invalid_argument>([&] { flog::set_destination("file:" + dir.path().string()); }),
              HasSubstr("not a regular file"));
  EXPECT_THAT(errorOf<invalid_argument>([&] { flog::set_destination("file:" + (dir / "fifo")); }),
              HasSubstr("not a regular file"));

  EXPECT_EQ(flog::destination(), good);
  channel.info("still here");
  EXPECT_THAT(TempDirectory::read(dir / "good.log"), HasSubstr("still here"));
}

TEST_F(ProcessLog, RefusedSpecificationLeavesThePreviousOneInForce) {
  const std::string good = "warn,proclog.badspec.loud=debug";
  flog::set_specification(good);
  const flog::channel loud("proclog.badspec.loud");
  const flog::channel other("proclog.badspec.other");

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "empty"},
      {"loud", "unknown level \"loud\""},
      {"INFO", "unknown level \"INFO\""},
      {"info,", "item 2 is empty"},
      {"info,,x=debug", "item 2 is empty"},
      {"info,debug", "two default levels"},
      {"=debug", "no channel pattern"},
      {"x=", "unknown level \"\""},
      {"a=b=c", "more than one \"=\""},
  };
  for (const auto& [text, fragment] : cases) {
    const std::string& bad = text;  // a structured binding cannot be captured in C++17
    EXPECT_THAT(errorOf<std::invalid_argument>([&] { flog::set_specification(bad); }), HasSubstr(fragment))
        << "specification \"" << text << "\"";
  }

  EXPECT_EQ(flog::specification(), good);
  EXPECT_TRUE(loud.enabled(flog::level::debug));
  EXPECT_FALSE(other.enabled(flog::level::info));
}

TEST_F(ProcessLog, ConfinementRefusesFilesOutsideItsDirectory) {
  const fs::path inside = dir.path() / "inside";
  const fs::path outside = dir.path() / "outside";
  fs::create_directories(inside / "sub");
  fs::create_directories(outside);
  std::ofstream(outside / "target.log") << "";
  fs::create_directory_symlink(outside, inside / "linkdir");
  fs::create_symlink(outside / "target.log", inside / "link.log");
  flog::confine_file_destinations(inside.string());
  EXPECT_EQ(flog::file_destination_confinement(), inside.string());

  const flog::channel channel("proclog.confined");
  flog::set_destination("file:sub/relative.log");
  channel.info("relative paths start at the directory");
  EXPECT_THAT(TempDirectory::read((inside / "sub/relative.log").string()), HasSubstr("relative paths"));
  const std::string good = "file:" + (inside / "a.log").string();
  flog::set_destination(good);

  for (const std::string& path :
       {(outside / "x.log").string(), std::string("../outside/x.log"), inside.string() + "/../outside/x.log",
        std::string("sub/../../outside/x.log"), std::string("linkdir/x.log"), std::string("link.log"),
        std::string("/etc/x.log")}) {
    EXPECT_THAT(errorOf<std::invalid_argument>([&] { flog::set_destination("file:" + path); }),
                AllOf(HasSubstr("is refused"), HasSubstr(inside.string())))
        << path;
  }
  EXPECT_EQ(flog::destination(), good);
  EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
  EXPECT_EQ(TempDirectory::read((outside / "target.log").string()), "");

  EXPECT_THAT(errorOf<std::invalid_argument>([&] { flog::confine_file_destinations(dir / "nowhere"); }),
              HasSubstr("not an existing directory"));
  EXPECT_EQ(flog::file_destination_confinement(), inside.string());
  flog::confine_file_destinations("");
  flog::set_destination("file:" + (outside / "x.log").string());
}

TEST_F(ProcessLog, ChannelsAreListedInCreationOrderAndByPattern) {
  const flog::channel zeta("proclog.list.zeta");
  const flog::channel alpha("proclog.list.alpha");
  const flog::channel elsewhere("other.proclog.list");
  const flog::channel alphaAgain("proclog.list.alpha");
  const flog::channel listing("proclog.listing");
  const auto admin = flog::local::admin::get();

  EXPECT_THAT(admin->getChannels("proclog.list.*"), ElementsAre("proclog.list.zeta", "proclog.list.alpha"));
  EXPECT_THAT(admin->getChannels("proclog.list*"),
              ElementsAre("proclog.list.zeta", "proclog.list.alpha", "proclog.listing"));
  EXPECT_THAT(admin->getChannels("*proclog.list"), ElementsAre("other.proclog.list"));
  EXPECT_THAT(admin->getChannels("proclog.list"), IsEmpty());

  const std::vector<std::string> all = admin->getChannels();
  EXPECT_EQ(std::count(all.begin(), all.end(), "proclog.list.alpha"), 1);
  EXPECT_LT(std::find(all.begin(), all.end(), "proclog.list.zeta"),
            std::find(all.begin(), all.end(), "other.proclog.list"));
  EXPECT_THROW(flog::channel(""), std::invalid_argument);
}

// Writers race destination switches, specification changes and channel listing; every record
// lands in one of the two files, and the sanitizers judge the rest.
TEST_F(ProcessLog, ConcurrentWritersAndReconfigurationLoseNoRecord) {
  const std::string a = "file:" + (dir / "a.log");
  const std::string b = "file:" + (dir / "b.log");
  flog::set_destination(a);
  constexpr int kWriters = 4;
  constexpr int kRecords = 300;
  std::promise<void> go;
  const std::shared_future<void> start = go.get_future().share();

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([start, w] {
      start.wait();
      const flog::channel channel("proclog.race." + std::to_string(w));
      for (int i = 0; i < kRecords; ++i) {
        channel.info("record");
      }
    });
  }
  threads.emplace_back([start, a, b] {
    start.wait();
    for (int i = 0; i < 100; ++i) {
      flog::set_destination(i % 2 == 0 ? b : a);
      flog::set_specification(i % 2 == 0 ? "info,proclog.race.*=debug" : "info");
      EXPECT_THAT(flog::local::admin::get()->getChannels("proclog.race.*").size(), ::testing::Le(kWriters));
    }
  });
  go.set_value();
  for (auto& thread : threads) {
    thread.join();
  }

  const std::string text = TempDirectory::read(dir / "a.log") + TempDirectory::read(dir / "b.log");
  EXPECT_EQ(count(text, "[info] record\n"), static_cast<std::size_t>(kWriters * kRecords));
}

}  // namespace
