#include "framework/CommandRegistrations.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace connector {
namespace administration {

namespace {

// The claims on one name of one registry, newest last.
struct Slot {
  std::mutex mutex;
  std::vector<std::pair<const CommandRegistrations*, std::shared_ptr<CommandHandler>>>
      claims;  // guarded by mutex
  // guarded by mutex: the last claim's handler, for a call that the registry started before the
  // withdrawal (a handler owns what it uses, so it may outlive its provider)
  std::shared_ptr<CommandHandler> retired;
  bool registered = false;  // guarded by the table's mutex; this slot's command is in the registry
};

struct Table {
  std::mutex mutex;
  std::map<std::pair<const Administration*, std::string>, std::shared_ptr<Slot>> slots;  // guarded by mutex
};

Table& table() {
  static Table* const shared = new Table;  // never destroyed: holders may outlive static destruction
  return *shared;
}

// Runs the newest claim's handler, outside every lock of this file.
CommandHandler dispatcher(std::shared_ptr<Slot> slot) {
  return [slot = std::move(slot)](std::vector<std::string>&& arguments) {
    std::shared_ptr<CommandHandler> handler;
    {
      std::lock_guard<std::mutex> lock(slot->mutex);
      handler = slot->claims.empty() ? slot->retired : slot->claims.back().second;
    }
    return (*handler)(std::move(arguments));
  };
}

// Removes `holder`'s claim on `name`; withdraws the registration with the last claim. Called
// with the table's lock held.
void dropClaim(Table& shared, Administration& administration, const CommandRegistrations* holder,
               const std::string& name) {
  const auto found = shared.slots.find({&administration, name});
  if (found == shared.slots.end()) {
    return;
  }
  Slot& slot = *found->second;
  bool empty = false;
  {
    std::lock_guard<std::mutex> lock(slot.mutex);
    const auto claim = std::find_if(slot.claims.rbegin(), slot.claims.rend(),
                                    [holder](const auto& entry) { return entry.first == holder; });
    if (claim != slot.claims.rend()) {
      slot.retired = claim->second;
      slot.claims.erase(std::next(claim).base());
    }
    empty = slot.claims.empty();
  }
  if (!empty) {
    return;
  }
  if (slot.registered) {
    administration.unregisterCommand(name);
  }
  shared.slots.erase(found);
}

}  // namespace

CommandRegistrations::CommandRegistrations(std::shared_ptr<Administration> administration) noexcept
    : administration_(std::move(administration)) {}

CommandRegistrations::~CommandRegistrations() {
  Table& shared = table();
  std::lock_guard<std::mutex> lock(shared.mutex);
  for (const std::string& name : names_) {
    try {
      dropClaim(shared, *administration_, this, name);
    } catch (...) {
      // unregisterCommand() must not throw; a registry that does keeps the command.
    }
  }
}

void CommandRegistrations::add(Command command) {
  Table& shared = table();
  std::lock_guard<std::mutex> lock(shared.mutex);
  std::shared_ptr<Slot>& entry = shared.slots[{administration_.get(), command.name}];
  if (!entry) {
    entry = std::make_shared<Slot>();
  }
  const std::shared_ptr<Slot> slot = entry;
  {
    std::lock_guard<std::mutex> claims(slot->mutex);
    slot->claims.emplace_back(this, std::make_shared<CommandHandler>(std::move(command.handler)));
  }
  names_.push_back(command.name);
  if (slot->registered) {
    return;
  }
  try {
    command.handler = dispatcher(slot);
    slot->registered = administration_->registerCommand(std::move(command)).get();
  } catch (...) {
    dropClaim(shared, *administration_, this, names_.back());
    names_.pop_back();
    throw;
  }
}

}  // namespace administration
}  // namespace connector
