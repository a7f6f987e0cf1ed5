// A recording administration registry for tests: keeps every registered command (handler
// included, so a test can call it after its provider is gone) and logs every register and
// unregister call in order, as "register NAME MIN..MAX DESCRIPTION" and "unregister NAME". Every
// answer is a future already resolved with true. Safe from any thread.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/Administration.h"

namespace connector {
namespace test_support {

class FakeAdministration : public administration::Administration {
 public:
  Future<bool> registerCommand(administration::Command command) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back("register " + command.name + " " + std::to_string(command.minArguments) + ".." +
                     std::to_string(command.maxArguments) + " " + command.description);
    commands_[command.name] = std::move(command);
    return makeResolvedFuture(true);
  }

  Future<bool> unregisterCommand(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back("unregister " + name);
    return makeResolvedFuture(true);
  }

  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  // Runs the handler of the command as registered (even if withdrawn since) outside the lock, as
  // a real registry would; std::out_of_range if it never was.
  std::string run(const std::string& name, std::vector<std::string> arguments = {}) const {
    administration::CommandHandler handler;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      handler = commands_.at(name).handler;
    }
    return handler(std::move(arguments));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;                           // guarded by mutex_
  std::map<std::string, administration::Command> commands_;  // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
