// Uses the installed library: echoes one message and checks that the same object came back.
#include <cstdio>
#include <memory>

#include "services/EchoServiceProvider.h"

int main() {
  auto echo = std::make_shared<connector::common_services::EchoServiceProvider>();
  auto message = std::make_unique<connector::Message>();
  const connector::Message* sent = message.get();
  auto answer = echo->deliver(std::move(message), connector::Address("echo"), nullptr).get();
  std::puts(answer.get() == sent ? "consumer: echo answered with the same message"
                                 : "consumer: wrong answer");
  return answer.get() == sent ? 0 : 1;
}
