// A recording administration registry for tests: keeps every registered command (handler
// included, so a test can call it after its provider is gone) and logs every register and
// unregister call in order. It can be told to throw on the Nth registerCommand call; a refused
// call is logged but its command is not kept. Every answer is a future already resolved with
// true. Safe from any thread.
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
namespace testing {

class FakeAdministration : public administration::Administration {
 public:
  // One register or unregister call, in the order they were made.
  struct Call {
    enum Kind { Register, Unregister } kind;
    std::string name;
    bool operator==(const Call& other) const { return kind == other.kind && name == other.name; }
  };

  // The `n`th registerCommand call (counting from 1) throws std::runtime_error.
  void throwOnRegistration(std::size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    throwOn_ = n;
  }

  Future<bool> registerCommand(administration::Command command) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({Call::Register, command.name});
    if (++registrations_ == throwOn_) {
      throw std::runtime_error("registry refused " + command.name);
    }
    commands_[command.name] = std::move(command);
    return makeResolvedFuture(true);
  }

  Future<bool> unregisterCommand(const std::string& name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({Call::Unregister, name});
    return makeResolvedFuture(true);
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

  // The command as registered (kept even after it is withdrawn); throws if it never was.
  administration::Command command(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = commands_.find(name);
    if (found == commands_.end()) {
      throw std::out_of_range("no command registered as " + name);
    }
    return found->second;
  }

  // Runs the command's handler outside the registry's lock, as a real registry would.
  std::string run(const std::string& name, std::vector<std::string> arguments = {}) const {
    return command(name).handler(std::move(arguments));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Call> calls_;                                  // guarded by mutex_
  std::map<std::string, administration::Command> commands_;  // guarded by mutex_
  std::size_t registrations_ = 0;                            // guarded by mutex_
  std::size_t throwOn_ = 0;                                  // guarded by mutex_; 0: never
};

}  // namespace testing
}  // namespace connector
