// A recording administration registry for tests: keeps every registered command (handler
// included, so a test can call it after its provider is gone) and logs every register and
// unregister call in order, as "register NAME MIN..MAX DESCRIPTION" and "unregister NAME". It can
// be told to throw on the Nth registerCommand call; a refused call is logged but its command is
// not kept. Every answer is a future already resolved with true. Safe from any thread.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/Administration.h"

namespace connector {
namespace test_support {

class FakeAdministration : public administration::Administration {
 public:
  // The `n`th registerCommand call (counting from 1) throws std::runtime_error.
  void throwOnRegistration(std::size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    throwOn_ = n;
  }

  Future<bool> registerCommand(administration::Command command) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back("register " + command.name + " " + std::to_string(command.minArguments) + ".." +
                     std::to_string(command.maxArguments) + " " + command.description);
    if (++registrations_ == throwOn_) {
      throw std::runtime_error("registry refused " + command.name);
    }
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

  // The command as registered (kept even after it is withdrawn); std::out_of_range if it never was.
  administration::Command command(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_.at(name);
  }

  // Runs the command's handler outside the registry's lock, as a real registry would.
  std::string run(const std::string& name, std::vector<std::string> arguments = {}) const {
    return command(name).handler(std::move(arguments));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;                           // guarded by mutex_
  std::map<std::string, administration::Command> commands_;  // guarded by mutex_
  std::size_t registrations_ = 0;                            // guarded by mutex_
  std::size_t throwOn_ = 0;                                  // guarded by mutex_; 0: never
};

}  // namespace test_support
}  // namespace connector
