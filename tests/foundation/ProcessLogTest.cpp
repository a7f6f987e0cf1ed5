// The process log, for real: records are read back from files in a fresh temporary directory.
// The log is process-wide, so every test sets the destination, specification and confinement it
// needs, and uses channel names of its own.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/log/Admin.h"
#include "foundation/log/Log.h"
#include "tests/support/ProcessLogFixture.h"
#include "tests/support/TempDirectory.h"

namespace {

namespace fs = std::filesystem;
namespace flog = foundation::log;
using connector::test_support::TempDirectory;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ProcessLog : public connector::test_support::ProcessLogFixture {
 protected:
  TempDirectory dir;
};

// Each step sets a specification and writes one record; the record must be in the file exactly
// when the specification lets it pass. Channels made earlier and later follow the same rules.
TEST_F(ProcessLog, RecordsTheSpecificationPassesAreAppendedToTheFileDestination) {
  std::ofstream(dir / "app.log") << "earlier line\n";
  const flog::channel early("proclog.spec.a");
  flog::set_destination("file:" + (dir / "app.log"));
  using L = flog::level;
  const std::vector<std::tuple<std::string, std::string, L, bool>> steps = {
      {"info", "proclog.spec.a", L::debug, false},
      {"info", "proclog.spec.a", L::info, true},
      {"warn, proclog.spec.a* = debug", "proclog.spec.a", L::debug, true},
      {"warn, proclog.spec.a* = debug", "proclog.spec.b", L::info, false},
      {"warn, proclog.spec.a* = debug", "proclog.spec.a2", L::debug, true},
      {"debug,proclog.spec.*=off,proclog.spec.a=trace", "proclog.spec.a", L::trace, true},
      {"debug,proclog.spec.*=off,proclog.spec.a=trace", "proclog.spec.b", L::error, false},
      {"off", "proclog.spec.a", L::critical, false},
  };
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const auto& [specification, name, severity, passes] = steps[i];
    flog::set_specification(specification);
    EXPECT_EQ(flog::specification(), specification);
    flog::channel(name).write(severity, "record " + std::to_string(i) + ".");
    const std::string text = TempDirectory::read(dir / "app.log");
    EXPECT_EQ(text.find("] record " + std::to_string(i) + ".\n") != std::string::npos, passes) << i;
    EXPECT_EQ(text.rfind("earlier line\n", 0), 0u);
  }
  flog::set_specification("info");
  flog::set_destination("file:" + (dir / "next.log"));
  early.critical("moved");
  EXPECT_THAT(TempDirectory::read(dir / "next.log"), HasSubstr("[proclog.spec.a] [critical] moved\n"));
  EXPECT_EQ(TempDirectory::read(dir / "app.log").find("moved"), std::string::npos);
}

// "invalid_argument: " or "runtime_error: " and the text of what `set(text)` throws.
std::string refusal(void (*set)(const std::string&), const std::string& text) {
  try {
    set(text);
  } catch (const std::invalid_argument& error) {
    return std::string("invalid_argument: ") + error.what();
  } catch (const std::runtime_error& error) {
    return std::string("runtime_error: ") + error.what();
  }
  return "accepted";
}

// The table is a script: the first rows run unconfined, then destinations are confined to `dir`
// and files outside it are refused too, whether named by an absolute path, by `..` or through a
// symbolic link. Nothing is created outside.
TEST_F(ProcessLog, ARefusedSettingLeavesThePreviousOneInForce) {
  TempDirectory outside;
  std::ofstream(outside / "target.log") << "";
  fs::create_directory(dir / "sub");
  fs::create_directory_symlink(outside.path(), dir / "linkdir");
  fs::create_symlink(outside / "target.log", dir / "link.log");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  flog::set_destination("file:" + (dir / "good.log"));
  flog::set_specification("warn,proclog.refused=debug");
  const std::string up = "../" + outside.path().filename().string() + "/x.log";
  const std::string invalid = "invalid_argument: ", runtime = "runtime_error: ";
  const auto destination = flog::set_destination, specification = flog::set_specification;
  const auto confine = flog::confine_file_destinations;
  const std::vector<std::tuple<void (*)(const std::string&), std::string, std::string, std::string>> cases = {
      {destination, "", invalid, "unknown log destination \"\""},
      {destination, "File:/tmp/x", invalid, "file:PATH"},
      {destination, "stderr ", invalid, "\"stderr \""},
      {destination, "file:", invalid, "names no file"},
      {destination, "file:" + (dir / "missing/x.log"), runtime, "does not exist"},
      {destination, "file:" + dir.path().string(), invalid, "not a regular file"},
      {destination, "file:" + (dir / "fifo"), invalid, "not a regular file"},
      {specification, "", invalid, "log specification is empty"},
      {specification, "INFO", invalid, "unknown level \"INFO\""},
      {specification, "info,", invalid, "item 2 is empty"},
      {specification, "info,debug", invalid, "two default levels"},
      {specification, "=debug", invalid, "no channel pattern"},
      {specification, "x=", invalid, "unknown level \"\""},
      {specification, "a=b=c", invalid, "more than one \"=\""},
      {specification, "[=debug", invalid, "pattern \"[\" is not valid"},
      {confine, dir / "nowhere", invalid, "not an existing directory"},
      {confine, dir.path().string(), "accepted", ""},
      {destination, "file:missing/x.log", runtime, "does not exist"},
      {destination, "file:" + dir.path().string(), invalid, "is the confinement directory itself"},
      {destination, "nowhere", invalid, "(e.g. file:app.log)"},
      {destination, "file:fifo", invalid, "not a regular file"},
      {destination, "file:" + (outside / "x.log"), invalid, "lies outside the directory"},
      {destination, "file:" + up, invalid, "\"..\" may not appear"},
      {destination, "file:" + (dir / up), invalid, "\"..\" may not appear"},
      {destination, "file:linkdir/x.log", invalid, "through a symbolic link"},
      {destination, "file:link.log", invalid, "is a symbolic link"},
  };
  for (const auto& [set, text, type, fragment] : cases) {
    EXPECT_THAT(refusal(set, text), AllOf(StartsWith(type), HasSubstr(fragment))) << '"' << text << '"';
  }
  EXPECT_EQ(flog::destination(), "file:" + (dir / "good.log"));
  EXPECT_EQ(flog::specification(), "warn,proclog.refused=debug");
  EXPECT_EQ(flog::file_destination_confinement(), dir.path().string());
  flog::channel("proclog.refused").debug("still here");
  EXPECT_FALSE(flog::channel("proclog.refused.not").enabled(flog::level::info));
  EXPECT_THAT(TempDirectory::read(dir / "good.log"), HasSubstr("still here"));
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_EQ(std::distance(fs::directory_iterator(outside.path()), fs::directory_iterator()), 1);
  EXPECT_EQ(TempDirectory::read(outside / "target.log"), "");
  flog::set_destination("file:sub/relative.log");  // relative to the confinement
  flog::channel("proclog.refused").warn("relative");
  EXPECT_THAT(TempDirectory::read(dir / "sub/relative.log"), HasSubstr("relative"));
  flog::confine_file_destinations("");
  flog::set_destination("file:" + (outside / "x.log"));
}

TEST_F(ProcessLog, ChannelsAreListedOnceInCreationOrderAndByPattern) {
  for (const char* name : {"proclog.list.zeta", "proclog.list.alpha", "other.proclog.list",
                           "proclog.list.alpha", "proclog.listing"}) {
    flog::channel{name};
  }
  const auto admin = flog::local::admin::get();
  EXPECT_THAT(admin->getChannels("proclog.list.*"), ElementsAre("proclog.list.zeta", "proclog.list.alpha"));
  EXPECT_THAT(admin->getChannels("proclog.list*"),
              ElementsAre("proclog.list.zeta", "proclog.list.alpha", "proclog.listing"));
  EXPECT_THAT(admin->getChannels("*proclog.list"), ElementsAre("other.proclog.list"));
  EXPECT_THAT(admin->getChannels("proclog.list"), ::testing::IsEmpty());
  EXPECT_THAT(admin->getChannels(), ::testing::IsSupersetOf({"proclog.list.zeta", "other.proclog.list"}));
  EXPECT_THROW(flog::channel(""), std::invalid_argument);
}

}  // namespace
