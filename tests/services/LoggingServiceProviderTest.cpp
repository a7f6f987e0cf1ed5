// The logging provider: its binding to the configuration, the values and moments of its lines,
// and what its caller receives when the answer or the stream fails. Which requests are selected
// and the form of the lines on streams of every format are checked by the fuzzer's model
// (fuzz/LoggingProviderFuzzer.cpp), concurrent use by the stress test.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "services/LoggingServiceProvider.h"
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
struct Subclass {};
template <typename T>
struct Holder : connector::Message {};
}  // namespace app

namespace {

using namespace connector;
using namespace connector::test_support;
using common_services::LoggingServiceProvider;
using configuration::ConfigValue;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

const std::string kTime = "[0-9.]+(e[-+][0-9]+)?";
std::string request(const std::string& n, const std::string& type) {
  return kTime + ": Request \\(" + n + "\\): " + type;
}
std::string response(const std::string& n, const std::string& type) {
  return kTime + ": Response \\(" + n + "\\): " + type + ": elapsed time " + kTime + " ms";
}

// A string buffer that counts its sync() calls and refuses every write after the first `writable`.
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
    return provider.deliver(std::move(message), Address("svc"),
                            std::make_shared<FakeContext>(std::move(answer)));
  }
  // The lines written so far; the buffer is emptied.
  std::vector<std::string> lines() {
    std::vector<std::string> lines;
    std::istringstream in(buffer.str());
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    buffer.str("");
    return lines;
  }
};

// The defaults go in under "default" before the keys are observed. Whichever call fails, the
// exception leaves the constructor with exactly the subscriptions made so far cancelled; a
// provider that was made cancels all three, in key order, when it goes. No value reaches a
// cancelled key's callback (which would refuse an int on every key).
TEST(LoggingBinding, AFailedConstructionCancelsExactlyWhatItSubscribed) {
  const std::vector<std::string> all = {"svc.filter", "svc.prefix", "svc.enabled"};
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"", all},
      {"set svc.filter", {}},
      {"observe svc.filter", {}},
      {"subscribe svc.prefix", {"svc.filter"}},
      {"subscribe svc.enabled", {"svc.filter", "svc.prefix"}}};
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
    for (const std::string& key : all) {
      EXPECT_NO_THROW(configuration->send(key, 1)) << key;
    }
  }
  auto configuration = std::make_shared<FakeConfiguration>();
  std::ostringstream stream;
  LoggingServiceProvider provider(configuration, "svc", stream);
  EXPECT_THAT(configuration->calls(),
              ElementsAre("set svc.filter default", "set svc.prefix default", "set svc.enabled default",
                          "observe svc.filter", "observe svc.prefix", "observe svc.enabled"));
  EXPECT_TRUE(configuration->value("svc.filter") == ConfigValue(std::string()));
  EXPECT_TRUE(configuration->value("svc.prefix") == ConfigValue(std::string()));
  EXPECT_TRUE(configuration->value("svc.enabled") == ConfigValue(true));
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

// Concurrent requests write to the stream one line at a time: a buffer that notices two writers
// inside it at once, and lets the other thread in while it is inside, never does.
TEST(LoggingLines, ConcurrentRequestsWriteOneLineAtATime) {
  struct OverlapBuffer : std::stringbuf {
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::streamsize xsputn(const char*, std::streamsize size) override {
      if (inside.fetch_add(1) > 0) {
        overlapped = true;
      }
      std::this_thread::yield();
      inside.fetch_sub(1);
      return size;
    }
  } buffer;
  std::ostream stream(&buffer);
  LoggingServiceProvider provider(nullptr, "svc", stream);
  const auto context = std::make_shared<FakeContext>(echoing());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        provider.deliver(std::make_unique<app::Ping>(), Address("svc"), context).get();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(buffer.overlapped);
}

// The request line is flushed before the request goes on; each line reads the prefix as it is
// written; the response line names the response's type.
TEST_F(LoggingProvider, TheRequestLineIsOutBeforeTheRequestGoesOnAndEachLineReadsThePrefix) {
  configuration->send("svc.prefix", std::string("<"));
  MessagePtr answer = send([&](MessagePtr&&) {
                        EXPECT_EQ(buffer.syncs, 1);
                        EXPECT_THAT(buffer.str(), MatchesRegex("<" + request("0", "app::Ping") + "\n"));
                        configuration->send("svc.prefix", std::string(">"));
                        return makeResolvedFuture<MessagePtr>(std::make_unique<app::Pong>());
                      }).get();
  EXPECT_NE(dynamic_cast<app::Pong*>(answer.get()), nullptr);
  EXPECT_THAT(lines(), ElementsAre(::testing::_, MatchesRegex(">" + response("0", "app::Pong"))));
}

// What get() gives: "resolved", the very exception `very`, or the text of another.
std::string outcome(Future<MessagePtr>& future, const std::exception_ptr& very = nullptr) {
  try {
    future.get();
  } catch (const std::exception& error) {
    return std::current_exception() == very ? "the very exception" : error.what();
  }
  return "resolved";
}

// A failure of the answer ends the request with an exception line (after the start of a response
// line, when the response has no type) and a rejection carrying that failure.
TEST_F(LoggingProvider, AFailedAnswerBecomesARejectionAfterAnExceptionLine) {
  const std::exception_ptr failure = std::make_exception_ptr(std::range_error("x"));
  Future<MessagePtr> thrown = send(throwing(failure));
  EXPECT_EQ(outcome(thrown, failure), "the very exception");
  EXPECT_THAT(lines(), ElementsAre(MatchesRegex(request("0", "app::Ping")),
                                   MatchesRegex(response("0", "Exception!"))));
  Future<MessagePtr> empty = send([](MessagePtr&&) { return makeResolvedFuture(MessagePtr()); });
  EXPECT_EQ(outcome(empty), "std::bad_typeid");
  EXPECT_THAT(lines(),
              ElementsAre(MatchesRegex(request("1", "app::Ping")),
                          MatchesRegex(kTime + ": Response \\(1\\): " + response("1", "Exception!"))));
}

// A numpunct facet that throws once from grouping() when armed. The provider consults the
// stream's locale for every line it writes, so the line being written fails, with the stream
// itself left good.
struct FailingPunct : std::numpunct<char> {
  mutable bool armed = false;
  std::string do_grouping() const override {
    if (std::exchange(armed, false)) {
      throw std::range_error("grouping");
    }
    return "";
  }
};

// A request line that cannot be written leaves deliver() before the request goes on, with the
// message still the caller's. A response line that cannot be written gives an exception line and
// a rejection, unless the exception line cannot be written either (a stream whose exception mask
// holds badbit): then the exception leaves deliver().
TEST_F(LoggingProvider, AStreamFailureLeavesDeliverUnlessTheExceptionLineCanBeWritten) {
  auto* punct = new FailingPunct;
  stream.imbue(std::locale(std::locale::classic(), punct));
  for (const auto& [writable, armed, expected] : std::vector<std::tuple<int, bool, std::string>>{
           {0, false, "thrown"}, {1, false, "thrown"}, {1000, true, "rejected"}}) {
    stream.clear();
    stream.exceptions(writable < 1000 ? std::ios_base::badbit : std::ios_base::goodbit);
    buffer.writable = writable;
    auto context = std::make_shared<FakeContext>([&, armed = armed](MessagePtr&& message) {
      punct->armed = armed;
      return makeResolvedFuture(std::move(message));
    });
    MessagePtr message = std::make_unique<app::Ping>();
    std::string result;
    try {
      Future<MessagePtr> answer = provider.deliver(std::move(message), Address("svc"), context);
      result = outcome(answer) == "resolved" ? "resolved" : "rejected";
    } catch (const std::exception&) {
      result = "thrown";
    }
    stream.exceptions(std::ios_base::goodbit);
    EXPECT_EQ(result, expected) << writable;
    EXPECT_EQ(context->forwardCount(), writable == 0 ? 0 : 1);
    EXPECT_EQ(message != nullptr, writable == 0);
  }
  EXPECT_THAT(lines(),
              ElementsAre(MatchesRegex(request("1", "app::Ping")), MatchesRegex(request("2", "app::Ping")),
                          MatchesRegex(response("2", "Exception!"))));
}

// Off, or filtered out: the context's own future comes back, pending as it was, and an exception
// of forward() leaves deliver() itself. An empty request is refused first, then a null context
// (with the message left to the caller), whatever the settings.
TEST_F(LoggingProvider, ARequestNotSelectedPassesThroughUntouched) {
  for (const auto& [key, value] : std::vector<std::pair<std::string, ConfigValue>>{
           {"svc.filter", std::string("xpp::Ping")}, {"svc.enabled", false}}) {
    configuration->send(key, value);
    send(echoing()).get();
    ASSERT_EQ(buffer.str(), "") << key;  // before a pending answer that a logged request would wait for
    Promise<MessagePtr> promise;
    Future<MessagePtr> pending = promise.getFuture();
    EXPECT_EQ(send([&](MessagePtr&&) { return std::move(pending); }).state, promise.state);
    EXPECT_THROW(send(throwing(std::make_exception_ptr(std::range_error(key)))), std::range_error);
    EXPECT_THROW(send(echoing(), nullptr), std::bad_typeid);
    MessagePtr message = std::make_unique<app::Ping>();
    EXPECT_THAT(
        [&] { provider.deliver(std::move(message), Address("svc"), nullptr); },
        ::testing::ThrowsMessage<std::invalid_argument>(
            "LoggingServiceProvider::deliver needs a context to forward the request through; got a null "
            "std::shared_ptr<connector::Context>"));
    EXPECT_NE(message, nullptr);
  }
  EXPECT_EQ(buffer.str(), "");
}

// Numbers wrap to 0 after 4294967295; a readable name holding "class " loses its first six
// characters, wherever the match is.
TEST_F(LoggingProvider, NumbersWrapAndClassIsCutFromTheFront) {
  common_services::LoggingServiceProviderPeer::setNext(provider, 4294967295u);
  send(echoing()).get();
  send(echoing(), std::make_unique<app::Holder<const app::Subclass>>()).get();
  EXPECT_THAT(lines(), ElementsAre(MatchesRegex(request("4294967295", "app::Ping")), ::testing::_,
                                   MatchesRegex(request("0", "older<app::Subclass const>")), ::testing::_));
}

}  // namespace
