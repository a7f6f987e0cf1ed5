// The service providers. The logging provider: its binding to the configuration, the values and
// moments of its lines, and what its caller receives when the answer or the stream fails (which
// requests are selected and the form of the lines on streams of every format are checked by the
// fuzzer's model, fuzz/LoggingProviderFuzzer.cpp). The access log: answers pass through untouched
// and unwaited, the selection rules and their precedence, refused settings, a stalled destination
// that holds no caller (with JSON lines that parse whatever the exception says), the lines written
// out at exit, a reopen after a rename, and text lines that split back into their fields. The
// statistics: histogram edges and percentiles, the slowest list, per-type counts, requests in
// flight, and the commands. Concurrent use is left to the stress tests; the echo's answer to the
// connector's test and the transcripts, and its two allocations per request to
// bench/framework/FutureBench.cpp.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/log/Log.h"
#include "services/AccessLogServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "services/detail/InFlightTable.h"
#include "services/detail/MessageTypeTable.h"
#include "services/detail/SlowestRequests.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"
#include "tests/support/TempDirectory.h"

namespace connector::common_services {
// Reaches the logging provider's request counter, so the 32-bit wrap needs no four billion
// requests.
struct LoggingServiceProviderPeer {
  static void setNext(LoggingServiceProvider& provider, std::uint32_t next) { provider.requestCount = next; }
};
}  // namespace connector::common_services

namespace app {
struct Order : connector::Message {};
struct Ping : connector::Message {};
struct Pong : connector::Message {};
struct Subclass {};
template <typename T>
struct Holder : connector::Message {};
}  // namespace app

namespace connector {
namespace {

using namespace common_services::detail;
using namespace test_support;
using common_services::LoggingServiceProvider;
using configuration::ConfigValue;
using ::testing::ContainsRegex;
using ::testing::MatchesRegex;
using namespace std::string_literals;

Future<MessagePtr> deliver(ServiceProvider& provider, MessagePtr message, Answer answer) {
  return provider.deliver(std::move(message), {}, std::make_shared<FakeContext>(std::move(answer)));
}

const std::string kTime = "[0-9.]+(e[-+][0-9]+)?";
std::string request(const std::string& n, const std::string& type) {
  return kTime + ": Request \\(" + n + "\\): " + type;
}
std::string response(const std::string& n, const std::string& type) {
  return kTime + ": Response \\(" + n + "\\): " + type + ": elapsed time " + kTime + " ms";
}

// A string buffer that counts its sync() calls and refuses every write after the first
// `writable`.
struct RecordingBuffer : std::stringbuf {
  int syncs = 0;
  int writable = 1000;
  int sync() override { return ++syncs, std::stringbuf::sync(); }
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    return writable-- > 0 ? std::stringbuf::xsputn(text, size) : 0;
  }
};

struct LoggingProvider : ::testing::Test {
  std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
  RecordingBuffer buffer;
  std::ostream stream{&buffer};
  LoggingServiceProvider provider{configuration, "svc", stream};

  Future<MessagePtr> send(Answer answer, MessagePtr message = std::make_unique<app::Ping>()) {
    return deliver(provider, std::move(message), std::move(answer));
  }
  // The text written so far; the buffer is emptied.
  std::string written() {
    const std::string text = buffer.str();
    buffer.str("");
    return text;
  }
};

// Whichever call of the constructor fails, the exception leaves it with exactly the subscriptions
// made so far cancelled; a provider that was made cancels all three, in key order, when it goes.
TEST(LoggingBinding, AFailedConstructionCancelsExactlyWhatItSubscribed) {
  const std::vector<std::string> all = {"svc.filter", "svc.prefix", "svc.enabled"};
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"", all}, {"set svc.filter", {}}, {"subscribe svc.enabled", {"svc.filter", "svc.prefix"}}};
  for (const auto& [failAt, cancelled] : cases) {
    SCOPED_TRACE(failAt);
    auto configuration = std::make_shared<FakeConfiguration>();
    configuration->failAt = failAt;
    std::ostringstream stream;
    std::string failure;
    try {
      LoggingServiceProvider(configuration, "svc", stream);
    } catch (const std::runtime_error& error) {
      failure = error.what();
    }
    EXPECT_EQ(failure, failAt);
    EXPECT_EQ(configuration->cancelledKeys(), cancelled);
  }
}

// Timestamps are milliseconds since construction and elapsed times milliseconds since the
// request line, on the system clock: bracketed by readings taken around the calls, with an
// answer that takes at least 20 ms. Without a configuration every request is logged.
TEST(LoggingLines, TimesAreMillisecondsSinceConstructionAndSinceTheRequest) {
  using Clock = std::chrono::system_clock;
  const auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
  const auto wait = std::chrono::milliseconds(20);
  std::ostringstream stream;
  stream.precision(17);
  const Clock::time_point beforeStart = Clock::now();
  LoggingServiceProvider provider(nullptr, "svc", stream);
  const Clock::time_point afterStart = Clock::now();
  const auto slowEcho = std::make_shared<FakeContext>([&](MessagePtr&& message) {
    std::this_thread::sleep_for(wait);
    return makeResolvedFuture(std::move(message));
  });
  const Clock::time_point before = Clock::now();
  provider.deliver(std::make_unique<app::Ping>(), Address("svc"), slowEcho).get();
  const Clock::time_point after = Clock::now();
  double requested = 0, responded = 0, elapsed = 0;
  ASSERT_EQ(std::sscanf(stream.str().c_str(),
                        "%lf: Request (0): app::Ping %lf: Response (0): app::Ping: elapsed time %lf",
                        &requested, &responded, &elapsed),
            3)
      << stream.str();
  EXPECT_GE(requested, ms(before - afterStart));
  EXPECT_LE(responded, ms(after - beforeStart));
  EXPECT_GE(elapsed, ms(wait));
  EXPECT_LE(elapsed, ms(after - before));
  EXPECT_NEAR(responded - requested, elapsed, 1e-6);
}

// The request line is flushed before the request goes on; each line reads the prefix as it is
// written; the response line names the response's type (which the caller gets, as the fuzzer
// checks).
TEST_F(LoggingProvider, TheRequestLineIsOutBeforeTheRequestGoesOnAndEachLineReadsThePrefix) {
  configuration->send("svc.prefix", std::string("<"));
  send([&](MessagePtr&&) {
    EXPECT_EQ(buffer.syncs, 1);
    EXPECT_THAT(written(), MatchesRegex("<" + request("0", "app::Ping") + "\n"));
    configuration->send("svc.prefix", std::string(">"));
    return makeResolvedFuture<MessagePtr>(std::make_unique<app::Pong>());
  }).get();
  EXPECT_THAT(written(), MatchesRegex(">" + response("0", "app::Pong") + "\n"));
}

// On a stream whose exception mask holds badbit, a request line that cannot be written leaves
// deliver() before the request goes on, with the message still the caller's; so does a response
// line that cannot be written, as the exception line then cannot be written either.
TEST_F(LoggingProvider, AStreamFailureLeavesDeliverOnAStreamThatThrows) {
  stream.exceptions(std::ios_base::badbit);
  for (const int writable : {0, 1}) {
    stream.clear();
    buffer.writable = writable;
    auto context = std::make_shared<FakeContext>(echoing());
    MessagePtr message = std::make_unique<app::Ping>();
    EXPECT_THROW(provider.deliver(std::move(message), Address("svc"), context), std::ios_base::failure);
    EXPECT_EQ(context->forwardCount(), writable);
    EXPECT_EQ(message != nullptr, writable == 0);
  }
}

// Filtered out (or off, which the fuzzer checks): nothing is written and the context's own
// future comes back, pending as it was. A null context is refused whatever the settings, the
// message left to the caller (an empty request is the fuzzer's).
TEST_F(LoggingProvider, ARequestNotSelectedPassesThroughUntouched) {
  configuration->send("svc.filter", std::string("xpp::Ping"));
  send(echoing()).get();
  ASSERT_EQ(written(), "");  // before a pending answer that a logged request would wait for
  Promise<MessagePtr> promise;
  EXPECT_EQ(send([&](MessagePtr&&) { return promise.getFuture(); }).state, promise.state);
  MessagePtr message = std::make_unique<app::Ping>();
  EXPECT_THROW(provider.deliver(std::move(message), Address("svc"), nullptr), std::invalid_argument);
  EXPECT_NE(message, nullptr);
}

// Numbers wrap to 0 after 4294967295; a readable name holding "class " loses its first six
// characters, wherever the match is. An answer without a message ends the request with the
// start of a response line, then an exception line, and a rejection (failed answers in general
// are left to the fuzzer's model).
TEST_F(LoggingProvider, NumbersWrapClassIsCutAndAnEmptyAnswerEndsInAnExceptionLine) {
  common_services::LoggingServiceProviderPeer::setNext(provider, 4294967295u);
  send(echoing()).get();
  EXPECT_THAT(written(), MatchesRegex(request("4294967295", "app::Ping") + "\n.*"));
  send(echoing(), std::make_unique<app::Holder<const app::Subclass>>()).get();
  EXPECT_THAT(written(), MatchesRegex(request("0", "older<app::Subclass const>") + "\n.*"));
  EXPECT_THROW(send([](MessagePtr&&) { return makeResolvedFuture(MessagePtr()); }).get(), std::bad_typeid);
  EXPECT_THAT(written(), MatchesRegex(request("1", "app::Ping") + "\n" + kTime +
                                      ": Response \\(1\\): " + response("1", "Exception!") + "\n"));
}

const std::string kStart = "start=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z";

// An access log named "access" writing to a file of its own, with the given settings sent in.
struct Log {
  TempDirectory directory;
  std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
  common_services::AccessLogServiceProvider provider{configuration, "access"};
  std::string file = directory / "access.log";

  explicit Log(const std::vector<std::pair<std::string, ConfigValue>>& settings = {}) {
    configuration->send("access.destination", "file:" + file);
    for (const auto& [key, value] : settings) {
      configuration->send("access." + key, value);
    }
  }
  std::vector<std::string> lines() const { return provider.flush(), TempDirectory::lines(file); }
};

// While enabled: failed requests always, excluded ones never otherwise, slow ones always
// otherwise, the rest when errorsOnly is off and their number is a multiple of sampleEvery. The
// line is written when the answer comes, as deliver() does not wait for it, and the caller gets
// the very response object or the very exception.
TEST(AccessLogSelection, FollowsThePrecedenceForEveryCombination) {
  for (const bool enabled : {true, false})
    for (const bool errorsOnly : {false, true})
      for (const int slowerThanUs : {0, 1, 1000000000})
        for (const int sampleEvery : {1, 2})
          for (const bool excluded : {false, true})
            for (const bool fails : {false, true}) {
              Log log({{"enabled", enabled},
                       {"errorsOnly", errorsOnly},
                       {"slowerThanUs", slowerThanUs},
                       {"sampleEvery", sampleEvery},
                       {"exclude", excluded ? "other, app::Ord"s : "other"s}});
              const bool slow = slowerThanUs == 1;  // an answer that takes 3 us or more is then slow
              const auto error = std::make_exception_ptr(std::runtime_error("failed"));
              std::string expected, written;
              for (int number = 0; number < 2; ++number) {
                Promise<MessagePtr> promise;
                Future<MessagePtr> answer = deliver(log.provider, std::make_unique<app::Order>(),
                                                    [&](MessagePtr&&) { return promise.getFuture(); });
                EXPECT_EQ(log.lines().size() * 2, expected.size());
                std::this_thread::sleep_for(std::chrono::microseconds(slow ? 3 : 0));
                MessagePtr response = std::make_unique<app::Order>();
                const Message* const sent = response.get();
                fails ? promise.reject(error) : promise.resolve(std::move(response));
                try {
                  EXPECT_EQ(answer.get().get(), fails ? nullptr : sent);
                } catch (...) {
                  EXPECT_EQ(std::current_exception(), error);
                }
                if (enabled &&
                    (fails || (!excluded && (slow || (!errorsOnly && number % sampleEvery == 0))))) {
                  expected += std::to_string(number) + " ";
                }
              }
              for (const std::string& line : log.lines()) {
                written += line.substr(0, line.find(' ') + 1);
              }
              EXPECT_EQ(log.provider.lineCounts().selectedOut, enabled ? 2 - expected.size() / 2 : 0);
              EXPECT_EQ(written, expected)
                  << enabled << errorsOnly << slowerThanUs << sampleEvery << excluded << fails;
            }
}

// A refused value leaves the setting as it was and says, on the process log (and to the
// configuration, in the same words), which key, which value and what would do.
TEST(AccessLogSettings, RefusesWrongTypesAndRangesAndKeepsTheSetting) {
  TempDirectory directory;
  const std::string previous = foundation::log::destination();
  foundation::log::set_destination("file:" + (directory / "process.log"));
  Log log;
  // Key, refused value, and the refusal's start.
  const std::vector<std::tuple<std::string, ConfigValue, std::string>> cases = {
      {"enabled", 1, "1 (int)"},
      {"slowerThanUs", -1, "-1 (int)"},
      {"sampleEvery", 2.5, "2.5 (double)"},
      {"exclude", true, "true (bool)"},
      {"format", "xml"s, "\"xml\" (string)"},
      {"destination", "syslog"s, "\"syslog\" (string)"}};
  for (const auto& [key, value, shown] : cases) {
    EXPECT_THROW(log.configuration->send("access." + key, value), std::invalid_argument) << key;
  }
  // Every setting kept its value: text lines of every request, to the file, with number, type,
  // outcome (an exception of forward() itself too), elapsed time and start.
  deliver(log.provider, std::make_unique<app::Order>(), echoing()).get();
  EXPECT_THROW(deliver(log.provider, std::make_unique<app::Ping>(),
                       throwing(std::make_exception_ptr(std::logic_error("\"")))),
               std::logic_error);
  EXPECT_THAT(
      log.lines(),
      ::testing::ElementsAre(
          MatchesRegex("0 access \"\" app::Order ok elapsed_us=[0-9]+ " + kStart),
          MatchesRegex("1 access \"\" app::Ping std::logic_error \"\\\\\"\" elapsed_us=[0-9]+ " + kStart)));
  foundation::log::set_destination(previous);
  const std::string records = TempDirectory::read(directory / "process.log");
  for (const auto& [key, value, shown] : cases) {
    EXPECT_THAT(records, ::testing::HasSubstr("access." + key + " refused " + shown + ": it takes "));
  }
}

// Whatever the destination does, deliver() returns and the answer settles without waiting for a
// write: a pipe on stdout that nobody reads holds only the provider's writer, whose full queue
// drops lines and counts them. Once the pipe is read, every line is a JSON object that gives the
// exception's text back whatever its bytes (async: adds no line of its own), and selected =
// written + dropped + failed.
TEST(AccessLogWriter, AStalledDestinationHoldsNoCallerAndEveryLineIsCounted) {
  const std::vector<std::string> texts = {"quote \" backslash \\ slash /", "new\nline\ttab\x01\x1f",
                                          "caf\xc3\xa9 \xe2\x82\xac", "bad \xff\xfe utf-8 \xc3", ""};
  for (const std::string destination : {"stdout", "async:stdout"}) {
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    std::fflush(stdout);
    const int savedStdout = dup(STDOUT_FILENO);
    dup2(pipeEnds[1], STDOUT_FILENO);
    Log log({{"format", "json"s}, {"destination", destination}});
    common_services::AccessLogServiceProvider& provider = log.provider;
    for (int i = 0; i < 20000; ++i) {
      deliver(provider, std::make_unique<app::Ping>(),
              [&](MessagePtr&&) { return makeRejectedFuture<MessagePtr>(std::runtime_error(texts[i % 5])); });
    }
    std::string text;
    std::thread reader([&] {
      char buffer[4096];
      for (ssize_t n; (n = read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, n);
    });
    provider.flush();
    dup2(savedStdout, STDOUT_FILENO);
    close(pipeEnds[1]);
    reader.join();
    const auto counts = provider.lineCounts();
    EXPECT_EQ(counts.selected, 20000u);
    EXPECT_GT(counts.dropped, 0u);
    EXPECT_EQ(counts.failed, 0u);
    EXPECT_EQ(counts.written + counts.dropped + counts.failed, counts.selected);
    std::istringstream lines(text);
    std::uint64_t parsed = 0;
    for (std::string line; std::getline(lines, line); ++parsed) {
      const nlohmann::json object = nlohmann::json::parse(line);
      const std::size_t i = object["number"].get<std::size_t>() % 5;
      EXPECT_EQ(object["what"], i == 3 ? "bad \xef\xbf\xbd\xef\xbf\xbd utf-8 \xef\xbf\xbd" : texts[i]);
    }
    EXPECT_EQ(parsed, counts.written);
    close(savedStdout);
    close(pipeEnds[0]);
  }
}

// A line reaches its file without anyone calling flush(): the writer flushes after each batch.
TEST(AccessLogWriter, ALineReachesItsFileWithoutAFlushCall) {
  Log log;
  deliver(log.provider, std::make_unique<app::Ping>(), echoing());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (TempDirectory::lines(log.file).empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(TempDirectory::lines(log.file).size(), 1u);
}

// At a normal exit every selected line is written, even by a provider that is never destroyed.
TEST(AccessLogWriter, ANormalExitWritesEverySelectedLine) {
  TempDirectory directory;
  const std::string file = directory / "access.log";
  const auto write = [&] {
    auto configuration = std::make_shared<FakeConfiguration>();
    auto* provider = new common_services::AccessLogServiceProvider(configuration, "access");
    configuration->send("access.destination", "async:file:" + file);
    for (int i = 0; i < 8000; ++i) {  // 8,000 fit the queue: nothing may be dropped
      deliver(*provider, std::make_unique<app::Ping>(), echoing());
    }
    std::exit(0);
  };
  EXPECT_EXIT(write(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(TempDirectory::lines(file).size(), 8000u);
}

// The process log's reopen reopens an access log's file too, even when it cannot reopen its own,
// and so does setting the destination again to the same file: across a rename while lines are on
// their way, the renamed file and the new one hold every line once, in order.
TEST(AccessLogWriter, AReopenAfterARenameLosesAndDoublesNoLine) {
  for (const bool setAgain : {false, true}) {
    Log log;
    const auto send = [&] {
      for (int i = 0; i < 1000; ++i) {
        deliver(log.provider, std::make_unique<app::Ping>(), echoing());
      }
    };
    std::thread sender(send);
    while (log.provider.lineCounts().written < 500) {
      std::this_thread::yield();
    }
    std::rename(log.file.c_str(), (log.file + ".1").c_str());
    if (setAgain) {
      log.configuration->send("access.destination", "file:" + log.file);
    } else {
      EXPECT_THROW(foundation::log::reopen(), std::invalid_argument);  // stderr has no file to reopen
    }
    sender.join();
    send();
    std::vector<std::string> lines = log.lines(), renamed = TempDirectory::lines(log.file + ".1");
    EXPECT_GE(lines.size(), 1000u);
    lines.insert(lines.begin(), renamed.begin(), renamed.end());
    ASSERT_EQ(lines.size(), 2000u);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].substr(0, lines[i].find(' ')), std::to_string(i));
    }
  }
}

// A text line splits back into its fields whatever the provider's name, the address, the type
// and the exception's name and text: a field that starts with a quote is a JSON string.
TEST(AccessLogText, EveryLineSplitsBackIntoItsFieldsWhateverTheNames) {
  const std::vector<std::string> pieces = {"a", " ", "\"", "\\", "\t", "\n", "<", ",", "caf\xc3\xa9", "ok"};
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    std::string name;
    for (int length = random() % 5; length > 0; --length)
      name += pieces[random() % pieces.size()];
    Log log;
    log.provider.deliver(std::make_unique<app::Holder<std::tuple<int, int>>>(), Address(name),
                         std::make_shared<FakeContext>([&](MessagePtr&&) {
                           return makeRejectedFuture<MessagePtr>(std::runtime_error(name));
                         }));
    std::vector<std::string> fields;
    const std::string line = log.lines().at(0);
    for (std::size_t at = 0, end; at < line.size(); at = end + 1) {
      end = line[at] == '"' ? line.find_first_of("\\\"", at + 1) : std::min(line.find(' ', at), line.size());
      while (line[end] == '\\')
        end = line.find_first_of("\\\"", end + 2);
      end += line[at] == '"' ? 1 : 0;
      fields.push_back(line[at] == '"' ? nlohmann::json::parse(line.substr(at, end - at)).get<std::string>()
                                       : line.substr(at, end - at));
    }
    EXPECT_THAT(std::vector<std::string>(fields.begin(), fields.begin() + 6),  // then elapsed_us=, start=
                ::testing::ElementsAre("0", "access", name, "app::Holder<std::tuple<int, int> >",
                                       "std::runtime_error", name))
        << line;
  }
}

// Slowest first; the fastest kept leaves for a slower one; a tie keeps the earlier request.
TEST(SlowestRequestsList, KeepsTheSlowestInOrderAndEvictsTheFastest) {
  SlowestRequests slowest(3);
  for (const auto& [number, elapsed] :
       std::vector<std::pair<int, int>>{{1, 5}, {2, 1}, {3, 9}, {4, 5}, {5, 7}, {6, 5}}) {
    slowest.offer({static_cast<std::uint64_t>(number), "T", elapsed, "ok"});
  }
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : slowest.slowest(32)) {
    numbers.push_back(entry.number);
  }
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{3, 5, 1}));
}

// Requests in flight, oldest first, until they complete (deliver() does not wait for them); counts
// by type, filtered by prefix (the listing's form is left to the shell's transcript); the slowest
// list, 10 by default and at most 32 (the shell's transcript asks for 3); a reset zeroes what the
// commands show but not the cumulative snapshot; a handler still answers once the provider is gone.
TEST(StatisticsProvider, ListsCountsAndResets) {
  auto administration = std::make_shared<FakeAdministration>();
  auto provider = std::make_unique<common_services::StatisticsServiceProvider>(administration, "metrics");
  const auto run = [&](const std::string& command, std::vector<std::string> arguments) {
    return administration->run("metrics." + command, std::move(arguments));
  };
  Promise<MessagePtr> first, second;
  deliver(*provider, std::make_unique<app::Order>(), [&](MessagePtr&&) { return first.getFuture(); });
  deliver(*provider, std::make_unique<app::Ping>(), [&](MessagePtr&&) { return second.getFuture(); });
  EXPECT_THAT(
      run("inflight", {}),
      MatchesRegex(
          "thread=0 request=1 app::Order age_us=[0-9.]+\nthread=0 request=2 app::Ping age_us=[0-9.]+\n"));
  for (int i = 0; i < 12; ++i) {
    deliver(*provider, std::make_unique<app::Ping>(), echoing());
  }
  EXPECT_THROW(deliver(*provider, std::make_unique<app::Order>(),
                       throwing(std::make_exception_ptr(std::runtime_error("no")))),
               std::runtime_error);
  EXPECT_THAT(run("statistics", {"app::P"}), MatchesRegex("app::Ping count=12 failed=0 inflight=1 [^\n]*\n"));
  EXPECT_THAT(run("statistics", {}), ContainsRegex("app::Order count=1 failed=1 inflight=1 "));
  first.resolve(std::make_unique<app::Order>());
  second.reject(std::make_exception_ptr(std::runtime_error("late")));
  EXPECT_EQ(run("inflight", {}), "");
  EXPECT_THAT(run("slowest", {}), ContainsRegex("app::Ping elapsed_us=[0-9.]+ std::runtime_error\n"));
  EXPECT_THAT(run("slowest", {}), MatchesRegex("([^\n]*\n){10}"));
  EXPECT_THAT(run("slowest", {"32"}), MatchesRegex("([^\n]*\n){15}"));
  for (const std::string bad : {"abc", "0", "33", "-1", "", "1.5"}) {
    EXPECT_THROW(run("slowest", {bad}), std::invalid_argument) << bad;
  }
  EXPECT_EQ(run("statistics.reset", {}), "");
  EXPECT_EQ(run("statistics", {}) + run("slowest", {}), "");
  const auto ping = provider->snapshot().at(1);  // cumulative: the reset leaves exporters' figures
  EXPECT_EQ(ping.type + std::to_string(ping.succeeded) + "+" + std::to_string(ping.failed), "app::Ping12+1");
  deliver(*provider, std::make_unique<app::Ping>(), echoing());
  EXPECT_THAT(run("statistics", {}), ContainsRegex(" count=1 failed=0 "));
  provider.reset();
  EXPECT_THAT(run("slowest", {}), MatchesRegex("[^\n]*\n"));
}

// A runtime name at an address seen before but with other text (a library unloaded and another
// loaded in its place) is another type, as the demangler takes it.
TEST(MessageTypeTable, MatchesARuntimeNameByAddressThenText) {
  struct Named {
    explicit Named(std::string_view readable) : name(readable) {}
    std::string_view name;
  };
  MessageTypeTable<Named> table;
  char runtimeName[] = "1A";
  Named& first = table.find(runtimeName, [] { return std::string_view("A"); });
  runtimeName[1] = 'B';
  EXPECT_EQ(table.find(runtimeName, [] { return std::string_view("B"); }).name, "B");
  runtimeName[1] = 'A';
  EXPECT_EQ(&table.find(runtimeName, [] { return std::string_view("A"); }), &first);
}

// A thousand requests in flight, even all of one thread, each find a place without the lock.
TEST(InFlightTable, AThousandRequestsInFlightTakeNoLock) {
  auto table = std::make_unique<InFlightTable<int, 64>>();
  for (std::uint64_t number = 0; number < 1000; ++number) {
    ASSERT_NE(table->enter(number % 2 ? 3 : 64, {number, nullptr, 0}), nullptr) << number;
  }
}

// Whichever of two providers of one name is destroyed first, the other's commands stay and answer.
TEST(StatisticsProvider, AHotSwapKeepsTheLiveProvidersCommands) {
  auto administration = std::make_shared<FakeAdministration>();
  for (const bool newFirst : {true, false}) {
    auto old = std::make_unique<common_services::StatisticsServiceProvider>(administration, "metrics");
    std::optional<common_services::StatisticsServiceProvider> live;
    newFirst ? void(live.emplace(administration, "metrics")) : void();
    old.reset();
    newFirst ? void() : void(live.emplace(administration, "metrics"));
    deliver(*live, std::make_unique<app::Ping>(), echoing());
    EXPECT_EQ(administration->live().size(), 4u);
    EXPECT_THAT(administration->run("metrics.statistics"), ContainsRegex("app::Ping count=1 "));
  }
}

}  // namespace
}  // namespace connector
