// A recording administration registry for tests: keeps every registered command (handler
// included, so a test can call it after its provider is gone) and which are still registered.
// Every answer is a future already resolved with true. Safe from any thread.
#pragma once

#include <map>
#include <mutex>
#include <set>
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
    live_.insert(command.name);
    commands_[command.name] = std::move(command);
    return makeResolvedFuture(true);
  }

  Future<bool> unregisterCommand(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    live_.erase(name);
    return makeResolvedFuture(true);
  }

  // The command as registered (even if withdrawn since); std::out_of_range if it never was.
  administration::Command command(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_.at(name);
  }

  // The names of the commands registered and not withdrawn since.
  std::set<std::string> live() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_;
  }

  // Runs the command's handler outside the lock, as a real registry would.
  std::string run(const std::string& name, std::vector<std::string> arguments = {}) const {
    return command(name).handler(std::move(arguments));
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, administration::Command> commands_;  // guarded by mutex_
  std::set<std::string> live_;                               // guarded by mutex_
};

}  // namespace test_support
}  // namespace connector
