// Four threads send requests through an access log and a statistics provider while a fifth flips
// the access log's settings and takes snapshots: the statistics add up exactly, snapshots never go
// back, and every message is deleted once. Two of the senders share the statistics' last stripe.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "services/AccessLogServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using namespace test_support;
using namespace std::string_literals;

TEST(ObservabilityStress, CountsAddUpWhileSettingsFlip) {
  constexpr int kThreads = 4;
  const int requests = stressCount(20000);
  const long aliveBefore = CountedMessage::alive();
  TempDirectory directory;
  auto configuration = std::make_shared<FakeConfiguration>();
  auto administration = std::make_shared<FakeAdministration>();
  common_services::AccessLogServiceProvider access(configuration, "access");
  configuration->send("access.destination", "file:" + (directory / "access.log"));
  common_services::StatisticsServiceProvider metrics(administration, "metrics");

  // Request i of a thread: every third fails, every fifth is answered only after deliver()
  // returns, by the thread itself.
  const auto run = [&] {
    for (int i = 0; i < requests; ++i) {
      Promise<MessagePtr> later;
      const auto failure = std::make_exception_ptr(std::runtime_error("refused"));
      auto downstream = std::make_shared<FakeContext>([&](MessagePtr&& message) {
        return i % 5 == 0   ? later.getFuture()
               : i % 3 == 0 ? makeRejectedFuture<MessagePtr>(failure)
                            : makeResolvedFuture(std::move(message));
      });
      auto upstream = std::make_shared<FakeContext>([&](MessagePtr&& message) {
        return metrics.deliver(std::move(message), Address("api"), downstream);
      });
      Future<MessagePtr> answer =
          access.deliver(std::make_unique<CountedMessage>(), Address("api"), upstream);
      i % 5 != 0   ? void()
      : i % 3 == 0 ? later.reject(failure)
                   : later.resolve(std::make_unique<CountedMessage>());
      try {
        answer.get();
      } catch (const std::runtime_error&) {
      }
    }
  };
  constexpr int kEarlierThreads = 62;  // take the first stripes, so senders 3 and 4 share one
  for (int i = 0; i < kEarlierThreads; ++i) {
    std::thread([&] {
      metrics.deliver(
          std::make_unique<CountedMessage>(), Address("api"),
          std::make_shared<FakeContext>([](MessagePtr&& m) { return makeResolvedFuture(std::move(m)); }));
    }).join();
  }
  std::atomic<bool> done{false};
  std::thread flipper([&] {
    std::uint64_t seen = 0;
    for (int round = 0; !done.load(); ++round) {
      const std::uint64_t count = metrics.snapshot().at(0).latency.count;
      EXPECT_GE(count, seen);
      seen = count;
      configuration->send("access.errorsOnly", round % 2 == 0);
      configuration->send("access.format", round % 3 == 0 ? "json"s : "text"s);
      configuration->send("access.sampleEvery", 1 + round % 4);
      configuration->send("access.exclude", round % 2 == 0 ? "connector::test"s : ""s);
      configuration->send("access.slowerThanUs", round % 5);
    }
  });
  std::vector<std::thread> senders(kThreads);
  for (std::thread& sender : senders) {
    sender = std::thread(run);
  }
  for (std::thread& sender : senders) {
    sender.join();
  }
  done.store(true);
  flipper.join();

  // One type, every request counted once, every third failed, none left in flight.
  const std::string counts = " count=" + std::to_string(kThreads * requests + kEarlierThreads) +
                             " failed=" + std::to_string(kThreads * ((requests + 2) / 3)) + " inflight=0 ";
  EXPECT_NE(administration->run("metrics.statistics").find(counts), std::string::npos) << counts;
  EXPECT_EQ(administration->run("metrics.inflight"), "");
  const auto figures = metrics.snapshot().at(0);
  EXPECT_EQ(figures.succeeded + figures.failed, std::uint64_t(kThreads * requests + kEarlierThreads));
  EXPECT_EQ(access.failedWrites(), 0u);
  EXPECT_EQ(CountedMessage::alive(), aliveBefore);
}

}  // namespace
}  // namespace connector
