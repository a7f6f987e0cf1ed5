// The message types the shell can send: small, distinct types, so that a logging provider's
// filter (which selects by the start of the message's type name) has something to choose from.
// Plain values; safe to use from any thread once made.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "framework/ServiceProvider.h"
#include "host/DisplayText.h"

namespace demo {

// What every demo message can say about itself when it comes back as an answer; the text it
// carries is quoted, with quotes and control bytes escaped.
class DemoMessage : public connector::Message {
 public:
  virtual std::string describe() const = 0;
};

class Ping final : public DemoMessage {
 public:
  std::string describe() const override { return "demo::Ping"; }
};

class Greeting final : public DemoMessage {
 public:
  explicit Greeting(std::string text) : text_(std::move(text)) {}
  std::string describe() const override { return "demo::Greeting " + connector::host::quoted(text_); }

 private:
  std::string text_;
};

class Order final : public DemoMessage {
 public:
  explicit Order(std::string item) : item_(std::move(item)) {}
  std::string describe() const override { return "demo::Order " + connector::host::quoted(item_); }

 private:
  std::string item_;
};

// A template, so that its type name holds what exporters must escape or quote: <, >, and a
// comma once nested.
template <typename Item>
class Batch final : public DemoMessage {
 public:
  explicit Batch(std::string items) : items_(std::move(items)) {}
  std::string describe() const override { return "demo::Batch " + connector::host::quoted(items_); }

 private:
  std::string items_;
};

}  // namespace demo
