// The logging provider: its binding to the configuration, the values and moments of its lines,
// and what its caller receives when the answer or the stream fails. Which requests are selected
// and the form of the lines on streams of every format are checked by the fuzzer's model
// (fuzz/LoggingProviderFuzzer.cpp), concurrent use by the stress test.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
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
using ::testing::MatchesRegex;

const std::string kTime = "[0-9.]+(e[-+][0-9]+)?";
std::string request(const std::string& n, const std::string& type) {
  return kTime + ": Request \\(" + n + "\\): " + type;
}
std::string response(const std::string& n, const std::string& type) {
  return kTime + ": Response \\(" + n + "\\): " + type + ": elapsed time " + kTime + " ms";
}

// A string buffer that counts its sync() calls, refuses every write after the first `writable`,
// and notes a write that begins while another is under way (letting other threads in meanwhile).
struct RecordingBuffer : std::stringbuf {
  int syncs = 0;
  int writable = 1000;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  int sync() override { return ++syncs, std::stringbuf::sync(); }
  std::streamsize xsputn(const char* text, std::streamsize size) override {
    overlapped = inside.fetch_add(1) > 0 || overlapped;
    std::this_thread::yield();
    const std::streamsize written = writable-- > 0 ? std::stringbuf::xsputn(text, size) : 0;
    inside.fetch_sub(1);
    return written;
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
  // The text written so far; the buffer is emptied.
  std::string written() {
    const std::string text = buffer.str();
    buffer.str("");
    return text;
  }
};

// Whichever call of the constructor fails, the exception leaves it with exactly the subscriptions
// made so far cancelled; a provider that was made cancels all three, in key order, when it goes.
// No value reaches a cancelled key's callback (which would refuse an int on every key).
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
    for (const std::string& key : all) {
      EXPECT_NO_THROW(configuration->send(key, 1)) << key;
    }
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

// Concurrent requests write to the stream one line at a time.
TEST_F(LoggingProvider, ConcurrentRequestsWriteOneLineAtATime) {
  const auto deliver = [&] {
    for (int i = 0; i < 1000; ++i) {
      send(echoing());
    }
  };
  std::thread other(deliver);
  deliver();
  other.join();
  EXPECT_FALSE(buffer.overlapped);
}

// The request line is flushed before the request goes on; each line reads the prefix as it is
// written; the response line names the response's type.
TEST_F(LoggingProvider, TheRequestLineIsOutBeforeTheRequestGoesOnAndEachLineReadsThePrefix) {
  configuration->send("svc.prefix", std::string("<"));
  MessagePtr answer = send([&](MessagePtr&&) {
                        EXPECT_EQ(buffer.syncs, 1);
                        EXPECT_THAT(written(), MatchesRegex("<" + request("0", "app::Ping") + "\n"));
                        configuration->send("svc.prefix", std::string(">"));
                        return makeResolvedFuture<MessagePtr>(std::make_unique<app::Pong>());
                      }).get();
  EXPECT_NE(dynamic_cast<app::Pong*>(answer.get()), nullptr);
  EXPECT_THAT(written(), MatchesRegex(">" + response("0", "app::Pong") + "\n"));
}

// A failure of the answer ends the request with an exception line (after the start of a response
// line, when the response has no type) and a rejection carrying that very failure.
TEST_F(LoggingProvider, AFailedAnswerBecomesARejectionAfterAnExceptionLine) {
  const std::exception_ptr failure = std::make_exception_ptr(std::range_error("x"));
  try {
    send(throwing(failure)).get();
    ADD_FAILURE() << "resolved";
  } catch (...) {
    EXPECT_EQ(std::current_exception(), failure);
  }
  EXPECT_THROW(send([](MessagePtr&&) { return makeResolvedFuture(MessagePtr()); }).get(), std::bad_typeid);
  EXPECT_THAT(written(), MatchesRegex(request("0", "app::Ping") + "\n" + response("0", "Exception!") + "\n" +
                                      request("1", "app::Ping") + "\n" + kTime +
                                      ": Response \\(1\\): " + response("1", "Exception!") + "\n"));
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
  EXPECT_THAT(written(), MatchesRegex(request("1", "app::Ping") + "\n"));
}

// Filtered out (or off, which the fuzzer checks): nothing is written and the context's own
// future comes back, pending as it was. An empty request or a null context is refused whatever
// the settings, the message left to the caller.
TEST_F(LoggingProvider, ARequestNotSelectedPassesThroughUntouched) {
  configuration->send("svc.filter", std::string("xpp::Ping"));
  send(echoing()).get();
  ASSERT_EQ(written(), "");  // before a pending answer that a logged request would wait for
  Promise<MessagePtr> promise;
  EXPECT_EQ(send([&](MessagePtr&&) { return promise.getFuture(); }).state, promise.state);
  EXPECT_THROW(send(echoing(), nullptr), std::bad_typeid);
  MessagePtr message = std::make_unique<app::Ping>();
  EXPECT_THROW(provider.deliver(std::move(message), Address("svc"), nullptr), std::invalid_argument);
  EXPECT_NE(message, nullptr);
  EXPECT_EQ(written(), "");
}

// Numbers wrap to 0 after 4294967295; a readable name holding "class " loses its first six
// characters, wherever the match is.
TEST_F(LoggingProvider, NumbersWrapAndClassIsCutFromTheFront) {
  common_services::LoggingServiceProviderPeer::setNext(provider, 4294967295u);
  send(echoing()).get();
  EXPECT_THAT(written(), MatchesRegex(request("4294967295", "app::Ping") + "\n.*"));
  send(echoing(), std::make_unique<app::Holder<const app::Subclass>>()).get();
  EXPECT_THAT(written(), MatchesRegex(request("0", "older<app::Subclass const>") + "\n.*"));
}

}  // namespace
