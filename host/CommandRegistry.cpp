#include "host/CommandRegistry.h"

#include <algorithm>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "foundation/log/Log.h"
#include "host/DisplayText.h"

namespace connector {
namespace host {

namespace {

const char* const kHelpName = "help";
const char* const kHelpDescription = "List every command, or describe the one named.";

const char* const kAuditSucceeded = "ok";
const char* const kAuditLaneFull =
    "\" is refused: its audit record cannot be written, as the process log's destination is not taking "
    "records (its audit lane is full); no command runs unaudited. Unblock the destination, then retry";

// The most a Command record can declare; a command that declares it takes any number.
constexpr unsigned kNoUpperLimit = 255;

std::string plural(unsigned count) {
  return std::to_string(count) + (count == 1 ? " argument" : " arguments");
}

// "no arguments", "1 argument", "0 to 1 arguments", "at least 1 argument", "any number of arguments".
std::string describeBounds(unsigned min, unsigned max) {
  if (max == 0) {
    return "no arguments";
  }
  if (max == kNoUpperLimit) {
    return min == 0 ? "any number of arguments" : "at least " + plural(min);
  }
  if (min == max) {
    return plural(min);
  }
  return std::to_string(min) + " to " + std::to_string(max) + " arguments";
}

}  // namespace

namespace detail {

struct CommandTable {
  mutable std::mutex mutex;
  // Shared so that execute() can run a handler after releasing the lock, even while the
  // command is withdrawn.
  std::map<std::string, std::shared_ptr<const administration::Command>> commands;  // guarded by mutex
};

}  // namespace detail

namespace {

// One line per command: its name, padded to `width`, its description and its bounds.
std::string helpText(const std::vector<CommandRegistry::Description>& commands, std::size_t width = 0) {
  for (const auto& command : commands) {
    width = std::max(width, command.name.size());
  }
  std::string text;
  for (const auto& command : commands) {
    text += command.name + std::string(width - command.name.size() + 2, ' ') + command.description + " (" +
            describeBounds(command.minArguments, command.maxArguments) + ")\n";
  }
  return text;
}

std::vector<CommandRegistry::Description> describe(const detail::CommandTable& table) {
  std::vector<CommandRegistry::Description> descriptions;
  std::lock_guard<std::mutex> lock(table.mutex);
  for (const auto& entry : table.commands) {
    const administration::Command& command = *entry.second;
    descriptions.push_back({command.name, command.description, command.minArguments, command.maxArguments});
  }
  return descriptions;
}

}  // namespace

CommandRegistry::CommandRegistry() : table_(std::make_shared<detail::CommandTable>()) {
  // The help handler holds the table weakly: the table owns the handler.
  std::weak_ptr<detail::CommandTable> table = table_;
  administration::Command help;
  help.name = kHelpName;
  help.description = kHelpDescription;
  help.maxArguments = 1;
  help.handler = [table](std::vector<std::string>&& arguments) -> std::string {
    std::shared_ptr<detail::CommandTable> held = table.lock();
    if (!held) {
      return std::string();
    }
    std::vector<CommandRegistry::Description> commands = describe(*held);
    if (arguments.empty()) {
      return helpText(commands);
    }
    for (const auto& command : commands) {
      if (command.name == arguments.front()) {
        return helpText({command});
      }
    }
    throw std::invalid_argument("there is no command " + quoted(arguments.front(), kEchoLimit) +
                                "; \"help\" lists the commands");
  };
  table_->commands.emplace(kHelpName, std::make_shared<const administration::Command>(std::move(help)));
}

CommandRegistry::~CommandRegistry() = default;

Future<bool> CommandRegistry::registerCommand(administration::Command command) {
  if (command.name.empty()) {
    return makeRejectedFuture<bool>(std::invalid_argument("a command needs a non-empty name"));
  }
  if (!command.handler) {
    return makeRejectedFuture<bool>(std::invalid_argument("command \"" + command.name +
                                                          "\" has no handler; give it the function to run"));
  }
  if (command.minArguments > command.maxArguments) {
    return makeRejectedFuture<bool>(std::invalid_argument(
        "command \"" + command.name + "\" declares minArguments " + std::to_string(command.minArguments) +
        " above maxArguments " + std::to_string(command.maxArguments)));
  }
  std::string name = command.name;
  auto shared = std::make_shared<const administration::Command>(std::move(command));
  bool added = false;
  {
    std::lock_guard<std::mutex> lock(table_->mutex);
    added = table_->commands.emplace(std::move(name), shared).second;
  }
  return makeResolvedFuture(added);
}

Future<bool> CommandRegistry::unregisterCommand(const std::string& name) {
  std::shared_ptr<const administration::Command> removed;  // released after the lock
  if (name != kHelpName) {
    std::lock_guard<std::mutex> lock(table_->mutex);
    auto found = table_->commands.find(name);
    if (found != table_->commands.end()) {
      removed = std::move(found->second);
      table_->commands.erase(found);
    }
  }
  return makeResolvedFuture(removed != nullptr);
}

CommandRegistry::Result CommandRegistry::execute(const std::string& name, std::vector<std::string> arguments,
                                                 const std::string& caller) const {
  // The record goes where the audit went when the command arrived: a command that moves the
  // destination or silences the audit channel is still recorded, in the place it leaves.
  const foundation::log::audit_route audit;
  if (!audit.writable()) {
    return {false, "command \"" + name + kAuditLaneFull};
  }
  // The arguments are shown as given, before the handler may consume them.
  std::string record = "caller=" + quoted(caller) + " command=" + quoted(name) + " arguments=[";
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    record += (i == 0 ? "" : ", ") + quoted(arguments[i]);
  }
  Result result = run(name, std::move(arguments));
  record += "] outcome=" + (result.succeeded ? std::string(kAuditSucceeded) : quoted(result.text));
  audit.write(record);
  return result;
}

CommandRegistry::Result CommandRegistry::run(const std::string& name,
                                             std::vector<std::string> arguments) const {
  std::shared_ptr<const administration::Command> command;
  {
    std::lock_guard<std::mutex> lock(table_->mutex);
    auto found = table_->commands.find(name);
    if (found != table_->commands.end()) {
      command = found->second;
    }
  }
  if (!command) {
    return {false, "unknown command " + quoted(name, kEchoLimit) + "; \"help\" lists the commands"};
  }
  const bool tooMany = command->maxArguments != kNoUpperLimit && arguments.size() > command->maxArguments;
  if (arguments.size() < command->minArguments || tooMany) {
    const bool exactly = command->minArguments == command->maxArguments && command->maxArguments != 0;
    return {false, "command \"" + name + "\" takes " + (exactly ? "exactly " : "") +
                       describeBounds(command->minArguments, command->maxArguments) + ", but was given " +
                       std::to_string(arguments.size())};
  }
  try {
    return {true, command->handler(std::move(arguments))};
  } catch (const std::exception& error) {
    return {false, "command \"" + name + "\" failed: " + error.what()};
  } catch (...) {
    return {false, "command \"" + name + "\" failed with an exception that is not a std::exception"};
  }
}

std::vector<CommandRegistry::Description> CommandRegistry::describeCommands() const {
  return describe(*table_);
}

}  // namespace host
}  // namespace connector
