// Many threads and many repeats, judged by the sanitizers as much as by the tests' own checks:
// promise/future hand-offs and the logging service provider under load.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "framework/Future.h"
#include "services/LoggingServiceProvider.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace connector {
namespace {

using test_support::CountedMessage;
using test_support::FakeConfiguration;
using test_support::MessagePtr;
using test_support::stressCount;
using namespace std::string_literals;

// ---- Promise/future hand-offs

// Takes the future and checks what its get() gives: "message TEXT", or the text of what it throws.
// The future goes the moment get() returns. Reports the first mismatch, from any thread.
void expectOutcome(std::atomic<int>& mismatches, const std::string& expected, Future<MessagePtr>&& future) {
  std::string actual;
  try {
    actual = "message " + static_cast<CountedMessage&>(*Future<MessagePtr>(std::move(future)).get()).text();
  } catch (const std::runtime_error& e) {
    actual = e.what();
  }
  if (actual != expected && mismatches.fetch_add(1) == 0) {
    ADD_FAILURE() << "expected \"" << expected << "\", got \"" << actual << "\"";
  }
}

enum Settle { kResolve, kReject, kBreak, kCancel };

// Waits until a get() on the promise's state waits, then settles the state as `how` says and lets
// go of the promise at once. get() marks the value claimed and waits without letting go of the
// mutex in between, so a mark seen under the mutex means the consumer is inside the wait.
void produce(Promise<MessagePtr> promise, Settle how, int number) {
  for (auto& state = *promise.state;; std::this_thread::yield()) {  // the lock goes before each yield
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.valueRetrieved) {
      break;
    }
  }
  if (how == kResolve) {
    promise.resolve(std::make_unique<CountedMessage>(std::to_string(number)));
  } else if (how == kReject) {
    // Made in a statement of its own: libstdc++'s runtime_error shares its text with the
    // temporary it is copied from, and that sharing must end before another thread sees it.
    std::exception_ptr error = std::make_exception_ptr(std::runtime_error("round " + std::to_string(number)));
    promise.reject(std::move(error));
  } else if (how == kCancel) {
    Future<MessagePtr>(promise.state).cancel();  // a second handle, as a canceller would hold one
  }
}  // an unsettled promise breaks here

// Two threads take turns: in each round one blocks in get() and the other, once it is blocked,
// resolves, rejects, breaks or cancels. The consumer drops its future the moment get() returns and
// the producer its promise the moment it has settled, so the state dies on whichever thread is
// last, possibly while the other is still inside its notify. Every outcome arrives whole, and
// every message sent is deleted once.
TEST(PromiseFutureHandoff, EveryOutcomeReachesABlockedGetWhicheverSideLetsGoFirst) {
  const int rounds = 2 * stressCount(100000);  // round trips each way
  const int batch = 5000;
  const long messagesBefore = CountedMessage::alive();
  std::atomic<int> mismatches{0};
  for (int first = 0; first < rounds; first += batch) {
    std::vector<Promise<MessagePtr>> promises(std::min(batch, rounds - first));
    std::vector<Future<MessagePtr>> futures;
    for (Promise<MessagePtr>& promise : promises) {
      futures.push_back(promise.getFuture());
    }
    const auto play = [&](int self) {
      for (int number = first; number < first + static_cast<int>(promises.size()); ++number) {
        const auto how = static_cast<Settle>(number / 2 % 4);  // each kind consumed on both threads
        const std::string expected[] = {
            "message " + std::to_string(number), "round " + std::to_string(number),
            "Promise destroyed before it provided a value.", "Future has been cancelled."};
        number % 2 != self ? produce(std::move(promises[number - first]), how, number)
                           : expectOutcome(mismatches, expected[how], std::move(futures[number - first]));
      }
    };
    std::thread other(play, 1);
    play(0);
    other.join();
  }
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);
}

// ---- The logging service provider under load

// Checks a logging provider's output for `requests` requests: every line is
// [PREFIX]TIME: Request (N): TYPE, or the same with Response and ": elapsed time T ms" after the
// type (anything else is a torn or mixed line), and the logged requests are numbered 0..K-1, each
// number in exactly one request line and exactly one response line. Returns K.
long loggedRequests(const std::string& log, std::size_t requests) {
  std::vector<std::array<int, 2>> lines(requests);  // per number: requests, responses
  std::istringstream text(log);
  for (std::string line; std::getline(text, line);) {
    const std::size_t start = line.rfind("[svc] ", 0) == 0 ? 6 : 0;
    char kind[9] = "";
    unsigned long number = 0;
    int type = 0, end = 0;  // where the type name ends, where the elapsed time ends
    double time = 0;
    std::sscanf(line.c_str() + start,
                "%lf: %8[a-zA-Z] (%lu): connector::test_support::CountedMessage%n: elapsed time %lf ms%n",
                &time, kind, &number, &type, &time, &end);
    const int length = kind == "Response"s ? end : kind == "Request"s && end == 0 ? type : 0;
    EXPECT_TRUE(length != 0 && start + length == line.size() && number < requests)
        << "a malformed line: " << line;
    ++lines.at(number)[kind == "Response"s];
  }
  const auto logged = std::find(lines.begin(), lines.end(), std::array<int, 2>{0, 0}) - lines.begin();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), std::array<int, 2>{1, 1}), logged);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), std::array<int, 2>{0, 0}), lines.size() - logged);
  return logged;
}

// Round after round, four threads send requests through a fresh logging provider in front of an
// echo service while the configuration's delivery thread flips its enabled, filter and prefix;
// then the provider is destroyed while that thread keeps sending to it (and may be inside a send
// when it dies: AddressSanitizer reports any callback or value that reaches it afterwards). Every
// answer is the message that was sent, every message is deleted once, every line is whole, and
// each round's logged requests are numbered 0..K-1, each number in exactly one request line and
// exactly one response line.
TEST(LoggingServiceProviderUnderLoad, RequestsSettingChangesAndTeardownLoseNothing) {
  const int threads = 4, requestsPerThread = 100;
  const long messagesBefore = CountedMessage::alive();
  const char* const keys[] = {"svc.enabled", "svc.filter", "svc.prefix"};
  const std::vector<configuration::ConfigValue> values[] = {
      {false, true, true},
      {""s, "connector::test_support::Count"s, "connector::test_support::CountedMessage"s, "nothing"s},
      {""s, "[svc] "s}};
  auto configuration = std::make_shared<FakeConfiguration>();  // std::atomic_load and _store only
  std::atomic<bool> flipping{true};
  std::atomic<long> sent{0};
  std::thread flipper([&] {
    for (int i = 0; flipping.load(); ++i, sent.fetch_add(1)) {
      std::atomic_load(&configuration)->send(keys[i % 3], values[i % 3][i / 3 % values[i % 3].size()]);
    }
  });
  std::atomic<int> wrongAnswers{0};
  long logged = 0;
  for (int round = 0; round < stressCount(500) && !HasFailure(); ++round) {
    auto fresh = std::make_shared<FakeConfiguration>();
    std::ostringstream stream;
    auto provider = std::make_unique<common_services::LoggingServiceProvider>(fresh, "svc", stream);
    std::atomic_store(&configuration, fresh);
    auto context = std::make_shared<test_support::FakeContext>(test_support::echoing());
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
      senders.emplace_back([&] {
        for (int i = 0; i < requestsPerThread; ++i) {
          auto message = std::make_unique<CountedMessage>();
          const Message* original = message.get();
          wrongAnswers +=
              provider->deliver(std::move(message), Address("svc"), context).get().get() != original;
        }
      });
    }
    for (std::thread& sender : senders) {
      sender.join();
    }
    for (const long before = sent.load(); sent.load() < before + 3;) {
      std::this_thread::yield();
    }
    provider.reset();
    logged += loggedRequests(stream.str(), threads * requestsPerThread);
  }
  flipping.store(false);
  flipper.join();
  EXPECT_GT(logged, 0) << "nothing was logged";
  EXPECT_EQ(wrongAnswers.load(), 0) << "requests not answered with their own message";
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);
}

}  // namespace
}  // namespace connector
