#include "host/Connector.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "services/EchoServiceProvider.h"
#include "tests/support/CountedMessage.h"

namespace connector {
namespace {

using testing::CountedMessage;

// What several providers did, in order; any thread may note.
struct Journal {
  std::mutex mutex;
  std::vector<std::string> entries;  // guarded by mutex

  void note(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(entry);
  }
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex);
    return std::move(entries);
  }
};

// Notes its name on every delivery and on start() and stop(); then forwards the message, or
// throws when told to.
class JournalProvider : public ServiceProvider {
 public:
  JournalProvider(std::string name, std::shared_ptr<Journal> journal, bool throws = false)
      : name_(std::move(name)), journal_(std::move(journal)), throws_(throws) {}

  void start() override { note("start " + name_); }
  void stop() override { note("stop " + name_); }

  Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                           std::shared_ptr<Context>&& context) override {
    note(name_ + " <- " + address.name());
    if (throws_) {
      throw std::out_of_range(name_ + " refuses");
    }
    return context->forward(std::move(message), std::move(address));
  }

 private:
  void note(const std::string& entry) { journal_->note(entry); }
  const std::string name_;
  const std::shared_ptr<Journal> journal_;
  const bool throws_;
};

std::string rejection(Future<std::unique_ptr<Message>> answer) {
  try {
    answer.get();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "not rejected";
}

struct ConnectorTest : ::testing::Test {
  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  host::Connector connector;

  void add(const std::string& name, bool throws = false) {
    connector.addServiceProvider(name, std::make_shared<JournalProvider>(name, journal, throws));
  }
};

TEST_F(ConnectorTest, AMessageTravelsTheWholeChainInOrderAndComesBackUnchanged) {
  add("first");
  add("second");
  connector.addServiceProvider("echo", std::make_shared<common_services::EchoServiceProvider>());
  connector.setRoute("orders", {"first", "second", "echo"});
  journal->take();
  const long before = CountedMessage::alive();
  {
    auto message = std::make_unique<CountedMessage>("apples");
    Message* sent = message.get();
    std::unique_ptr<Message> answer = connector.send(std::move(message), Address("orders")).get();
    EXPECT_EQ(answer.get(), sent);
  }
  EXPECT_EQ(journal->take(), (std::vector<std::string>{"first <- orders", "second <- orders"}));
  EXPECT_EQ(CountedMessage::alive(), before);
}

TEST_F(ConnectorTest, EveryMissingLinkIsARejectionNamingTheAddressAndTheProvider) {
  add("svc");
  connector.setRoute("echo", {"svc"});
  EXPECT_EQ(rejection(connector.send(std::make_unique<CountedMessage>(), Address("echo"))),
            "service provider \"svc\" is the last of the chain for address \"echo\" (svc); "
            "there is no service provider to forward to");
  EXPECT_EQ(rejection(connector.send(std::make_unique<CountedMessage>(), Address("nowhere"))),
            "no route for address \"nowhere\" (routed addresses: echo)");

  connector.setRoute("echo", {"svc", "gone"});
  EXPECT_EQ(rejection(connector.send(std::make_unique<CountedMessage>(), Address("echo"))),
            "the chain for address \"echo\" names service provider \"gone\", which is not added");

  connector.removeServiceProvider("svc");
  EXPECT_EQ(rejection(connector.send(std::make_unique<CountedMessage>(), Address("echo"))),
            "the chain for address \"echo\" names service provider \"svc\", which is not added");
  EXPECT_TRUE(connector.removeRoute("echo"));
  EXPECT_EQ(rejection(connector.send(std::make_unique<CountedMessage>(), Address("echo"))),
            "no route for address \"echo\" (routed addresses: none)");
}

TEST_F(ConnectorTest, AnExceptionFromDeliverComesBackInsideTheAnswer) {
  add("strict", true);
  connector.setRoute("a", {"strict"});
  auto answer = connector.send(std::make_unique<CountedMessage>(), Address("a"));
  EXPECT_THROW(answer.get(), std::out_of_range);
}

TEST_F(ConnectorTest, ProvidersAreStartedWhenAddedAndStoppedOnceWhenRemovedOrAtTheEnd) {
  {
    host::Connector scoped;
    scoped.addServiceProvider("a", std::make_shared<JournalProvider>("a", journal));
    scoped.addServiceProvider("b", std::make_shared<JournalProvider>("b", journal));
    scoped.addServiceProvider("c", std::make_shared<JournalProvider>("c", journal));
    EXPECT_THROW(scoped.addServiceProvider("b", std::make_shared<JournalProvider>("b2", journal)),
                 std::invalid_argument);
    scoped.removeServiceProvider("b");
    EXPECT_THROW(scoped.removeServiceProvider("b"), std::invalid_argument);
    EXPECT_EQ(scoped.getServiceProviderNames(), (std::set<std::string>{"a", "c"}));
  }
  EXPECT_EQ(journal->take(),
            (std::vector<std::string>{"start a", "start b", "start c", "stop b", "stop c", "stop a"}));
}

// A delivery racing with its provider's removal either passes through it or is told that it is
// not added; nothing else, and no data race.
TEST_F(ConnectorTest, NamesAndDeliveriesAreSafeWhileProvidersComeAndGo) {
  connector.addServiceProvider("echo", std::make_shared<common_services::EchoServiceProvider>());
  connector.setRoute("x", {"passing", "echo"});
  std::thread churn([&] {
    for (int i = 0; i < 300; ++i) {
      connector.addServiceProvider("passing", std::make_shared<JournalProvider>("passing", journal));
      connector.removeServiceProvider("passing");
    }
  });
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(connector.getServiceProviderNames().count("echo"), 1u);
    const std::string outcome = rejection(connector.send(std::make_unique<CountedMessage>(), Address("x")));
    if (outcome != "not rejected") {
      EXPECT_EQ(outcome,
                "the chain for address \"x\" names service provider \"passing\", which is not added");
    }
  }
  churn.join();
}

}  // namespace
}  // namespace connector
