// The reference host's pieces: the connector, the configuration store, the command registry with
// its audit trail, and the administration endpoint that serves the registry on a Unix socket.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/variant/get.hpp>

#include "foundation/log/Log.h"
#include "foundation/log/TestDestination.h"
#include "host/AdminProtocol.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "host/ConfigurationStore.h"
#include "host/Connector.h"
#include "services/EchoServiceProvider.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using common_services::EchoServiceProvider;
using configuration::ConfigValue;
using host::AdminServer;
using host::admin::Response;
using host::admin::Status;
using test_support::AdminPeer;
using test_support::CountedMessage;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using Arguments = std::vector<std::string>;
namespace flog = foundation::log;
using Journal = std::vector<std::string>;  // written by one thread at a time

// ---- Connector ----

// Writes "start NAME", "stop NAME" and, per delivery, "NAME <- ADDRESS" to its journal; then
// forwards the message, or throws std::range_error("NAME refuses") when told to.
struct JournalProvider : ServiceProvider {
  JournalProvider(std::string name, std::shared_ptr<Journal> journal, bool throws = false)
      : name_(std::move(name)), journal_(std::move(journal)), throws_(throws) {}

  void start() override { journal_->push_back("start " + name_); }
  void stop() override { journal_->push_back("stop " + name_); }
  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override {
    journal_->push_back(name_ + " <- " + address.name());
    if (throws_) {
      throw std::range_error(name_ + " refuses");
    }
    return context->forward(std::move(message), std::move(address));
  }
  const std::string name_;
  const std::shared_ptr<Journal> journal_;
  const bool throws_;
};

// The text of the std::runtime_error a send to `address` is rejected with, or "delivered"; an
// exception from send() itself fails the test.
std::string rejection(host::Connector& connector, const std::string& address) {
  Future<std::unique_ptr<Message>> answer =
      connector.send(std::make_unique<CountedMessage>(), Address(address));
  try {
    answer.get();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "delivered";
}

// Providers are started when added and stopped once: when removed, or newest first when the
// connector goes. A message visits its chain in order and the last answer comes back. send() and
// forward() never throw: a missing route or link, or a provider's own exception, comes back as a
// rejected answer naming what is missing.
TEST(Connector, ProvidersLiveFromAddToRemoveAndEveryFailedDeliveryIsARejectedAnswer) {
  auto journal = std::make_shared<Journal>();
  {
    host::Connector connector;
    for (const char* name : {"a", "b", "c"}) {
      connector.addServiceProvider(name, std::make_shared<JournalProvider>(name, journal));
    }
    connector.addServiceProvider("echo", std::make_shared<EchoServiceProvider>());
    connector.addServiceProvider("strict", std::make_shared<JournalProvider>("strict", journal, true));
    EXPECT_THROW(connector.addServiceProvider("b", std::make_shared<JournalProvider>("b2", journal)),
                 std::invalid_argument);
    connector.setRoute("orders", {"c", "a", "echo"});
    connector.setRoute("end", {"a"});
    connector.setRoute("strict", {"strict"});
    auto message = std::make_unique<CountedMessage>("apples");
    Message* const sent = message.get();
    EXPECT_EQ(connector.send(std::move(message), Address("orders")).get().get(), sent);
    connector.removeServiceProvider("b");
    EXPECT_THROW(connector.removeServiceProvider("b"), std::invalid_argument);
    EXPECT_THAT(rejection(connector, "end"), HasSubstr("there is no service provider to forward to"));
    EXPECT_EQ(rejection(connector, "strict"), "strict refuses");
  }
  EXPECT_EQ(*journal, (Journal{"start a", "start b", "start c", "start strict", "c <- orders", "a <- orders",
                               "stop b", "a <- end", "strict <- strict", "stop strict", "stop c", "stop a"}));
}

// A delivery racing with its provider's removal either passes through it or is told that it is
// not added; nothing else, and no data race (the sanitizers judge).
TEST(Connector, DeliveriesAndNamesAreSafeWhileProvidersComeAndGo) {
  host::Connector connector;
  connector.addServiceProvider("echo", std::make_shared<EchoServiceProvider>());
  connector.setRoute("x", {"passing"});
  std::thread churn([&connector] {
    for (int i = 0; i < 300; ++i) {
      connector.addServiceProvider("passing", std::make_shared<EchoServiceProvider>());
      connector.removeServiceProvider("passing");
    }
  });
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(connector.getServiceProviderNames().count("echo"), 1u);
    EXPECT_THAT(rejection(connector, "x"), AnyOf("delivered", HasSubstr("\"passing\", which is not added")));
  }
  churn.join();
}

// ---- Configuration store ----

// Records the int values it receives and requests only what the test asks for.
class RecordingSubscriber : public reactive_streams::SubscriberAPI<ConfigValue> {
 public:
  std::vector<int> values;  // read by the test only while no delivery runs
  int cancelAt = -1;        // onNext cancels the subscription once it has recorded this value
  int refused = -1;         // onNext throws for this value

  void onSubscribe(const std::shared_ptr<reactive_streams::Subscription>& s) override { subscription_ = s; }
  void onNext(ConfigValue&& value) override {
    if (boost::get<int>(value) == refused) {
      throw std::range_error("takes 1 or more");
    }
    values.push_back(boost::get<int>(value));
    if (values.back() == cancelAt) {
      cancel();
    }
  }
  void onComplete() override { ADD_FAILURE() << "a configuration stream never completes"; }
  void onError(std::exception_ptr) override { ADD_FAILURE() << "a configuration stream never fails"; }
  Future<bool> getFuture() override { return makeResolvedFuture(true); }

  void request(std::uint64_t count) { subscription_.lock()->request(count); }
  void cancel() { subscription_.lock()->cancel(); }

 private:
  std::weak_ptr<reactive_streams::Subscription> subscription_;  // set by subscribe(), before any value
};

std::shared_ptr<RecordingSubscriber> subscribe(host::ConfigurationStore& store, const std::string& key,
                                               std::uint64_t demand) {
  auto subscriber = std::make_shared<RecordingSubscriber>();
  store.observe(key)->subscribe(subscriber);
  subscriber->request(demand);
  return subscriber;
}

// "default" is the lowest layer, so an operator's value set before a provider writes its default
// stays in force; among the other labels the one set most recently wins. A key keeps the
// alternative of its first value, whatever the label (checked with the subscriptions). A text is stored as a
// std::string however it is given, not as the bool that the variant prefers for a pointer; a literal 0 stays
// an int.
TEST(ConfigurationStore, LayersByLabelAndOneTypePerKey) {
  host::ConfigurationStore store;
  store.set("y", 2, "operator");
  EXPECT_FALSE(store.set("y", 3, "default").get());
  EXPECT_TRUE(store.set("y", 4, "a").get());
  EXPECT_EQ(store.get("y")->label, "a");
  EXPECT_THROW(store.set("", 1, "default").get(), std::invalid_argument);
  EXPECT_THROW(store.set("k", 1, "").get(), std::invalid_argument);
  static_cast<configuration::Configuration&>(store).set("literal", "app::Ping", "operator");
  store.set("zero", 0, "operator");
  const char* none = nullptr;
  EXPECT_THROW(store.set("none", none, "operator").get(), std::invalid_argument);
  EXPECT_EQ(boost::get<std::string>(store.get("literal")->value), "app::Ping");
  EXPECT_EQ(boost::get<int>(store.get("zero")->value), 0);
}

// A value that a subscriber refuses is taken back: the store holds what it held, the subscribers
// that took it get the value in force again, and the answer says why.
TEST(ConfigurationStore, AValueASubscriberRefusesIsNotKept) {
  host::ConfigurationStore store;
  store.set("k", 1, "default");
  auto taker = subscribe(store, "k", 10);
  auto refuser = subscribe(store, "k", 10);
  refuser->refused = 0;
  EXPECT_THAT([&] { store.set("k", 0, "operator").get(); },
              ::testing::ThrowsMessage<std::invalid_argument>(
                  "k = 0 was refused by a subscriber and not kept: takes 1 or more"));
  EXPECT_EQ(store.get("k")->label, "default");
  EXPECT_EQ(taker->values, (std::vector<int>{1, 0, 1}));
  EXPECT_TRUE(store.set("k", 2, "default").get());
}

// The current value first, then each change of the effective value in order, and a value set
// again under a label other than "default", each only when requested (request(0) asks for
// nothing); a refused value is not delivered; after cancel(), from outside or from inside onNext,
// nothing more.
TEST(ConfigurationStore, ASubscriptionGetsTheCurrentValueThenEachChangeAsRequestedUntilCancelled) {
  host::ConfigurationStore store;
  store.set("k", 1, "default");
  auto subscriber = subscribe(store, "k", 0);
  EXPECT_TRUE(subscriber->values.empty()) << "nothing before demand";
  subscriber->request(1);
  store.set("k", 2, "operator");
  store.set("k", 2, "other");    // set again: delivered again
  store.set("k", 9, "default");  // hidden under "other": nothing to deliver
  EXPECT_THROW(store.set("k", std::string("2"), "other").get(), std::invalid_argument);
  store.set("k", 3, "other");
  store.set("elsewhere", 7, "default");
  EXPECT_EQ(subscriber->values, (std::vector<int>{1}));
  subscriber->request(1);
  EXPECT_EQ(subscriber->values, (std::vector<int>{1, 2}));
  subscriber->request(UINT64_MAX);
  store.set("k", 4, "other");
  EXPECT_EQ(subscriber->values, (std::vector<int>{1, 2, 2, 3, 4}));

  auto inside = subscribe(store, "k", UINT64_MAX);
  inside->cancelAt = 5;
  store.set("k", 5, "other");
  subscriber->cancel();
  store.set("k", 6, "other");
  EXPECT_EQ(subscriber->values, (std::vector<int>{1, 2, 2, 3, 4, 5}));
  EXPECT_EQ(inside->values, (std::vector<int>{4, 5}));
}

// Setters on several threads while subscribers come and go: a subscriber that stays sees each
// thread's values in that thread's order and ends on the effective value.
TEST(ConfigurationStore, ConcurrentSettersAndSubscribersSeeEachThreadsChangesInOrder) {
  host::ConfigurationStore store;
  auto steady = subscribe(store, "k", UINT64_MAX);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&store, t] {
      for (int i = 1; i <= 999; ++i) {
        store.set("k", t * 1000 + i, "thread" + std::to_string(t));
        subscribe(store, "k", UINT64_MAX)->cancel();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<int> last(3, 0);
  for (int value : steady->values) {
    EXPECT_GT(value % 1000, last[value / 1000]) << "a thread's values arrived out of order";
    last[value / 1000] = value % 1000;
  }
  EXPECT_EQ(steady->values.back(), boost::get<int>(store.get("k")->value));
}

// ---- Command registry ----

// A command "Does NAME." whose handler answers how many arguments it was given.
administration::Command command(
    const std::string& name, std::uint8_t min = 0, std::uint8_t max = 0,
    administration::CommandHandler handler = [](Arguments&& a) { return std::to_string(a.size()); }) {
  return administration::Command{name, "Does " + name + ".", std::move(handler), min, max};
}

// What execute() answered, with "error: " before the text of a failed result.
std::string outcome(const host::CommandRegistry& registry, const std::string& name,
                    std::size_t arguments = 0) {
  const host::CommandRegistry::Result result = registry.execute(name, Arguments(arguments, "x"));
  return (result.succeeded ? "" : "error: ") + result.text;
}

// A duplicate, "help" included, is refused with false and the first command stays; a malformed
// record is rejected; "help" cannot be withdrawn. A count within the bounds (both included)
// reaches the handler, and a maximum of 255 sets no upper limit. "help" lists every command once,
// by name, with its description and bounds; "help NAME" the one command. A handler's exception,
// even one that is not a std::exception, comes back as an error text naming the command; an
// unknown name is shortened and its control bytes and quotes escaped.
TEST(CommandRegistry, RegistrationKeepsTheFirstCommandOfANameAndEveryFailureIsAnErrorText) {
  host::CommandRegistry registry;
  EXPECT_TRUE(registry.registerCommand(command("connector.b", 1, 1)).get());
  EXPECT_FALSE(registry.registerCommand(command("connector.b", 0, 0)).get());
  EXPECT_FALSE(registry.registerCommand(command("help")).get());
  EXPECT_THROW(registry.registerCommand(command("")).get(), std::invalid_argument);
  EXPECT_THROW(registry.registerCommand(command("x", 0, 0, nullptr)).get(), std::invalid_argument);
  EXPECT_THROW(registry.registerCommand(command("x", 2, 1)).get(), std::invalid_argument);
  EXPECT_FALSE(registry.unregisterCommand("help").get());
  registry.registerCommand(command("connector.alpha", 1, 255));
  registry.registerCommand(command("gone"));
  EXPECT_TRUE(registry.unregisterCommand("gone").get());
  EXPECT_FALSE(registry.unregisterCommand("gone").get());
  EXPECT_EQ(outcome(registry, "connector.b", 1), "1");
  EXPECT_EQ(outcome(registry, "connector.alpha", 300), "300");
  EXPECT_EQ(outcome(registry, "connector.alpha"),
            "error: command \"connector.alpha\" takes at least 1 argument, but was given 0");
  EXPECT_EQ(outcome(registry, "help"),
            "connector.alpha  Does connector.alpha. (at least 1 argument)\n"
            "connector.b      Does connector.b. (1 argument)\n"
            "help             List every command, or describe the one named. (0 to 1 arguments)\n");
  EXPECT_EQ(registry.execute("help", {"connector.b"}).text, "connector.b  Does connector.b. (1 argument)\n");
  registry.registerCommand(command("odd", 0, 0, [](Arguments&&) -> std::string { throw 42; }));
  EXPECT_EQ(outcome(registry, "odd"),
            "error: command \"odd\" failed with an exception that is not a std::exception");
  EXPECT_EQ(outcome(registry, std::string(20000, 'n') + "\x1b[2J"),
            "error: unknown command \"" + std::string(60, 'n') +
                "...\" (20004 bytes); \"help\" lists the commands");
  EXPECT_EQ(outcome(registry, "\x1b[2J\"é"),
            "error: unknown command \"\\x1b[2J\\\"é\"; \"help\" lists the commands");
}

// A command's record reaches the destination in force when it arrived: one that moves the
// destination or silences the audit channel is recorded where the audit was going, and one run
// while the audit channel is silenced is not.
TEST(CommandRegistry, ACommandIsAuditedWhereTheAuditWentWhenItArrived) {
  test_support::TempDirectory dir;
  host::CommandRegistry registry;
  registry.registerCommand(command("apply", 2, 2, [](Arguments&& a) {
    flog::set_destination(a[0]);
    flog::set_specification(a[1]);
    return std::string();
  }));
  flog::set_destination("file:" + (dir / "a.log"));
  registry.execute("apply", {"file:" + (dir / "b.log"), "info,connector.audit=off"});
  registry.execute("apply", {"null", "info"});
  EXPECT_THAT(test_support::TempDirectory::lines(dir / "a.log"),
              ::testing::ElementsAre(HasSubstr("connector.audit=off")));
  EXPECT_EQ(test_support::TempDirectory::read(dir / "b.log"), "");
}

// Behind async:, a stalled destination holds no writer: another thread keeps logging, and
// commands run until the audit lane is full, then are refused without running.
TEST(CommandRegistry, AStalledDestinationHoldsNoWriterAndAFullAuditLaneRefusesCommands) {
  std::promise<void> release;
  flog::testing::define_test_destination(
      "host.stall", [stalled = release.get_future().share()](std::string_view) { stalled.wait(); });
  flog::set_destination("async:test:host.stall");
  host::CommandRegistry registry;
  std::atomic<int> ran{0}, logged{0};
  registry.registerCommand(command("count", 0, 0, [&ran](Arguments&&) { return std::to_string(++ran); }));
  std::thread other([&logged] {
    for (const flog::channel channel("host.other"); logged < 100'000; ++logged)
      channel.info("x");
  });
  host::CommandRegistry::Result result{true, ""};
  for (int i = 0; i < 1000 && result.succeeded; ++i)
    result = registry.execute("count", {});
  other.join();  // progress, not timing: it logged all of its records
  EXPECT_EQ(ran, 256);
  EXPECT_THAT(result.text, HasSubstr("command \"count\" is refused: its audit record cannot be written"));
  release.set_value();
  flog::set_destination("null");
}

// ---- Administration endpoint: the server, seen from a raw socket ----

Response ok(const std::string& text) {
  return {Status::ok, text};
}

// A registry with a command that answers its argument ("~" for a line feed) and one that blocks
// until released.
struct Fixture {
  test_support::TempDirectory directory;
  std::string path = directory / "s";
  std::shared_ptr<host::CommandRegistry> registry = std::make_shared<host::CommandRegistry>();
  std::promise<void> entered;  // set when test.block starts
  std::promise<void> release;  // test.block returns when this is set
  std::shared_future<void> released = release.get_future().share();

  Fixture() {
    registry->registerCommand({"test.text", "Answers its argument, ~ as a line feed.",
                               [](Arguments&& a) {
                                 std::replace(a[0].begin(), a[0].end(), '~', '\n');
                                 return a[0];
                               },
                               1, 1});
    // Holds its own copy of `released`: a command that outlives a stop may outlive the fixture.
    registry->registerCommand({"test.block", "Waits until the test releases it.",
                               [this, released = released](std::vector<std::string>&&) {
                                 entered.set_value();
                                 released.wait();
                                 return std::string("released");
                               },
                               0, 0});
  }
};

// Pipelined requests are answered one each, in order, with every text exact; a request that
// cannot run (NUL, not UTF-8, an overlong form included) fails alone, and a client cannot send
// a word holding a line feed. A client that
// half-closes after sending still gets every answer; a request cut short by the end is dropped.
// A line of exactly the limit is a request; one byte more is answered and the connection closed.
TEST(AdminServer, AnswersPipelinedRequestsInOrderAndExactlyUpToTheLineLimit) {
  Fixture f;
  foundation::log::set_destination("file:" + (f.directory / "admin.log"));
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  const std::string longest = "test.text " + std::string(host::admin::kMaxRequestLine - 10, 'x');
  const char requests[] =
      "test.text a~b~\ntest.text \"ok 3~abc~\"\ntest.text a\0b\ntest.text \xc0\x80\ntest.text \xc3\xa9~\r\n";
  peer.send(std::string(requests, sizeof requests - 1) + longest + "\ntest.text cut-sh");
  peer.finishSending();
  for (const Response& want :
       {ok("a\nb\n"), ok("ok 3\nabc\n"), Response{Status::error, "byte 12 is NUL; requests are text"},
        Response{Status::error, "byte 11 (0xc0) is not valid UTF-8"}, ok("\xc3\xa9\n"),
        ok(std::string(host::admin::kMaxRequestLine - 10, 'x'))}) {
    EXPECT_EQ(peer.next(), want);
  }
  EXPECT_EQ(peer.next(), std::nullopt);
  AdminPeer greedy(f.path);
  greedy.send(longest + "x");
  EXPECT_EQ(greedy.next(), (Response{Status::closed,
                                     "the request line is longer than 65536 bytes; send at most "
                                     "that much before each line feed"}));
  EXPECT_EQ(greedy.next(), std::nullopt);
  EXPECT_THROW(host::admin::formatRequest({"cmd", "line\nfeed"}), std::invalid_argument);
  // Each refusal is counted by its reason; the second of a reason within 10 s is not logged.
  EXPECT_EQ(server.refusals().notText, 2u);
  EXPECT_EQ(server.refusals().lineTooLong, 1u);
  foundation::log::set_destination("null");
  const std::string log = test_support::TempDirectory::read(f.directory / "admin.log");
  EXPECT_THAT(log, HasSubstr("[warn] refused a request from uid="));
  EXPECT_THAT(log, Not(HasSubstr("0xc0")));
}

// The connection beyond the 32 served at once is told so and closed.
TEST(AdminServer, ConnectionBeyondTheLimitIsToldAndClosed) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  std::vector<std::unique_ptr<AdminPeer>> peers;
  for (int i = 0; i < 32; ++i) {
    peers.push_back(std::make_unique<AdminPeer>(f.path));
    EXPECT_EQ(peers.back()->call("test.text x"), ok("x"));
  }
  AdminPeer extra(f.path);
  EXPECT_EQ(extra.next(), (Response{Status::closed,
                                    "too many connections: the server takes 32 at once; try "
                                    "again when one has closed"}));
  EXPECT_EQ(extra.next(), std::nullopt);
  EXPECT_EQ(server.refusals().tooManyConnections, 1u);
}

// A connection runs its requests one at a time: a command that has not returned holds up the
// requests after it, and no other connection. A connection with nothing to do is closed after the
// idle time, with a reason; one whose command is still running is not idle. Stopping removes the
// socket at once but lets a running command answer before its connection closes.
TEST(AdminServer, ARunningCommandHoldsUpOnlyItsConnectionIsNotIdleAndIsAnsweredOnStop) {
  Fixture f;
  AdminServer::Options options;
  options.idleTimeout = std::chrono::milliseconds(20);
  AdminServer server(f.registry, f.path, options);
  AdminPeer busy(f.path);
  busy.send("test.block\ntest.text after\n");
  f.entered.get_future().wait();
  AdminPeer idle(f.path);
  EXPECT_EQ(idle.call("test.text x"), ok("x"));
  EXPECT_EQ(idle.next(),
            (Response{Status::closed, "the connection was idle for 20 ms; connect again to go on"}));
  EXPECT_EQ(idle.next(), std::nullopt);
  std::thread stopping([&] { server.stop(); });
  while (std::filesystem::exists(f.path)) {
    std::this_thread::yield();
  }
  f.release.set_value();
  stopping.join();
  EXPECT_EQ(busy.next(), ok("released"));
  EXPECT_EQ(busy.next(), std::nullopt);
}

// A client that never completes a line loses its slot after the idle time, however often it
// sends a byte.
TEST(AdminServer, OnlyACompleteRequestKeepsAConnectionFromIdling) {
  Fixture f;
  AdminServer server(f.registry, f.path, {32, std::chrono::milliseconds(100)});
  AdminPeer dribbler(f.path);
  std::atomic<int> sent{0};
  std::thread sending([&] {
    for (; sent < 200; ++sent) {  // 4 s of one byte every 20 ms, unless closed
      dribbler.send("x");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  EXPECT_EQ(dribbler.next()->status, Status::closed);
  EXPECT_LT(sent.exchange(200), 200);
  sending.join();
}

// The whole stop, a stuck command included, takes one grace period, not one per stage.
TEST(AdminServer, StopWithAStuckCommandEndsWithinOneGracePeriod) {
  Fixture f;
  AdminServer server(f.registry, f.path, {32, std::chrono::minutes(5), std::chrono::seconds(1)});
  AdminPeer stuck(f.path);
  stuck.send("test.block\n");
  f.entered.get_future().wait();
  const auto start = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1800));
  f.release.set_value();
}

// Neither threads that cannot be made nor a command whose run throws ends the process: the first
// is an exception from the constructor, the second an "error" answer, and the server goes on.
TEST(AdminServer, ThreadsThatCannotBeMadeAndAThrowingRunAreErrorsNotTheEnd) {
  Fixture f;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // a sanitizer needs its address space
  const auto startWithTooLittleMemory = [&] {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t room = static_cast<rlim_t>(pages) * 4096 + (64 << 20);  // far from 4096 stacks
    const rlimit limit{room, room};
    ::setrlimit(RLIMIT_AS, &limit);
    try {
      AdminServer(f.registry, f.path, {4096});
    } catch (const std::runtime_error& error) {
      std::cerr << error.what();
      std::exit(1);
    }
  };
  EXPECT_EXIT(startWithTooLittleMemory(), ::testing::ExitedWithCode(1), "lower maxConnections");
#endif
  f.registry->registerCommand({"test.starve", "Makes the next allocation after it fail.",
                               [](Arguments&&) { return test_support::failAllocation(1), std::string(); }, 0,
                               0});
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  EXPECT_EQ(peer.call("test.starve"), (Response{Status::error, "test.starve could not run: std::bad_alloc"}));
  EXPECT_EQ(peer.call("test.text x"), ok("x"));
}

// A live socket and a file that is not a socket are refused; a stale socket is replaced. (That the
// socket is private is checked by tests/tools/admin-test.sh.)
TEST(AdminServer, OnlyAStaleSocketIsReplaced) {
  Fixture f;
  {
    AdminServer server(f.registry, f.path);
    EXPECT_THROW(AdminServer(f.registry, f.path), std::runtime_error);
  }
  std::ofstream(f.directory / "file") << "not a socket";
  EXPECT_THROW(AdminServer(f.registry, f.directory / "file"), std::runtime_error);
  // A socket left behind by a process that died: bound, never unlinked, nobody listening.
  const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, {}};
  std::strcpy(address.sun_path, f.path.c_str());
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(stale);
  EXPECT_NO_THROW(AdminServer(f.registry, f.path));
}

// A peer of another user gets one "closed" answer and the refusal is audited. Connecting as
// another user needs root.
TEST(AdminServer, PeerOfAnotherUserIsRefusedAndAudited) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to connect as another user";
  }
  Fixture f;
  foundation::log::set_destination("file:" + (f.directory / "audit.log"));
  AdminServer server(f.registry, f.path);
  ::chmod(f.directory.path().c_str(), 0711);  // lets the other user reach the credential check
  ::chmod(f.path.c_str(), 0666);
  const Response refusal{Status::closed, "uid 65534 may not use this endpoint; only uid 0 and root may"};
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(::setuid(65534) == 0 && AdminPeer(f.path).next() == refusal ? 0 : 1);
  }
  int status = 1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  foundation::log::set_destination("null");
  EXPECT_THAT(test_support::TempDirectory::read(f.directory / "audit.log"),
              HasSubstr("[warn] refused uid=65534 pid=" + std::to_string(child) + " on " + f.path));
}

}  // namespace
}  // namespace connector
