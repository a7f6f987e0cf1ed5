// The logging provider: how it binds its three settings to the configuration, which requests it
// logs, the exact form of its lines, and what its caller receives when the answer fails.
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 warns of an uninitialised std::function inside std::regex at -O2; a false positive.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <atomic>
#include <future>
#include <iomanip>
#include <locale>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/variant/get.hpp>

#include "services/LoggingServiceProvider.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace connector {
namespace common_services {
// Reaches the request counter, so the 32-bit wrap needs no four billion requests.
struct LoggingServiceProviderPeer {
  static void setNextRequestNumber(LoggingServiceProvider& provider, std::uint32_t next) {
    provider.requestCount.store(next);
  }
};
}  // namespace common_services
}  // namespace connector

namespace app {
struct Ping : connector::Message {};
struct Pong : connector::Message {};
template <int N>
struct Numbered : connector::Message {};
struct Subclass {};
template <typename T>
struct Holder : connector::Message {};
}  // namespace app

namespace {

using namespace connector;
using namespace connector::testing;
using common_services::LoggingServiceProvider;
using configuration::ConfigValue;
using ::testing::ElementsAre;

const std::string kNumber = R"([-+]?[0-9.]+(e[-+][0-9]+)?)";

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Matches a whole line; `pattern` may use NUMBER for a timestamp or elapsed time.
MATCHER_P(Line, pattern, "") {
  const std::string expanded = std::regex_replace(std::string(pattern), std::regex("NUMBER"), kNumber);
  return std::regex_match(arg, std::regex(expanded));
}

Future<MessagePtr> send(LoggingServiceProvider& provider, MessagePtr message,
                        const std::shared_ptr<Context>& context) {
  std::shared_ptr<Context> handle = context;
  return provider.deliver(std::move(message), Address("svc"), std::move(handle));
}

struct LoggingProvider : ::testing::Test {
  std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
  std::ostringstream stream;
  LoggingServiceProvider provider{configuration, "svc", stream};
  std::shared_ptr<Context> echo = std::make_shared<FakeContext>(echoing());

  // Sends one request through echo and returns the lines it produced.
  std::vector<std::string> roundTrip(MessagePtr message = std::make_unique<app::Ping>()) {
    stream.str("");
    send(provider, std::move(message), echo).get();
    return linesOf(stream.str());
  }
};

TEST(LoggingBinding, WritesTheDefaultsThenSubscribesInKeyOrder) {
  for (const std::string name : {"svc", ""}) {
    auto configuration = std::make_shared<FakeConfiguration>();
    std::ostringstream stream;
    LoggingServiceProvider provider(configuration, name, stream);
    std::vector<std::string> seen;
    for (const FakeConfiguration::Call& call : configuration->calls()) {
      std::string entry = call.operation + " " + call.key;
      if (call.value) {
        EXPECT_EQ(call.label, "default");
        if (const bool* flag = boost::get<bool>(&*call.value)) {
          entry += *flag ? " true" : " false";
        } else {
          entry += " \"" + boost::get<std::string>(*call.value) + "\"";
        }
      }
      seen.push_back(entry);
    }
    EXPECT_THAT(seen, ElementsAre("set " + name + ".filter \"\"", "set " + name + ".prefix \"\"",
                                  "set " + name + ".enabled true", "observe " + name + ".filter",
                                  "observe " + name + ".prefix", "observe " + name + ".enabled"));
  }
}

TEST(LoggingBinding, WithoutConfigurationLogsEveryRequestWithTheDefaults) {
  std::ostringstream stream;
  LoggingServiceProvider provider(nullptr, "svc", stream);
  send(provider, std::make_unique<app::Ping>(), std::make_shared<FakeContext>(echoing())).get();
  EXPECT_THAT(linesOf(stream.str()),
              ElementsAre(Line("NUMBER: Request \\(0\\): app::Ping"),
                          Line("NUMBER: Response \\(0\\): app::Ping: elapsed time NUMBER ms")));
}

TEST_F(LoggingProvider, SettingsFollowEveryAcceptedValue) {
  configuration->send("svc.enabled", false);
  EXPECT_THAT(roundTrip(), ElementsAre());
  configuration->send("svc.enabled", true);
  configuration->send("svc.prefix", std::string("[a] "));
  configuration->send("svc.filter", std::string("app::P"));
  EXPECT_THAT(roundTrip(),
              ElementsAre(Line("\\[a\\] NUMBER: Request \\(0\\): app::Ping"),
                          Line("\\[a\\] NUMBER: Response \\(0\\): app::Ping: elapsed time NUMBER ms")));
}

// No conversion between alternatives: an int 1 is no bool, a UTF-16 text no string. The setting
// stays, and the key goes on accepting values of its own alternative.
TEST_F(LoggingProvider, EveryOtherAlternativeIsRefusedOnEveryKeyAndChangesNothing) {
  configuration->send("svc.prefix", std::string(">"));
  configuration->send("svc.filter", std::string("app::"));
  const std::vector<ConfigValue> all = {true,
                                        1,
                                        1u,
                                        1.0,
                                        std::u16string(u"x"),
                                        std::string("x"),
                                        std::vector<bool>{true},
                                        std::vector<int>{1},
                                        std::vector<unsigned>{1},
                                        std::vector<double>{1},
                                        std::vector<std::string>{"x"},
                                        std::vector<std::u16string>{u"x"}};
  const std::vector<std::pair<std::string, int>> keys = {
      {"svc.filter", 5}, {"svc.prefix", 5}, {"svc.enabled", 0}};
  for (const auto& [key, accepted] : keys) {
    for (const ConfigValue& value : all) {
      if (value.which() != accepted) {
        EXPECT_THROW(configuration->send(key, value), boost::bad_get) << key << " " << value.which();
      }
    }
  }
  EXPECT_THAT(roundTrip(),
              ElementsAre(Line(">NUMBER: Request \\(0\\): app::Ping"), Line(">NUMBER: Response .*")));
  configuration->send("svc.enabled", false);
  EXPECT_THAT(roundTrip(), ElementsAre());
}

TEST(LoggingBinding, AFailedObserveCancelsTheEarlierSubscriptionsAndReachesTheCreator) {
  auto configuration = std::make_shared<FakeConfiguration>();
  configuration->failObserveOf = "svc.prefix";
  std::ostringstream stream;
  EXPECT_THROW(LoggingServiceProvider(configuration, "svc", stream), std::runtime_error);
  EXPECT_THAT(configuration->cancelledKeys(), ElementsAre("svc.filter"));
}

TEST(LoggingBinding, DestructionCancelsEachKeyOnceInOrderAndValuesNoLongerArrive) {
  auto configuration = std::make_shared<FakeConfiguration>();
  std::ostringstream stream;
  std::make_unique<LoggingServiceProvider>(configuration, "svc", stream).reset();
  EXPECT_THAT(configuration->cancelledKeys(), ElementsAre("svc.filter", "svc.prefix", "svc.enabled"));
  // A wrong alternative would throw if it still reached a callback.
  EXPECT_NO_THROW(configuration->send("svc.enabled", 1));
}

// The sanitizers judge: a callback running while the provider goes would touch freed settings.
TEST(LoggingBinding, DestructionRacingAConfigurationThreadIsSafe) {
  for (int round = 0; round < 200; ++round) {
    auto configuration = std::make_shared<FakeConfiguration>();
    std::ostringstream stream;
    auto provider = std::make_unique<LoggingServiceProvider>(configuration, "svc", stream);
    std::atomic<bool> stop{false};
    std::promise<void> delivering;
    std::thread sender([&] {
      for (int i = 0; !stop.load(); ++i) {
        configuration->send("svc.prefix", std::string(static_cast<std::size_t>(i % 100), 'p'));
        configuration->send("svc.filter", std::string(static_cast<std::size_t>(i % 50), 'f'));
        configuration->send("svc.enabled", i % 2 == 0);
        if (i == 0) {
          delivering.set_value();
        }
      }
    });
    delivering.get_future().wait();
    provider.reset();
    stop.store(true);
    sender.join();
  }
}

TEST_F(LoggingProvider, FilterSelectsByTheLeadingBytesOfTheTypeName) {
  for (const auto& [filter, logged] : std::vector<std::pair<std::string, bool>>{{"app::Ping", true},
                                                                                {"app::", true},
                                                                                {"", true},
                                                                                {"app::Pingx", false},
                                                                                {"APP::Ping", false},
                                                                                {"pp", false}}) {
    configuration->send("svc.filter", filter);
    EXPECT_EQ(roundTrip().size(), logged ? 2u : 0u) << filter;
  }
}

// "class " is removed where the readable name holds it: the first six characters go.
TEST_F(LoggingProvider, ATypeNameHoldingClassLosesItsFirstSixCharacters) {
  EXPECT_THAT(roundTrip(std::make_unique<app::Holder<const app::Subclass>>()),
              ElementsAre(Line("NUMBER: Request \\(0\\): older<app::Subclass const>"), Line(".*")));
}

TEST_F(LoggingProvider, ARequestNotSelectedGetsTheContextsOwnFutureAndNoNumber) {
  configuration->send("svc.enabled", false);
  Promise<MessagePtr> promise;
  auto future = std::make_shared<Future<MessagePtr>>(promise.getFuture());
  auto context = std::make_shared<FakeContext>([&](MessagePtr&&) { return std::move(*future); });
  Future<MessagePtr> answer = send(provider, std::make_unique<app::Ping>(), context);
  EXPECT_EQ(answer.state, promise.state);
  EXPECT_EQ(context->lastAddress(), Address("svc"));
  EXPECT_THROW(
      send(provider, std::make_unique<app::Ping>(),
           std::make_shared<FakeContext>(throwing(std::make_exception_ptr(std::logic_error("down"))))),
      std::logic_error);
  EXPECT_EQ(stream.str(), "");
  configuration->send("svc.enabled", true);
  EXPECT_THAT(roundTrip(), ElementsAre(Line("NUMBER: Request \\(0\\): app::Ping"), Line(".*")));
}

TEST_F(LoggingProvider, AnEmptyRequestThrowsBadTypeidBeforeAnythingElse) {
  for (bool enabled : {true, false}) {
    configuration->send("svc.enabled", enabled);
    auto context = std::make_shared<FakeContext>(echoing());
    EXPECT_THROW(send(provider, nullptr, context), std::bad_typeid);
    EXPECT_EQ(context->forwardCount(), 0);
  }
  EXPECT_EQ(stream.str(), "");
}

struct Failure : std::exception {};

// Each failure of the answer ends the request with an exception line and a Rejected future
// carrying that failure; the next request still gets the next number.
TEST_F(LoggingProvider, EveryFailureOfTheAnswerBecomesARejectedFutureAfterAnExceptionLine) {
  const auto failure = std::make_exception_ptr(Failure());
  const std::vector<std::pair<Answer, std::string>> cases = {
      {rejecting(failure), "Failure"},
      {throwing(failure), "Failure"},
      {cancelled(), "Future has been cancelled."},
      {invalid(), "Future state isn't valid!"},
      {alreadyRetrieved(), "Future already returned it's value or has an associated continuation."},
      {withContinuation(), "Future already returned it's value or has an associated continuation."},
      {unknownStatus(), "Invalid Future state reached."},
  };
  unsigned number = 0;
  for (const auto& [answer, text] : cases) {
    stream.str("");
    Future<MessagePtr> result =
        send(provider, std::make_unique<CountedMessage>(), std::make_shared<FakeContext>(answer));
    const std::string n = std::to_string(number++);
    EXPECT_THAT(linesOf(stream.str()),
                ElementsAre(Line("NUMBER: Request \\(" + n + "\\): connector::testing::CountedMessage"),
                            Line("NUMBER: Response \\(" + n + "\\): Exception!: elapsed time NUMBER ms")))
        << text;
    try {
      result.get();
      ADD_FAILURE() << text;
    } catch (const Failure&) {
      EXPECT_EQ(text, "Failure");
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), text);
    }
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST_F(LoggingProvider, AnEmptyResponseCutsTheResponseLineShortBeforeTheExceptionLine) {
  stream.str("");
  Future<MessagePtr> result = send(provider, std::make_unique<app::Ping>(),
                                   std::make_shared<FakeContext>(answeringWith([] { return nullptr; })));
  EXPECT_THAT(
      linesOf(stream.str()),
      ElementsAre(
          Line("NUMBER: Request \\(0\\): app::Ping"),
          Line("NUMBER: Response \\(0\\): NUMBER: Response \\(0\\): Exception!: elapsed time NUMBER ms")));
  EXPECT_THROW(result.get(), std::bad_typeid);
}

TEST_F(LoggingProvider, ALoggedRequestWaitsForItsAnswerWithItsRequestLineAlreadyWritten) {
  Promise<MessagePtr> promise;
  std::promise<void> forwarded;
  auto context = std::make_shared<FakeContext>([&](MessagePtr&&) {
    forwarded.set_value();
    return promise.getFuture();
  });
  std::thread answerer([&] {
    forwarded.get_future().wait();
    EXPECT_THAT(linesOf(stream.str()), ElementsAre(Line("NUMBER: Request \\(0\\): app::Ping")));
    promise.resolve(std::make_unique<app::Pong>());
  });
  MessagePtr response = send(provider, std::make_unique<app::Ping>(), context).get();
  answerer.join();
  EXPECT_NE(dynamic_cast<app::Pong*>(response.get()), nullptr);
  EXPECT_THAT(linesOf(stream.str())[1], Line("NUMBER: Response \\(0\\): app::Pong: elapsed time NUMBER ms"));
}

template <int N>
void sendFrom(LoggingServiceProvider& provider, const std::shared_ptr<Context>& context) {
  for (int i = 0; i < 200; ++i) {
    send(provider, std::make_unique<app::Numbered<N>>(), context).get();
  }
}

// Lines never mix, numbers are distinct, and each thread's response line carries the number of
// the request line before it.
TEST_F(LoggingProvider, ConcurrentRequestsGetDistinctNumbersAndWholeLines) {
  std::vector<std::thread> threads;
  threads.emplace_back([&] { sendFrom<0>(provider, echo); });
  threads.emplace_back([&] { sendFrom<1>(provider, echo); });
  threads.emplace_back([&] { sendFrom<2>(provider, echo); });
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::regex line(kNumber + R"(: (Request|Response) \((\d+)\): app::Numbered<(\d)>(: elapsed time )" +
                        kNumber + " ms)?");
  std::set<std::string> numbers;
  std::string open[3];
  for (const std::string& text : linesOf(stream.str())) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, line)) << text;
    std::string& pending = open[std::stoi(match[4])];
    if (match[2] == "Request") {
      EXPECT_EQ(pending, "");
      pending = match[3];
      EXPECT_TRUE(numbers.insert(match[3]).second);
    } else {
      EXPECT_EQ(pending, match[3]);
      pending.clear();
    }
  }
  EXPECT_EQ(numbers.size(), 600u);
}

// Settings replaced while requests run are seen whole: a line starts with one prefix or the
// other, never a mix, and the filter never lets a request through half-matched.
TEST_F(LoggingProvider, SettingsChangedDuringRequestsAreSeenWhole) {
  std::atomic<bool> stop{false};
  std::promise<void> started;
  std::thread changer([&] {
    for (int i = 0; !stop.load(); ++i) {
      configuration->send(
          "svc.prefix",
          std::string(
              i % 2 ? "aaaa"
                    : "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb"));
      configuration->send("svc.filter", std::string(i % 2 ? "app::Ping" : "app::Pong"));
      if (i == 0) {
        started.set_value();
      }
    }
  });
  started.get_future().wait();
  for (int i = 0; i < 300; ++i) {
    send(provider, std::make_unique<app::Ping>(), echo).get();
  }
  stop.store(true);
  changer.join();
  for (const std::string& line : linesOf(stream.str())) {
    EXPECT_THAT(line, Line("(aaaa|b{79})NUMBER: (Request|Response) \\(\\d+\\): app::Ping.*"));
  }
}

TEST_F(LoggingProvider, NumbersWrapToZeroAfter4294967295) {
  common_services::LoggingServiceProviderPeer::setNextRequestNumber(provider, 4294967295u);
  EXPECT_THAT(roundTrip(), ElementsAre(Line("NUMBER: Request \\(4294967295\\): app::Ping"),
                                       Line("NUMBER: Response \\(4294967295\\): .*")));
  EXPECT_THAT(roundTrip(), ElementsAre(Line("NUMBER: Request \\(0\\): app::Ping"), Line(".*")));
}

struct CommaDecimalPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

// Timestamps, elapsed times and numbers follow the stream's own format, whether the provider
// formats them itself or leaves them to the stream; a pending width pads the first token only.
TEST_F(LoggingProvider, NumbersFollowTheStreamsFormat) {
  const std::string exponent = R"([0-9]\.[0-9]{2}e[-+][0-9]{2})";
  stream << std::scientific << std::setprecision(2);
  EXPECT_THAT(roundTrip(), ElementsAre(Line(exponent + ": Request \\(0\\): app::Ping"),
                                       Line(exponent + ": Response \\(0\\): app::Ping: elapsed time " +
                                            exponent + " ms")));
  stream << std::defaultfloat << std::showpos << std::uppercase;
  EXPECT_THAT(roundTrip(),
              ElementsAre(Line(R"(\+[0-9.]+(E[-+][0-9]+)?: Request \(1\): app::Ping)"), Line(".*")));
  stream << std::noshowpos << std::fixed;
  stream.imbue(std::locale(std::locale::classic(), new CommaDecimalPoint));
  EXPECT_THAT(roundTrip(),
              ElementsAre(Line("[0-9]+,[0-9]{2}: Request \\(2\\): app::Ping"),
                          Line("[0-9]+,[0-9]{2}: Response .*: elapsed time [0-9]+,[0-9]{2} ms")));
  stream << std::hex << std::showpoint;
  configuration->send("svc.prefix", std::string("p"));
  common_services::LoggingServiceProviderPeer::setNextRequestNumber(provider, 10);
  stream.str("");
  stream.width(4);
  send(provider, std::make_unique<app::Ping>(), echo).get();
  EXPECT_THAT(linesOf(stream.str()), ElementsAre(Line("   p[0-9]+,[0-9]{2}: Request \\(A\\): app::Ping"),
                                                 Line("p[0-9]+,[0-9]{2}: Response \\(A\\): .*")));
}

class FailingBuffer : public std::streambuf {
 public:
  std::atomic<bool> failing{false};

 protected:
  int_type overflow(int_type c) override { return failing ? traits_type::eof() : traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return failing ? 0 : n; }
};

// A request line that cannot be written leaves deliver() before the request goes on, and its
// number stays used; so does an exception line, and the response that arrived is destroyed.
TEST(LoggingStreamFailure, AnUnwritableLineLeavesDeliverAsTheStreamsException) {
  FailingBuffer buffer;
  std::ostream stream(&buffer);
  stream.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  LoggingServiceProvider provider(nullptr, "svc", stream);
  auto context = std::make_shared<FakeContext>(echoing());
  buffer.failing = true;
  EXPECT_THROW(send(provider, std::make_unique<CountedMessage>(), context), std::ios_base::failure);
  EXPECT_EQ(context->forwardCount(), 0);

  stream.clear();
  buffer.failing = false;
  auto failAfterRequest = std::make_shared<FakeContext>([&](MessagePtr&& message) {
    buffer.failing = true;
    return makeResolvedFuture(std::move(message));
  });
  EXPECT_THROW(send(provider, std::make_unique<CountedMessage>(), failAfterRequest), std::ios_base::failure);
  EXPECT_EQ(CountedMessage::alive(), 0);

  stream.clear();
  buffer.failing = false;
  std::ostringstream lines;
  stream.rdbuf(lines.rdbuf());
  send(provider, std::make_unique<app::Ping>(), context).get();
  EXPECT_THAT(linesOf(lines.str()), ElementsAre(Line("NUMBER: Request \\(2\\): app::Ping"), Line(".*")));
}

}  // namespace
