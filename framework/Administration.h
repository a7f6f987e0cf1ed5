// The administration contract: named text commands that operators run, and the objects that
// contribute them.
//
// A CommandProvider registers its commands with an Administration registry in its constructor
// and withdraws them, by name, in its destructor. The registry keeps each Command's handler and
// may call it, on any of its threads and possibly concurrently, between registration and
// withdrawal; a handler therefore owns whatever it needs and captures nothing of its provider.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "foundation/Export.h"
#include "framework/Future.h"

namespace connector {
namespace administration {

// Runs one call of a command: receives its arguments (which it may consume) and returns the
// output text. A handler reports failure by throwing.
using CommandHandler = std::function<std::string(std::vector<std::string>&&)>;

// One command as the registry knows it.
struct Command {
  std::string name;         // dot-separated lowerCamelCase words, e.g. "connector.log.getDestination"
  std::string description;  // one sentence ending with a full stop
  CommandHandler handler;
  std::uint8_t minArguments = 0;  // the least number of arguments the command takes
  std::uint8_t maxArguments = 0;  // the most; 255 is the largest the field holds
};

// The base of every command provider. It holds nothing; its destructor does nothing.
class CONNECTOR_EXPORT CommandProvider {
 public:
  CommandProvider() noexcept;
  CommandProvider(const CommandProvider&) = delete;
  CommandProvider& operator=(const CommandProvider&) = delete;
  virtual ~CommandProvider();
};

// The registry. What the bool of its futures means, how it enforces the argument bounds and on
// which threads it runs handlers are the registry's own contract. unregisterCommand() must not
// throw: providers call it from their destructors.
class CONNECTOR_EXPORT Administration {
 public:
  Administration() noexcept;
  Administration(const Administration&) = delete;
  Administration& operator=(const Administration&) = delete;
  virtual ~Administration();

  virtual Future<bool> registerCommand(Command command) = 0;
  virtual Future<bool> unregisterCommand(const std::string& name) = 0;
};

}  // namespace administration
}  // namespace connector
