#include "host/ConfigurationStore.h"

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/variant/get.hpp>

#include "framework/CallbackSubscriber.h"
#include "host/Connector.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "tests/support/CountedMessage.h"

namespace connector {
namespace {

using configuration::ConfigValue;
using reactive_streams::Subscription;

// A subscriber that records the int values it receives and asks for values only when the test
// says so. Like any subscriber it holds its subscription weakly. onValue, if set before subscribing, runs
// inside onNext after the value is recorded.
class RecordingSubscriber : public reactive_streams::SubscriberAPI<ConfigValue> {
 public:
  std::function<void(int)> onValue;

  void onSubscribe(const std::shared_ptr<Subscription>& s) override {
    std::lock_guard<std::mutex> lock(mutex_);
    subscription_ = s;
  }
  void onNext(ConfigValue&& value) override {
    EXPECT_EQ(inCall_.fetch_add(1), 0) << "two values delivered at once";
    const int received = boost::get<int>(value);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      values_.push_back(received);
    }
    if (onValue) {
      onValue(received);
    }
    inCall_.fetch_sub(1);
  }
  void onComplete() override { ADD_FAILURE() << "a configuration stream never completes"; }
  void onError(std::exception_ptr) override { ADD_FAILURE() << "a configuration stream never fails"; }
  Future<bool> getFuture() override { return makeResolvedFuture(true); }

  void request(std::uint64_t count) { subscription()->request(count); }
  void cancel() { subscription()->cancel(); }
  std::vector<int> values() {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  std::shared_ptr<Subscription> subscription() {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscription_.lock();
  }
  std::mutex mutex_;
  std::weak_ptr<Subscription> subscription_;  // guarded by mutex_; the subscription owns us
  std::vector<int> values_;                   // guarded by mutex_
  std::atomic<int> inCall_{0};
};

std::shared_ptr<RecordingSubscriber> subscribe(host::ConfigurationStore& store, const std::string& key) {
  auto subscriber = std::make_shared<RecordingSubscriber>();
  store.observe(key)->subscribe(subscriber);
  return subscriber;
}

// Layering, as a provider meets it: an operator's value set before the provider starts is not
// replaced by the default the provider writes, and the newest label other than "default" wins.
TEST(ConfigurationStore, DefaultIsTheLowestLayerAndTheNewestOtherLabelWins) {
  host::ConfigurationStore store;
  EXPECT_TRUE(store.set("svc.enabled", false, "operator").get());
  EXPECT_FALSE(store.set("svc.enabled", true, "default").get());
  EXPECT_EQ(store.get("svc.enabled")->label, "operator");
  EXPECT_FALSE(boost::get<bool>(store.get("svc.enabled")->value));

  EXPECT_TRUE(store.set("svc.prefix", std::string("[d]"), "default").get());
  EXPECT_TRUE(store.set("svc.prefix", std::string("[a]"), "a").get());
  EXPECT_TRUE(store.set("svc.prefix", std::string("[b]"), "b").get());
  EXPECT_FALSE(store.set("svc.prefix", std::string("[d2]"), "default").get());
  EXPECT_EQ(boost::get<std::string>(store.get("svc.prefix")->value), "[b]");
  EXPECT_TRUE(store.set("svc.prefix", std::string("[a2]"), "a").get());
  EXPECT_EQ(store.get("svc.prefix")->label, "a");

  EXPECT_FALSE(store.get("never.set"));
  ASSERT_EQ(store.list().size(), 2u);
  EXPECT_EQ(store.list()[0].key, "svc.enabled");
  EXPECT_THROW(store.set("", 1, "default").get(), std::invalid_argument);
  EXPECT_THROW(store.set("k", 1, "").get(), std::invalid_argument);
}

// The same rule end to end: a logging provider started after an operator switched it off stays
// off, and follows the operator's later change at once.
TEST(ConfigurationStore, AnOperatorsValueSetBeforeAProviderStartsSurvivesItsDefault) {
  auto store = std::make_shared<host::ConfigurationStore>();
  store->set("svc.enabled", false, "operator");
  std::ostringstream lines;
  host::Connector connector;
  connector.addServiceProvider("echo", std::make_shared<common_services::EchoServiceProvider>());
  connector.addServiceProvider(
      "svc", std::make_shared<common_services::LoggingServiceProvider>(store, "svc", lines));
  connector.setRoute("echo", {"svc", "echo"});
  connector.send(std::make_unique<testing::CountedMessage>(), Address("echo")).get();
  EXPECT_EQ(lines.str(), "");
  store->set("svc.enabled", true, "operator");
  connector.send(std::make_unique<testing::CountedMessage>(), Address("echo")).get();
  EXPECT_NE(lines.str().find(": Request (0): connector::testing::CountedMessage"), std::string::npos)
      << lines.str();
}

TEST(ConfigurationStore, ASubscriptionGetsTheCurrentValueThenEveryChangeAndNothingElse) {
  host::ConfigurationStore store;
  store.set("k", 1, "default");
  auto subscriber = subscribe(store, "k");
  EXPECT_TRUE(subscriber->values().empty()) << "nothing before demand";
  subscriber->request(UINT64_MAX);
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1}));

  store.set("k", 2, "operator");
  store.set("k", 2, "other");    // same effective value: no delivery
  store.set("k", 9, "default");  // hidden under "other": no delivery
  store.set("k", 3, "other");
  store.set("elsewhere", 7, "default");
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1, 2, 3}));

  auto late = subscribe(store, "unset");
  late->request(UINT64_MAX);
  store.set("unset", 5, "default");
  EXPECT_EQ(late->values(), (std::vector<int>{5}));
}

TEST(ConfigurationStore, ValuesWaitInOrderUntilTheyAreRequested) {
  host::ConfigurationStore store;
  store.set("k", 1, "default");
  auto subscriber = subscribe(store, "k");
  subscriber->request(1);
  store.set("k", 2, "default");
  store.set("k", 3, "default");
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1}));
  subscriber->request(0);
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1}));
  subscriber->request(1);
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1, 2}));
  subscriber->request(5);
  store.set("k", 4, "default");
  EXPECT_EQ(subscriber->values(), (std::vector<int>{1, 2, 3, 4}));
}

TEST(ConfigurationStore, ACancelledSubscriberIsNeverCalledAgain) {
  host::ConfigurationStore store;
  auto outside = subscribe(store, "k");
  outside->request(UINT64_MAX);
  store.set("k", 1, "default");
  outside->cancel();

  // A subscriber may cancel from inside its own onNext without waiting for itself.
  auto inside = subscribe(store, "k");
  inside->onValue = [&inside](int value) {
    if (value == 2) {
      inside->cancel();
    }
  };
  inside->request(UINT64_MAX);
  store.set("k", 2, "default");
  store.set("k", 3, "default");
  EXPECT_EQ(outside->values(), (std::vector<int>{1}));
  EXPECT_EQ(inside->values(), (std::vector<int>{1, 2}));
}

TEST(ConfigurationStore, CancelReturnsOnlyAfterACallRunningOnAnotherThreadHasFinished) {
  host::ConfigurationStore store;
  auto subscriber = subscribe(store, "k");
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<bool> finished{false};
  subscriber->onValue = [&](int) {
    entered.set_value();
    released.wait();
    finished = true;
  };
  subscriber->request(UINT64_MAX);
  std::thread setter([&] { store.set("k", 1, "default"); });
  entered.get_future().wait();
  std::thread canceller([&] {
    subscriber->cancel();
    EXPECT_TRUE(finished.load());
  });
  release.set_value();
  canceller.join();
  setter.join();
}

TEST(ConfigurationStore, ASubscribersExceptionGoesToTheHandlerAndDeliveryGoesOn) {
  std::vector<std::string> failedKeys;
  host::ConfigurationStore store([&failedKeys](const std::string& key, std::exception_ptr error) {
    failedKeys.push_back(key);
    EXPECT_THROW(std::rethrow_exception(error), boost::bad_get);
  });
  std::vector<bool> seen;
  auto subscriber = reactive_streams::subscribeCallback<ConfigValue>(
      store.observe("svc.enabled"),
      [&seen](ConfigValue&& value) { seen.push_back(boost::get<bool>(value)); });
  EXPECT_TRUE(store.set("svc.enabled", 1, "operator").get());
  store.set("svc.enabled", false, "operator");
  EXPECT_EQ(failedKeys, (std::vector<std::string>{"svc.enabled"}));
  EXPECT_EQ(seen, (std::vector<bool>{false}));
  subscriber->cancel();
}

// Many setters, subscribers joining and leaving: each subscriber sees one value at a time, in
// the order of the changes, and ends on the effective value.
TEST(ConfigurationStore, ConcurrentSettersAndSubscribersSeeChangesInOrder) {
  host::ConfigurationStore store;
  store.set("k", 0, "default");
  auto steady = subscribe(store, "k");
  steady->request(UINT64_MAX);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 1; i <= 300; ++i) {
        store.set("k", t * 1000 + i, "thread" + std::to_string(t));
      }
    });
  }
  threads.emplace_back([&store] {
    for (int i = 0; i < 100; ++i) {
      auto passing = subscribe(store, "k");
      passing->request(UINT64_MAX);
      passing->cancel();
    }
  });
  for (auto& thread : threads) {
    thread.join();
  }
  const std::vector<int> values = steady->values();
  std::vector<int> lastOfThread(3, 0);
  for (std::size_t i = 1; i < values.size(); ++i) {
    const int t = values[i] / 1000;
    EXPECT_GT(values[i] % 1000, lastOfThread[t]) << "a thread's values arrived out of order";
    lastOfThread[t] = values[i] % 1000;
  }
  EXPECT_EQ(values.back(), boost::get<int>(store.get("k")->value));
}

}  // namespace
}  // namespace connector
