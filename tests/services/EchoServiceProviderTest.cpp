#include "services/EchoServiceProvider.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"

namespace {

using connector::Address;
using connector::Context;
using connector::Future;
using connector::Message;
using connector::ServiceProvider;
using connector::common_services::EchoServiceProvider;
using connector::detail::Status;
using connector::testing::CountedMessage;
using MessagePtr = std::unique_ptr<Message>;

// A context that the echo service must not use: it counts the forwards it is asked for.
class UnusedContext : public Context {
 public:
  Future<MessagePtr> forward(MessagePtr&&, Address&&) override {
    ++forwards;
    throw std::logic_error("the echo service forwarded a message");
  }
  int forwards = 0;
};

struct Delivery {
  Address address{"echo"};
  std::shared_ptr<Context> context = std::make_shared<UnusedContext>();

  Future<MessagePtr> to(ServiceProvider& provider, MessagePtr&& message) {
    return provider.deliver(std::move(message), std::move(address), std::move(context));
  }
};

TEST(EchoServiceProvider, AnswersWithTheDeliveredMessageItselfAlreadySettled) {
  EchoServiceProvider echo;
  auto* sent = new CountedMessage("hello");
  Future<MessagePtr> answer = Delivery().to(echo, MessagePtr(sent));
  EXPECT_TRUE(answer.isValid());
  EXPECT_EQ(answer.state->status.load(), Status::Resolved) << "settled before deliver returns";
  MessagePtr received = answer.get();
  EXPECT_EQ(received.get(), sent);
  EXPECT_EQ(CountedMessage::alive(), 1) << "no copy is made";
}

TEST(EchoServiceProvider, AnEmptyMessageIsEchoedAsEmpty) {
  EchoServiceProvider echo;
  Future<MessagePtr> answer = Delivery().to(echo, nullptr);
  EXPECT_EQ(answer.state->status.load(), Status::Resolved);
  EXPECT_EQ(answer.get(), nullptr);
}

TEST(EchoServiceProvider, TheAnswerCanBeReadOnce) {
  EchoServiceProvider echo;
  Future<MessagePtr> answer = Delivery().to(echo, std::make_unique<CountedMessage>());
  answer.get();
  try {
    answer.get();
    ADD_FAILURE() << "a second get() returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Future already returned it's value or has an associated continuation.");
  }
}

TEST(EchoServiceProvider, AnUnreadAnswerDeletesTheMessageExactlyOnce) {
  EchoServiceProvider echo;
  {
    Future<MessagePtr> answer = Delivery().to(echo, std::make_unique<CountedMessage>());
    EXPECT_EQ(CountedMessage::alive(), 1);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(EchoServiceProvider, LeavesTheAddressAndTheContextWithTheCaller) {
  EchoServiceProvider echo;
  Delivery delivery;
  auto* context = static_cast<UnusedContext*>(delivery.context.get());
  delivery.to(echo, std::make_unique<CountedMessage>()).get();
  EXPECT_EQ(delivery.address, Address("echo"));
  ASSERT_EQ(delivery.context.get(), context);
  EXPECT_EQ(delivery.context.use_count(), 1);
  EXPECT_EQ(context->forwards, 0);
}

// The answer costs the state and the box that holds the message, nothing more; when either
// cannot be had, std::bad_alloc leaves deliver and the caller keeps its message.
TEST(EchoServiceProvider, AnswersWithTwoAllocationsAndKeepsTheMessageWhenOneFails) {
  EchoServiceProvider echo;
  Delivery delivery;
  const long before = connector::testing::allocationsOnThisThread();
  delivery.to(echo, nullptr);
  EXPECT_EQ(connector::testing::allocationsOnThisThread() - before, 2);

  connector::testing::NoAllocationFailureOnExit disarm;
  for (long failing : {1, 2}) {
    MessagePtr message = std::make_unique<CountedMessage>();
    EXPECT_THROW(
        {
          connector::testing::failAllocation(failing);
          delivery.to(echo, std::move(message));
        },
        std::bad_alloc);
    EXPECT_NE(message, nullptr);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

TEST(EchoServiceProvider, ManyThreadsMayDeliverAtOnce) {
  auto echo = std::make_shared<EchoServiceProvider>();
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        auto* sent = new CountedMessage(std::to_string(i));
        if (Delivery().to(*echo, MessagePtr(sent)).get().get() != sent) {
          ++mismatches[t];
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
  EXPECT_EQ(CountedMessage::alive(), 0);
}

// The lifecycle operations are empty: any number of them, in any order, changes no later
// delivery. A provider owned through std::shared_ptr can share itself.
TEST(ServiceProvider, LifecycleOperationsChangeNothing) {
  std::shared_ptr<ServiceProvider> provider = std::make_shared<EchoServiceProvider>();
  EXPECT_EQ(provider->shared_from_this(), provider);
  for (auto step : {&ServiceProvider::stop, &ServiceProvider::start, &ServiceProvider::start,
                    &ServiceProvider::stop, &ServiceProvider::stop}) {
    ((*provider).*step)();
    auto* sent = new CountedMessage("again");
    EXPECT_EQ(Delivery().to(*provider, MessagePtr(sent)).get().get(), sent);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

}  // namespace
