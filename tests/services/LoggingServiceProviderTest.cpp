// The logging provider: how it binds its three settings to the configuration, which requests it
// logs, the exact form of its lines, and what its caller receives when the answer fails.
#include <cstdio>
#include <functional>
#include <future>
#include <iomanip>
#include <locale>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/variant/get.hpp>

#include "services/LoggingServiceProvider.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace connector::common_services {
// Reaches the request counter, so the 32-bit wrap needs no four billion requests.
struct LoggingServiceProviderPeer {
  static void setNext(LoggingServiceProvider& provider, std::uint32_t next) { provider.requestCount = next; }
};
}  // namespace connector::common_services

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
using namespace connector::test_support;
using common_services::LoggingServiceProvider;
using common_services::LoggingServiceProviderPeer;
using configuration::ConfigValue;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

// One expression per line format; `time` matches a timestamp or an elapsed time. The exception
// line is a response line whose type name is "Exception!".
const std::string kTime = "[-+]?[0-9.]+(e[-+][0-9]+)?";
std::string request(const std::string& n, const std::string& type, const std::string& time = kTime) {
  return time + ": Request \\(" + n + "\\): " + type;
}
std::string response(const std::string& n, const std::string& type, const std::string& time = kTime) {
  return time + ": Response \\(" + n + "\\): " + type + ": elapsed time " + time + " ms";
}
// The two lines of a logged app::Ping numbered `n`.
auto logged(const std::string& n, const std::string& prefix = "") {
  return ElementsAre(MatchesRegex(prefix + request(n, "app::Ping")),
                     MatchesRegex(prefix + response(n, "app::Ping")));
}

// The lines written to `stream` so far; the stream is emptied.
std::vector<std::string> takeLines(std::ostringstream& stream) {
  std::vector<std::string> lines;
  std::istringstream in(stream.str());
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  stream.str("");
  return lines;
}

Future<MessagePtr> send(LoggingServiceProvider& provider, MessagePtr message, Answer answer = echoing()) {
  return provider.deliver(std::move(message), Address("svc"),
                          std::make_shared<FakeContext>(std::move(answer)));
}

struct Failure : std::exception {};

struct LoggingProvider : ::testing::Test {
  std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
  std::ostringstream stream;
  LoggingServiceProvider provider{configuration, "svc", stream};

  std::vector<std::string> roundTrip(MessagePtr message = std::make_unique<app::Ping>()) {
    send(provider, std::move(message)).get();
    return takeLines(stream);
  }
};

TEST(LoggingBinding, WritesTheThreeDefaultsThenObservesTheKeysInTheSameOrder) {
  const std::vector<std::pair<std::string, ConfigValue>> defaults = {
      {".filter", std::string()}, {".prefix", std::string()}, {".enabled", true}};
  for (const std::string name : {"svc", ""}) {
    auto configuration = std::make_shared<FakeConfiguration>();
    std::ostringstream stream;
    LoggingServiceProvider provider(configuration, name, stream);
    const std::vector<FakeConfiguration::Call> calls = configuration->calls();
    ASSERT_EQ(calls.size(), 6u) << name;
    for (std::size_t i = 0; i < 3; ++i) {
      const std::string key = name + defaults[i].first;
      EXPECT_EQ(calls[i].operation + " " + calls[i].key + " " + calls[i].label, "set " + key + " default");
      EXPECT_TRUE(calls[i].value == defaults[i].second) << key;
      EXPECT_EQ(calls[i + 3].operation + " " + calls[i + 3].key, "observe " + key);
    }
  }
}

// No conversion between alternatives: an int 1 is no bool, a UTF-16 text no string. The setting
// stays, and the key goes on accepting values of its own alternative.
TEST_F(LoggingProvider, EveryOtherAlternativeIsRefusedOnEveryKeyAndChangesNothing) {
  configuration->send("svc.prefix", std::string(">"));
  configuration->send("svc.filter", std::string("app::"));
  std::vector<ConfigValue> all = {true, 1, 1u, 1.0, std::u16string(u"x"), std::string("x")};
  all.insert(all.end(), {std::vector<bool>(1), std::vector<int>(1), std::vector<unsigned>(1)});
  all.insert(all.end(),
             {std::vector<double>(1), std::vector<std::string>(1), std::vector<std::u16string>(1)});
  for (const auto& [key, accepted] :
       std::vector<std::pair<std::string, int>>{{"svc.filter", 5}, {"svc.prefix", 5}, {"svc.enabled", 0}}) {
    for (const ConfigValue& value : all) {
      if (value.which() != accepted) {
        EXPECT_THROW(configuration->send(key, value), boost::bad_get) << key << " " << value.which();
      }
    }
  }
  EXPECT_THAT(roundTrip(), logged("0", ">"));
  EXPECT_THAT(roundTrip(std::make_unique<CountedMessage>()), IsEmpty());
  configuration->send("svc.enabled", false);
  EXPECT_THAT(roundTrip(), IsEmpty());
}

// Subscriptions end with the provider, or with a construction that fails part way; after that no
// value reaches a callback (which would refuse an int on every key).
TEST(LoggingBinding, EachSubscriptionMadeIsCancelledOnceInKeyOrderWhenTheProviderGoes) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"svc.prefix", {"svc.filter"}}, {"", {"svc.filter", "svc.prefix", "svc.enabled"}}};
  for (const auto& [failingKey, cancelled] : cases) {
    auto configuration = std::make_shared<FakeConfiguration>();
    configuration->failObserveOf = failingKey;
    std::ostringstream stream;
    bool failed = false;
    try {
      LoggingServiceProvider(configuration, "svc", stream);
    } catch (const std::runtime_error&) {
      failed = true;
    }
    EXPECT_EQ(failed, !failingKey.empty());
    EXPECT_EQ(configuration->cancelledKeys(), cancelled);
    for (const char* key : {"svc.filter", "svc.prefix", "svc.enabled"}) {
      EXPECT_NO_THROW(configuration->send(key, 1)) << key;
    }
  }
}

TEST_F(LoggingProvider, TheFilterSelectsTypeNamesThatBeginWithItsBytes) {
  for (const auto& [filter, selected] : std::vector<std::pair<std::string, bool>>{{"app::Ping", true},
                                                                                  {"app::", true},
                                                                                  {"", true},
                                                                                  {"app::Pingx", false},
                                                                                  {"APP::Ping", false},
                                                                                  {"pp", false}}) {
    configuration->send("svc.filter", filter);
    EXPECT_EQ(roundTrip().size(), selected ? 2u : 0u) << filter;
  }
}

// "class " is removed where the readable name holds it: the first six characters go.
TEST_F(LoggingProvider, ATypeNameHoldingClassLosesItsFirstSixCharacters) {
  EXPECT_THAT(roundTrip(std::make_unique<app::Holder<const app::Subclass>>()),
              ElementsAre(MatchesRegex(request("0", "older<app::Subclass const>")), _));
}

// Off, or filtered out: the context's own future comes back, pending as it was, no number is
// taken, nothing is written, and an exception of forward() leaves deliver() itself. An empty
// request is refused first, then a null context, whatever the settings; the message stays with
// the caller.
TEST_F(LoggingProvider, ARequestNotSelectedPassesThroughUntouched) {
  const auto refusesNullContext = [this] {
    MessagePtr message = std::make_unique<app::Ping>();
    try {
      provider.deliver(std::move(message), Address("svc"), nullptr);
      ADD_FAILURE() << "a null context was accepted";
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(
          error.what(),
          "LoggingServiceProvider::deliver needs a context to forward the request through; got a null "
          "std::shared_ptr<connector::Context>");
    }
    EXPECT_NE(message, nullptr);
    EXPECT_THROW(provider.deliver(nullptr, Address("svc"), nullptr), std::bad_typeid);
  };
  for (const auto& [key, value] : std::vector<std::pair<std::string, ConfigValue>>{
           {"svc.enabled", false}, {"svc.filter", std::string("app::Pong")}}) {
    SCOPED_TRACE(key);
    configuration->send(key, value);
    Promise<MessagePtr> promise;
    Future<MessagePtr> pending = promise.getFuture();
    auto context = std::make_shared<FakeContext>([&](MessagePtr&&) { return std::move(pending); });
    EXPECT_THROW(provider.deliver(nullptr, Address("svc"), context), std::bad_typeid);
    refusesNullContext();
    EXPECT_EQ(provider.deliver(std::make_unique<app::Ping>(), Address("svc"), context).state, promise.state);
    EXPECT_EQ(context->forwardCount(), 1);
    EXPECT_EQ(context->lastAddress(), Address("svc"));
    EXPECT_THROW(send(provider, std::make_unique<app::Ping>(), throwing(std::make_exception_ptr(Failure()))),
                 Failure);
    EXPECT_THAT(takeLines(stream), IsEmpty());
  }
  configuration->send("svc.enabled", true);
  configuration->send("svc.filter", std::string());
  EXPECT_THROW(send(provider, nullptr, [](MessagePtr&&) -> Future<MessagePtr> { throw Failure(); }),
               std::bad_typeid);
  refusesNullContext();
  EXPECT_THAT(roundTrip(), logged("0"));
}

// What get() on `future` throws: the text of the exception, or whether it is the very exception
// that `very` holds.
std::string outcomeOf(Future<MessagePtr>& future, const std::exception_ptr& very) {
  try {
    future.get();
  } catch (const std::exception& error) {
    return std::current_exception() == very ? "the very exception" : error.what();
  }
  return "resolved";
}

// Each failure of the answer ends the request with an exception line (after the start of a
// response line, when the response has no type) and a Rejected future carrying that failure.
TEST_F(LoggingProvider, EveryFailureOfTheAnswerBecomesARejectedFutureAfterAnExceptionLine) {
  const std::exception_ptr failure = std::make_exception_ptr(Failure());
  const std::string claimed = "Future already returned it's value or has an associated continuation.";
  const std::vector<std::tuple<const char*, Answer, std::string>> cases = {
      {"forward throws", throwing(failure), "the very exception"},
      {"rejected", rejecting(failure), "the very exception"},
      {"invalid", invalid(), "Future state isn't valid!"},
      {"already claimed", alreadyRetrieved(), claimed},
      {"continuation attached", withContinuation(), claimed},
      {"cancelled", cancelled(), "Future has been cancelled."},
      {"unknown status", unknownStatus(), "Invalid Future state reached."},
      {"empty response", [](MessagePtr&&) { return makeResolvedFuture(MessagePtr()); }, "std::bad_typeid"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [name, answer, outcome] = cases[i];
    SCOPED_TRACE(name);
    Future<MessagePtr> result = send(provider, std::make_unique<CountedMessage>(), answer);
    const std::string n = std::to_string(i);
    const std::string cutShort = outcome == "std::bad_typeid" ? kTime + ": Response \\(" + n + "\\): " : "";
    EXPECT_THAT(takeLines(stream),
                ElementsAre(MatchesRegex(request(n, "connector::test_support::CountedMessage")),
                            MatchesRegex(cutShort + response(n, "Exception!"))));
    ASSERT_TRUE(result.state);
    EXPECT_TRUE(result.state->status == detail::Status::Rejected);
    EXPECT_EQ(outcomeOf(result, failure), outcome);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST_F(LoggingProvider, ALoggedRequestWaitsForItsAnswerWithItsRequestLineAlreadyWritten) {
  Promise<MessagePtr> promise;
  std::promise<void> forwarded;
  std::thread answerer([&] {
    forwarded.get_future().wait();
    EXPECT_THAT(takeLines(stream), ElementsAre(MatchesRegex(request("0", "app::Ping"))));
    promise.resolve(std::make_unique<app::Pong>());
  });
  MessagePtr answer = send(provider, std::make_unique<app::Ping>(), [&](MessagePtr&&) {
                        forwarded.set_value();
                        return promise.getFuture();
                      }).get();
  answerer.join();
  EXPECT_NE(dynamic_cast<app::Pong*>(answer.get()), nullptr);
  EXPECT_THAT(takeLines(stream), ElementsAre(MatchesRegex(response("0", "app::Pong"))));
}

template <int N>
void sendFrom(LoggingServiceProvider* provider) {
  for (int i = 0; i < 200; ++i) {
    send(*provider, std::make_unique<app::Numbered<N>>()).get();
  }
}

// Lines never mix, numbers are distinct, and each thread's closing line carries the number of
// its request line. Without a configuration the defaults log every request, with no prefix.
TEST(LoggingLines, ConcurrentRequestsGetDistinctNumbersAndWholeLines) {
  std::ostringstream stream;
  LoggingServiceProvider provider(nullptr, "svc", stream);
  std::thread first(sendFrom<0>, &provider), second(sendFrom<1>, &provider);
  sendFrom<2>(&provider);
  first.join();
  second.join();
  std::set<long> numbers;
  long open[3] = {-1, -1, -1};
  for (const std::string& line : takeLines(stream)) {
    ASSERT_THAT(line, ::testing::AnyOf(MatchesRegex(request("[0-9]+", "app::Numbered<[0-2]>")),
                                       MatchesRegex(response("[0-9]+", "app::Numbered<[0-2]>"))));
    char kind[9] = {};
    long number = 0;
    int sender = 0;
    std::sscanf(line.c_str(), "%*f: %8s (%ld): app::Numbered<%d>", kind, &number, &sender);
    const bool isRequest = std::string(kind) == "Request";
    EXPECT_EQ(open[sender], isRequest ? -1 : number) << line;
    open[sender] = isRequest ? number : -1;
    EXPECT_TRUE(!isRequest || numbers.insert(number).second) << line;
  }
  EXPECT_EQ(numbers.size(), 600u);
}

TEST_F(LoggingProvider, NumbersWrapToZeroAfter4294967295) {
  LoggingServiceProviderPeer::setNext(provider, 4294967295u);
  EXPECT_THAT(roundTrip(), logged("4294967295"));
  EXPECT_THAT(roundTrip(), logged("0"));
}

struct CommaDecimalPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

// Times and numbers follow the stream's own format, whether the provider formats them itself or
// leaves them to the stream (hexadecimal, a pending width); a width pads the first token only.
TEST_F(LoggingProvider, NumbersFollowTheStreamsFormat) {
  const std::locale comma(std::locale::classic(), new CommaDecimalPoint);
  const std::vector<std::tuple<const char*, std::function<void()>, std::string, std::string>> cases = {
      {"scientific", [&] { stream << std::scientific << std::setprecision(2); },
       "[0-9]\\.[0-9]{2}e[-+][0-9]{2}", "10"},
      {"comma", [&] { stream.imbue(comma), stream << std::fixed << std::showpos; }, "\\+[0-9]+,[0-9]{6}",
       "10"},
      {"hex", [&] { stream << std::hex << std::uppercase; }, kTime, "A"},
      {"width", [&] { stream.width(4); }, kTime, "10"},
  };
  for (const auto& [name, format, time, number] : cases) {
    SCOPED_TRACE(name);
    stream.copyfmt(std::ostringstream());
    format();
    LoggingServiceProviderPeer::setNext(provider, 10);
    const std::string padding(stream.width(), ' ');
    EXPECT_THAT(roundTrip(), ElementsAre(MatchesRegex(padding + request(number, "app::Ping", time)),
                                         MatchesRegex(response(number, "app::Ping", time))));
  }
}

}  // namespace
