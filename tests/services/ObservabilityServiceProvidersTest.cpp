// The access log and the statistics provider. The access log: answers pass through untouched and
// unwaited, the selection rules and their precedence, refused settings, and lines a JSON parser
// reads whatever the exception says. The statistics: histogram edges and percentiles, the slowest
// list, per-type counts, requests in flight, and the commands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "foundation/log/Log.h"
#include "services/AccessLogServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "services/detail/LatencyHistogram.h"
#include "services/detail/SlowestRequests.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using namespace common_services::detail;
using configuration::ConfigValue;
using test_support::Answer;
using test_support::MessagePtr;
using test_support::TempDirectory;
using ::testing::ContainsRegex;
using ::testing::MatchesRegex;
using namespace std::string_literals;

namespace shop {
struct Order : Message {};
struct Ping : Message {};
}  // namespace shop

const std::string kStart = "start=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z";
const std::string kLatencies = " p50_us=[0-9]+ p90_us=[0-9]+ p99_us=[0-9]+ max_us=[0-9]+\n";

Future<MessagePtr> deliver(ServiceProvider& provider, MessagePtr message, Answer answer) {
  return provider.deliver(std::move(message), Address("api"),
                          std::make_shared<test_support::FakeContext>(std::move(answer)));
}

// An access log named "access" writing to a file of its own, with the given settings sent in.
struct Log {
  TempDirectory directory;
  std::shared_ptr<test_support::FakeConfiguration> configuration =
      std::make_shared<test_support::FakeConfiguration>();
  common_services::AccessLogServiceProvider provider{configuration, "access"};
  std::string file = directory / "access.log";

  explicit Log(const std::vector<std::pair<std::string, ConfigValue>>& settings = {}) {
    configuration->send("access.destination", "file:" + file);
    for (const auto& [key, value] : settings) {
      configuration->send("access." + key, value);
    }
  }
  std::vector<std::string> lines() const {
    std::istringstream in(TempDirectory::read(file));
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
      all.push_back(line);
    }
    return all;
  }
};

// An answer reaches the caller as the very response object or the very exception, and deliver()
// does not wait for it: the line is written when it comes.
TEST(AccessLog, PassesTheSameResponseOrExceptionWithoutWaiting) {
  for (const bool fails : {false, true}) {
    Log log;
    MessagePtr response = std::make_unique<shop::Order>();
    const Message* const sent = response.get();
    const auto error = std::make_exception_ptr(std::runtime_error("declined"));
    Promise<MessagePtr> promise;
    Future<MessagePtr> answer = deliver(log.provider, std::make_unique<shop::Order>(),
                                        [&](MessagePtr&&) { return promise.getFuture(); });
    EXPECT_EQ(log.lines().size(), 0u);
    fails ? promise.reject(error) : promise.resolve(std::move(response));
    try {
      EXPECT_EQ(answer.get().get(), fails ? nullptr : sent);
    } catch (...) {
      EXPECT_EQ(std::current_exception(), error);
    }
    EXPECT_EQ(log.lines().size(), 1u) << fails;
  }
}

// While enabled: failed requests always, excluded ones never otherwise, slow ones always
// otherwise, the rest when errorsOnly is off and their number is a multiple of sampleEvery.
TEST(AccessLogSelection, FollowsThePrecedenceForEveryCombination) {
  for (const bool enabled : {true, false})
    for (const bool errorsOnly : {false, true})
      for (const int slowerThanUs : {0, 1, 1000000000})
        for (const int sampleEvery : {1, 2})
          for (const bool excluded : {false, true})
            for (const bool fails : {false, true}) {
              Log log(
                  {{"enabled", enabled},
                   {"errorsOnly", errorsOnly},
                   {"slowerThanUs", slowerThanUs},
                   {"sampleEvery", sampleEvery},
                   {"exclude", excluded ? "other, connector::(anonymous namespace)::shop::Ord"s : "other"s}});
              const bool slow = slowerThanUs == 1;  // an answer of at least 3 us is then slow
              std::string expected, written;
              for (int number = 0; number < 2; ++number) {
                deliver(log.provider, std::make_unique<shop::Order>(), [&](MessagePtr&& message) {
                  std::this_thread::sleep_for(std::chrono::microseconds(slow ? 3 : 0));
                  return fails ? makeRejectedFuture<MessagePtr>(std::runtime_error("failed"))
                               : makeResolvedFuture(std::move(message));
                });
                if (enabled &&
                    (fails || (!excluded && (slow || (!errorsOnly && number % sampleEvery == 0))))) {
                  expected += std::to_string(number) + " ";
                }
              }
              for (const std::string& line : log.lines()) {
                written += line.substr(0, line.find(' ') + 1);
              }
              EXPECT_EQ(written, expected)
                  << enabled << errorsOnly << slowerThanUs << sampleEvery << excluded << fails;
            }
}

// A refused value leaves the setting as it was and says, on the process log and to the
// configuration, which key, which value and what would do.
TEST(AccessLogSettings, RefusesWrongTypesAndRangesAndKeepsTheSetting) {
  TempDirectory directory;
  const std::string previous = foundation::log::destination();
  foundation::log::set_destination("file:" + (directory / "process.log"));
  Log log;
  // Key, refused value as shown, and the value the setting keeps.
  const std::vector<std::tuple<std::string, ConfigValue, std::string, std::string>> cases = {
      {"enabled", 1, "1 (int)", "true"},
      {"slowerThanUs", -1, "-1 (int)", "0"},
      {"sampleEvery", 2.5, "2.5 (double)", "1"},
      {"exclude", true, "true (bool)", "\"\""},
      {"format", "xml"s, "\"xml\" (string)", "text"},
      {"destination", "syslog"s, "\"syslog\" (string)", "\"file:" + log.file + "\""}};
  std::vector<std::string> refusals;
  for (const auto& [key, value, shown, stays] : cases) {
    try {
      log.configuration->send("access." + key, value);
      ADD_FAILURE() << key << " took the value";
    } catch (const std::invalid_argument& error) {
      refusals.push_back(error.what());
      EXPECT_THAT(refusals.back(),
                  ::testing::StartsWith("access." + key + " refused " + shown + ": it takes "));
      EXPECT_THAT(refusals.back(), ::testing::EndsWith("; the setting stays " + stays));
    }
  }
  // Every setting kept its value: text lines of every request, to the file, with number, type,
  // outcome (an exception of forward() itself too), elapsed time and start.
  deliver(log.provider, std::make_unique<shop::Order>(), test_support::echoing()).get();
  EXPECT_THROW(deliver(log.provider, std::make_unique<shop::Ping>(),
                       test_support::throwing(std::make_exception_ptr(std::logic_error("no \"route\"")))),
               std::logic_error);
  EXPECT_THAT(
      log.lines(),
      ::testing::ElementsAre(
          MatchesRegex("0 .*::shop::Order ok elapsed_us=[0-9]+ " + kStart),
          MatchesRegex("1 .*::shop::Ping std::logic_error \"no \\\\\"route\\\\\"\" elapsed_us=[0-9]+ " +
                       kStart)));
  foundation::log::set_destination(previous);
  const std::string records = TempDirectory::read(directory / "process.log");
  for (const std::string& refusal : refusals) {
    EXPECT_NE(records.find(refusal), std::string::npos) << refusal;
  }
}

template <char... Bytes>
struct Tagged : Message {};

// Whatever bytes an exception text holds, each line is one JSON object with the documented keys.
TEST(AccessLogJson, EveryLineParsesWhateverTheExceptionSays) {
  Log log({{"format", "json"s}});
  const std::vector<std::string> texts = {"quote \" backslash \\ slash /", "new\nline\ttab\x01\x1f",
                                          "caf\xc3\xa9 \xe2\x82\xac", "bad \xff\xfe utf-8 \xc3", ""};
  deliver(log.provider, std::make_unique<Tagged<'"', '\\'>>(), test_support::echoing()).get();
  for (const std::string& text : texts) {
    deliver(log.provider, std::make_unique<shop::Ping>(),
            [&](MessagePtr&&) { return makeRejectedFuture<MessagePtr>(std::runtime_error(text)); });
  }
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), texts.size() + 1);
  const nlohmann::json ok = nlohmann::json::parse(lines[0]);
  EXPECT_THAT(ok["type"].get<std::string>(), ::testing::HasSubstr("Tagged"));
  EXPECT_THAT(ok["number"].dump() + ok["outcome"].dump() + " start=" + ok["start"].get<std::string>(),
              MatchesRegex("0\"ok\" " + kStart));
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const nlohmann::json failed = nlohmann::json::parse(lines[i + 1]);
    EXPECT_EQ(failed["outcome"], "failed");
    EXPECT_EQ(failed["exception"], "std::runtime_error");
    EXPECT_EQ(failed["what"], i == 3 ? "bad \xef\xbf\xbd\xef\xbf\xbd utf-8 \xef\xbf\xbd" : texts[i]);
  }
}

TEST(LatencyHistogram, BucketsArePowersOfTwoMicrosecondsAndPercentilesTheirBounds) {
  const std::vector<std::pair<std::uint64_t, std::size_t>> edges = {
      {0, 0},         {1, 1},     {2, 2}, {3, 2}, {4, 3}, {1023, 10}, {1024, 11}, {(1u << 26) - 1, 26},
      {1u << 26, 27}, {~0ull, 27}};
  for (const auto& [micros, bucket] : edges) {
    EXPECT_EQ(latencyBucket(micros), bucket) << micros << " us";
  }
  // A percentile is the bound of its bucket, capped by the maximum.
  LatencyCounts counts{};
  counts[latencyBucket(3)] = 50;     // [2, 4)
  counts[latencyBucket(100)] = 40;   // [64, 128)
  counts[latencyBucket(1000)] = 10;  // [512, 1024), where the maximum 1000 caps the bound
  const LatencySummary summary = summarizeLatencies(counts, 1000);
  EXPECT_EQ(std::vector<std::uint64_t>({summary.count, summary.p50, summary.p90, summary.p99, summary.max}),
            std::vector<std::uint64_t>({100, 4, 128, 1000, 1000}));
  LatencyCounts slowOnly{};
  slowOnly[kOverflowBucket] = 1;
  EXPECT_EQ(summarizeLatencies(slowOnly, 90000000).p50, 90000000u);
  EXPECT_EQ(summarizeLatencies(LatencyCounts{}, 0).p99, 0u);
}

// Slowest first; the fastest kept leaves for a slower one; a tie keeps the earlier request.
TEST(SlowestRequestsList, KeepsTheSlowestInOrderAndEvictsTheFastest) {
  SlowestRequests slowest(3);
  for (const auto& [number, elapsed] :
       std::vector<std::pair<int, int>>{{1, 5}, {2, 1}, {3, 9}, {4, 5}, {5, 7}, {6, 5}}) {
    slowest.offer({static_cast<std::uint64_t>(number), "T", elapsed, "ok"});
  }
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : slowest.slowest(2)) {
    numbers.push_back(entry.number);
  }
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{3, 5}));
  EXPECT_EQ(slowest.slowest(32).back().number, 1u);
  slowest.clear();
  EXPECT_TRUE(slowest.slowest(32).empty());
}

struct Statistics : ::testing::Test {
  std::shared_ptr<test_support::FakeAdministration> administration =
      std::make_shared<test_support::FakeAdministration>();
  std::unique_ptr<ServiceProvider> provider =
      std::make_unique<common_services::StatisticsServiceProvider>(administration, "metrics");

  std::string run(const std::string& command, std::vector<std::string> arguments = {}) const {
    return administration->run("metrics." + command, std::move(arguments));
  }
  long lines(std::vector<std::string> arguments) const {
    const std::string text = run("slowest", std::move(arguments));
    return std::count(text.begin(), text.end(), '\n');
  }
};

// Counts by type, sorted by name and filtered by prefix; the slowest list, 10 by default; a reset
// zeroes them all, and a handler still answers once the provider is gone.
TEST_F(Statistics, CountsRequestsAndFailuresPerTypeUntilReset) {
  for (int i = 0; i < 12; ++i) {
    deliver(*provider, std::make_unique<shop::Ping>(), test_support::echoing());
  }
  const auto failure = std::make_exception_ptr(std::runtime_error("no"));
  deliver(*provider, std::make_unique<shop::Order>(),
          [&](MessagePtr&&) { return makeRejectedFuture<MessagePtr>(failure); });
  EXPECT_THROW(deliver(*provider, std::make_unique<shop::Order>(), test_support::throwing(failure)),
               std::runtime_error);
  const std::string pings =
      "connector::\\(anonymous namespace\\)::shop::Ping count=12 failed=0 inflight=0" + kLatencies;
  EXPECT_THAT(run("statistics"),
              MatchesRegex("[^\n]*::shop::Order count=2 failed=2 inflight=0" + kLatencies + pings));
  EXPECT_THAT(run("statistics", {"connector::(anonymous namespace)::shop::P"}), MatchesRegex(pings));
  EXPECT_EQ(std::vector<long>({lines({}), lines({"3"}), lines({"32"})}), std::vector<long>({10, 3, 14}));
  EXPECT_EQ(run("statistics.reset"), "");
  EXPECT_EQ(run("statistics") + run("slowest"), "");
  deliver(*provider, std::make_unique<shop::Ping>(), test_support::echoing());
  EXPECT_THAT(run("statistics"), ContainsRegex(" count=1 failed=0 "));
  provider.reset();
  EXPECT_EQ(lines({}), 1);
}

// Oldest first, until they complete; deliver() does not wait for them.
TEST_F(Statistics, ListsRequestsInFlightOldestFirstUntilTheyComplete) {
  Promise<MessagePtr> first, second;
  Future<MessagePtr> a =
      deliver(*provider, std::make_unique<shop::Order>(), [&](MessagePtr&&) { return first.getFuture(); });
  Future<MessagePtr> b =
      deliver(*provider, std::make_unique<shop::Ping>(), [&](MessagePtr&&) { return second.getFuture(); });
  EXPECT_EQ(a.state->status.load(), detail::Status::Pending);
  EXPECT_THAT(
      run("inflight"),
      MatchesRegex("[0-9]+ [^\n]*::shop::Order age_us=[0-9]+\n[0-9]+ [^\n]*::shop::Ping age_us=[0-9]+\n"));
  EXPECT_THAT(run("statistics"), ContainsRegex("Order count=0 failed=0 inflight=1 "));
  first.resolve(std::make_unique<shop::Order>());
  second.reject(std::make_exception_ptr(std::runtime_error("late")));
  EXPECT_NE(a.get(), nullptr);
  EXPECT_THROW(b.get(), std::runtime_error);
  EXPECT_EQ(run("inflight"), "");
  EXPECT_THAT(run("slowest"), ContainsRegex("::shop::Ping elapsed_us=[0-9]+ std::runtime_error\n"));
  EXPECT_THAT(run("slowest"), ContainsRegex("::shop::Order elapsed_us=[0-9]+ ok\n"));
}

TEST_F(Statistics, RefusesACountThatIsNotOneToThirtyTwo) {
  for (const std::string bad : {"abc", "0", "33", "-1", "", "1.5"}) {
    EXPECT_THAT([&] { run("slowest", {bad}); },
                ::testing::ThrowsMessage<std::invalid_argument>(
                    "metrics.slowest takes a count from 1 to 32, but was given \"" + bad + "\""));
  }
}

}  // namespace
}  // namespace connector
