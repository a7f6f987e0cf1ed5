// The reference host's administration registry: named text commands that operators run.
//
// registerCommand() answers with an already settled Future<bool>: true when the command was
// added, false when a command of that name is already there (the first one stays); rejected
// with std::invalid_argument for a record without a name or handler, or whose minArguments
// exceeds its maxArguments. unregisterCommand() answers true when it withdrew the command,
// false when there was none of that name; it never throws. A command whose maxArguments is 255,
// the most the record holds, takes any number of arguments (at least its minArguments).
//
// The built-in "help" lists every command, itself included, one per line: the name, the
// description and the argument bounds in parentheses ("(1 argument)", "(0 to 1 arguments)",
// "(any number of arguments)"). "help NAME" gives the line of that command alone and fails for
// an unknown name. It cannot be replaced or withdrawn.
//
// execute() runs a command on the calling thread and never throws for the command's sake: an
// unknown name, an argument count outside the command's bounds, and an exception from the
// handler all come back as a failed result whose text says what went wrong. An unknown name is
// echoed quoted, with control bytes escaped and cut short after 60 bytes.
//
// Threads: every operation is safe from any thread, concurrently with every other; handlers
// run on the threads that call execute(), possibly several at once. No lock of the registry
// is held while a handler runs, so a handler may register, withdraw or execute commands. A
// handler withdrawn while it runs finishes that call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/Administration.h"

namespace connector {
namespace host {

namespace detail {
struct CommandTable;  // the registered commands; in CommandRegistry.cpp
}

class CommandRegistry final : public administration::Administration {
 public:
  // What a command answered: its text when it succeeded, otherwise the error text.
  struct Result {
    bool succeeded;
    std::string text;
  };

  // A registered command as operators see it.
  struct Description {
    std::string name;
    std::string description;
    std::uint8_t minArguments;
    std::uint8_t maxArguments;
  };

  CommandRegistry();
  ~CommandRegistry() override;

  Future<bool> registerCommand(administration::Command command) override;
  Future<bool> unregisterCommand(const std::string& name) override;

  // Runs the command and writes one info record on the process log's audit channel
  // ("connector.audit"): who asked (`caller`, e.g. a user name or "uid=U pid=P"), the command,
  // its arguments quoted (blanks and line feeds visible) and the outcome, "ok" or the error text.
  // The record goes to the destination in force when the command arrived, if the audit channel
  // passed then: a command that moves the destination or silences the audit channel is recorded
  // where the audit was going, and a command run while it was silenced is not recorded. Behind
  // an "async:" destination whose audit lane is full, the command does not run: the result is a
  // failure saying that its audit record cannot be written.
  Result execute(const std::string& name, std::vector<std::string> arguments,
                 const std::string& caller = {}) const;

  // Every command, "help" included, in ascending order of name.
  std::vector<Description> describeCommands() const;

 private:
  Result run(const std::string& name, std::vector<std::string> arguments) const;

  std::shared_ptr<detail::CommandTable> table_;
};

}  // namespace host
}  // namespace connector
