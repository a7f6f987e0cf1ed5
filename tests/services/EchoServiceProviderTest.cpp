#include "services/EchoServiceProvider.h"

#include <gtest/gtest.h>

#include "tests/support/CountedMessage.h"
#include "tests/support/FailingAllocation.h"

namespace connector {
namespace {

using test_support::CountedMessage;
using MessagePtr = std::unique_ptr<Message>;

// The answer is settled before deliver() returns and holds the very message delivered; an unread
// one deletes it. It costs the state and the box and nothing more; when either cannot be had,
// std::bad_alloc leaves deliver() and the caller keeps its message.
TEST(EchoServiceProvider, AnswersAtOnceWithTheMessageItselfInTwoAllocations) {
  common_services::EchoServiceProvider echo;
  MessagePtr message = std::make_unique<CountedMessage>();
  Message* const sent = message.get();
  const long before = test_support::allocationsOnThisThread();
  Future<MessagePtr> answer = echo.deliver(std::move(message), Address(), nullptr);
  EXPECT_EQ(test_support::allocationsOnThisThread() - before, 2);
  EXPECT_EQ(answer.state->status.load(), detail::Status::Resolved);
  EXPECT_EQ(answer.get().get(), sent);
  { Future<MessagePtr> unread = echo.deliver(std::make_unique<CountedMessage>(), Address(), nullptr); }
  EXPECT_EQ(CountedMessage::alive(), 0);
  test_support::NoAllocationFailureOnExit disarm;
  for (long failing : {1, 2}) {
    message = std::make_unique<CountedMessage>();
    test_support::failAllocation(failing);
    EXPECT_THROW(echo.deliver(std::move(message), Address(), nullptr), std::bad_alloc);
    EXPECT_NE(message, nullptr);
  }
}

}  // namespace
}  // namespace connector
