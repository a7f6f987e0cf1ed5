#include "services/EchoServiceProvider.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"
#include "tests/support/FakeContext.h"

namespace connector {
namespace {

using test_support::CountedMessage;
using test_support::MessagePtr;

// The answer is settled before deliver() returns and holds the very object delivered (an empty
// pointer as empty); it can be read once, and an unread one deletes its message once. The
// address and the context stay with the caller, unused, and the lifecycle operations, in any
// number and order, change nothing.
TEST(EchoServiceProvider, AnswersAtOnceWithTheDeliveredMessageItself) {
  auto echo = std::make_shared<common_services::EchoServiceProvider>();
  Address address("echo");
  auto context = std::make_shared<test_support::FakeContext>(test_support::echoing());
  for (auto step :
       {&ServiceProvider::stop, &ServiceProvider::start, &ServiceProvider::start, &ServiceProvider::stop}) {
    (echo.get()->*step)();
    for (Message* sent : {static_cast<Message*>(new CountedMessage()), static_cast<Message*>(nullptr)}) {
      std::shared_ptr<Context> passed = context;
      Future<MessagePtr> answer = echo->deliver(MessagePtr(sent), std::move(address), std::move(passed));
      EXPECT_EQ(answer.state->status.load(), detail::Status::Resolved);
      EXPECT_EQ(answer.get().get(), sent);
      EXPECT_THAT([&] { answer.get(); },
                  ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq(
                      "Future already returned it's value or has an associated continuation.")));
      EXPECT_EQ(address, Address("echo"));
      EXPECT_EQ(passed, context);
    }
  }
  EXPECT_EQ(context->forwardCount(), 0);
  EXPECT_EQ(CountedMessage::alive(), 0);
  {
    Future<MessagePtr> unread = echo->deliver(std::make_unique<CountedMessage>(), Address(), nullptr);
    EXPECT_EQ(CountedMessage::alive(), 1);
  }
  EXPECT_EQ(CountedMessage::alive(), 0);
}

// The answer costs the state and the box that holds the message, nothing more; when either
// cannot be had, std::bad_alloc leaves deliver and the caller keeps its message.
TEST(EchoServiceProvider, AnswersWithTwoAllocationsAndKeepsTheMessageWhenOneFails) {
  common_services::EchoServiceProvider echo;
  const long before = test_support::allocationsOnThisThread();
  echo.deliver(nullptr, Address(), nullptr);
  EXPECT_EQ(test_support::allocationsOnThisThread() - before, 2);
  test_support::NoAllocationFailureOnExit disarm;
  for (long failing : {1, 2}) {
    MessagePtr message = std::make_unique<CountedMessage>();
    test_support::failAllocation(failing);
    EXPECT_THROW(echo.deliver(std::move(message), Address(), nullptr), std::bad_alloc);
    EXPECT_NE(message, nullptr);
  }
}

}  // namespace
}  // namespace connector
