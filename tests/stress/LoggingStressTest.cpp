// The logging service provider under load: concurrent requests while its settings change, and
// providers destroyed while the configuration is still delivering values to them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/Configuration.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FakeConfiguration.h"
#include "tests/support/FakeContext.h"

namespace connector {
namespace {

using common_services::EchoServiceProvider;
using common_services::LoggingServiceProvider;
using configuration::ConfigValue;
using testing::CountedMessage;
using testing::FakeConfiguration;
using testing::FakeContext;
using testing::MessagePtr;
using testing::stressCount;

const char* const kTypeName = "connector::testing::CountedMessage";
const std::vector<std::string> kPrefixes = {"", "[svc] ", "P"};
const std::vector<std::string> kFilters = {"", "connector::testing::Count",
                                           "connector::testing::CountedMessage", "nothing"};

// A context that passes every request to an echo service.
std::shared_ptr<FakeContext> echoContext() {
  auto echo = std::make_shared<EchoServiceProvider>();
  return std::make_shared<FakeContext>(
      [echo](MessagePtr&& message) { return echo->deliver(std::move(message), Address("echo"), nullptr); });
}

// One line as the provider writes it: prefix, a timestamp in milliseconds, ": Request (N): TYPE"
// or ": Response (N): TYPE: elapsed time T ms". Anything else is a torn or mixed line.
struct ParsedLine {
  bool request = false;
  unsigned long number = 0;
};

bool isNumber(const std::string& text) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  std::strtod(text.c_str(), &end);
  return *end == '\0';
}

bool parseLine(const std::string& line, ParsedLine& parsed) {
  std::string rest;
  for (auto prefix = kPrefixes.rbegin(); prefix != kPrefixes.rend(); ++prefix) {
    if (line.compare(0, prefix->size(), *prefix) == 0 && !prefix->empty()) {
      rest = line.substr(prefix->size());
      break;
    }
  }
  if (rest.empty()) {
    rest = line;
  }
  const std::size_t colon = rest.find(": ");
  if (colon == std::string::npos || !isNumber(rest.substr(0, colon))) {
    return false;
  }
  rest = rest.substr(colon + 2);
  std::string tail;
  if (rest.rfind("Request (", 0) == 0) {
    parsed.request = true;
    rest = rest.substr(9);
  } else if (rest.rfind("Response (", 0) == 0) {
    parsed.request = false;
    rest = rest.substr(10);
  } else {
    return false;
  }
  const std::size_t close = rest.find("): ");
  if (close == std::string::npos || close == 0 || rest.find_first_not_of("0123456789") != close) {
    return false;
  }
  parsed.number = std::stoul(rest.substr(0, close));
  rest = rest.substr(close + 3);
  if (parsed.request) {
    return rest == kTypeName;
  }
  const std::string middle = std::string(kTypeName) + ": elapsed time ";
  if (rest.compare(0, middle.size(), middle) != 0 || rest.size() < middle.size() + 3 ||
      rest.compare(rest.size() - 3, 3, " ms") != 0) {
    return false;
  }
  return isNumber(rest.substr(middle.size(), rest.size() - middle.size() - 3));
}

// Four threads send requests through a logging provider in front of an echo service while a
// fifth flips enabled, filter and prefix. Every answer is the message that was sent, every
// message is deleted once, every line is whole, and the logged requests are numbered 0..K-1,
// each number in exactly one request line and exactly one response line.
TEST(LoggingServiceProviderUnderLoad, ConcurrentRequestsAndSettingChangesLoseNothing) {
  const int threads = 4;
  const int requestsPerThread = stressCount(50000);
  const int flips = stressCount(10000);
  const long messagesBefore = CountedMessage::alive();

  auto configuration = std::make_shared<FakeConfiguration>();
  std::ostringstream stream;
  std::vector<std::string> mismatches;
  std::mutex mismatchMutex;
  {
    auto provider = std::make_shared<LoggingServiceProvider>(configuration, "svc", stream);
    std::shared_ptr<FakeContext> context = echoContext();

    std::atomic<int> running{threads};
    std::thread flipper([&] {
      for (int i = 0; i < flips || running.load() > 0; ++i) {
        switch (i % 3) {
          case 0:
            configuration->send("svc.enabled", ConfigValue(i % 9 != 0));
            break;
          case 1:
            configuration->send("svc.filter", ConfigValue(kFilters[(i / 3) % kFilters.size()]));
            break;
          default:
            configuration->send("svc.prefix", ConfigValue(kPrefixes[(i / 3) % kPrefixes.size()]));
            break;
        }
        if (i >= flips) {
          std::this_thread::yield();  // keep flipping, gently, until the requests are done
        }
      }
    });
    auto send = [&](int self) {
      for (int i = 0; i < requestsPerThread; ++i) {
        auto message = std::make_unique<CountedMessage>(std::to_string(self) + "/" + std::to_string(i));
        const Message* sent = message.get();
        std::shared_ptr<Context> forContext = context;
        MessagePtr answer =
            provider->deliver(std::move(message), Address("svc"), std::move(forContext)).get();
        if (answer.get() != sent) {
          std::lock_guard<std::mutex> lock(mismatchMutex);
          mismatches.push_back("request " + std::to_string(self) + "/" + std::to_string(i) +
                               " was not answered with its own message");
        }
      }
      running.fetch_sub(1);
    };
    std::vector<std::thread> senders;
    for (int t = 1; t < threads; ++t) {
      senders.emplace_back(send, t);
    }
    send(0);
    for (std::thread& sender : senders) {
      sender.join();
    }
    flipper.join();
  }
  EXPECT_TRUE(mismatches.empty()) << mismatches.size() << " mismatches, the first: " << mismatches.front();
  EXPECT_EQ(CountedMessage::alive(), messagesBefore);

  std::map<unsigned long, std::pair<int, int>> seen;  // number -> (request lines, response lines)
  std::istringstream lines(stream.str());
  std::string line;
  int torn = 0;
  std::string firstTorn;
  while (std::getline(lines, line)) {
    ParsedLine parsed;
    if (!parseLine(line, parsed)) {
      if (torn++ == 0) {
        firstTorn = line;
      }
      continue;
    }
    auto& counts = seen[parsed.number];
    (parsed.request ? counts.first : counts.second) += 1;
  }
  EXPECT_EQ(torn, 0) << "first malformed line: \"" << firstTorn << "\"";
  ASSERT_FALSE(seen.empty()) << "nothing was logged";
  EXPECT_EQ(seen.rbegin()->first + 1, seen.size())
      << "the logged numbers are not exactly 0.." << seen.size() - 1;
  int unpaired = 0;
  for (const auto& [number, counts] : seen) {
    if (counts.first != 1 || counts.second != 1) {
      ADD_FAILURE() << "request number " << number << " has " << counts.first << " request lines and "
                    << counts.second << " response lines";
      if (++unpaired == 5) {
        break;
      }
    }
  }
  std::cout << "logged " << seen.size() << " of " << threads * requestsPerThread << " requests, " << flips
            << " setting changes\n";
}

// Providers come and go while the configuration's delivery thread keeps sending them values of
// every kind; destroying one mid-stream must leave no callback running on it and let no later
// value reach it (AddressSanitizer reports any that does).
TEST(LoggingServiceProviderUnderLoad, DestroyedMidStreamWhileValuesKeepArriving) {
  const int rounds = stressCount(1000);
  // A fresh configuration per round keeps each send short; the delivery thread always sends to
  // the newest one, and may still be inside a send to the previous one when its provider dies.
  std::mutex configurationMutex;
  std::shared_ptr<FakeConfiguration> configuration;  // guarded by configurationMutex
  std::atomic<bool> sending{true};
  std::atomic<long> sent{0};
  std::thread delivery([&] {
    const std::vector<std::pair<std::string, ConfigValue>> values = {
        {"svc.enabled", ConfigValue(false)},
        {"svc.filter", ConfigValue(std::string("x"))},
        {"svc.prefix", ConfigValue(std::string("p"))},
        {"svc.enabled", ConfigValue(1)},
        {"svc.enabled", ConfigValue(true)},
        {"svc.filter", ConfigValue(std::u16string(u"y"))},
        {"svc.filter", ConfigValue(std::string())},
        {"svc.prefix", ConfigValue(std::vector<std::string>{"z"})}};
    for (std::size_t i = 0; sending.load(); ++i) {
      std::shared_ptr<FakeConfiguration> target;
      {
        std::lock_guard<std::mutex> lock(configurationMutex);
        target = configuration;
      }
      if (target) {
        const auto& [key, value] = values[i % values.size()];
        try {
          target->send(key, value);
        } catch (const boost::bad_get&) {
          // a value of the wrong alternative is refused; the stream goes on
        }
      }
      sent.fetch_add(1);
    }
  });
  for (int round = 0; round < rounds; ++round) {
    auto fresh = std::make_shared<FakeConfiguration>();
    std::ostringstream stream;
    auto provider = std::make_shared<LoggingServiceProvider>(fresh, "svc", stream);
    {
      std::lock_guard<std::mutex> lock(configurationMutex);
      configuration = fresh;
    }
    // Destroy it only once values have been sent to it while it was alive.
    const long before = sent.load();
    while (sent.load() < before + 3) {
      std::this_thread::yield();
    }
    provider.reset();
    EXPECT_TRUE(stream.str().empty()) << "a configuration value made the provider write";
  }
  sending.store(false);
  delivery.join();
}

}  // namespace
}  // namespace connector
