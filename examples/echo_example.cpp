// The smallest host there is: one echo service, one message, one answer.
#include <iostream>
#include <memory>
#include <string>
#include <typeinfo>

#include "framework/ServiceProvider.h"
#include "services/EchoServiceProvider.h"

namespace {

class Greeting : public connector::Message {
 public:
  explicit Greeting(std::string text) : text_(std::move(text)) {}
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace

int main() {
  auto echo = std::make_shared<connector::common_services::EchoServiceProvider>();
  std::unique_ptr<connector::Message> message = std::make_unique<Greeting>("hello, connector");
  const connector::Message* sent = message.get();

  auto answer = echo->deliver(std::move(message), connector::Address("echo"), nullptr).get();
  const auto& greeting = dynamic_cast<const Greeting&>(*answer);
  std::cout << "echo answered: " << greeting.text()
            << (answer.get() == sent ? " (the same message object)" : " (a different object!)") << '\n';
  return answer.get() == sent ? 0 : 1;
}
