// Administration commands over the host's configuration store, so that a served host can be
// configured from another process (the shell's `config` over --connect, or any client):
//
//   connector.config.get KEY                KEY's value as "KEY = VALUE (TYPE, label "LABEL")"
//   connector.config.set KEY VALUE [LABEL]  stores VALUE under LABEL ("operator" when not given),
//                                           answers as get does (with a note when another label's
//                                           value stays in force)
//   connector.config.list [PREFIX]          every key that starts with PREFIX, a line each, as get
//
// VALUE takes the type of KEY's value: any text for a string, true or false for a bool, a whole
// number that fits for an int. For a key without a value, true and false are bools, whole numbers
// ints and anything else a string. A value the store or a subscriber refuses is an error whose
// text says why, and the store keeps what it held. A key without a value is an error for get.
//
// The constructor registers the three commands in that order and the destructor withdraws them.
// The handlers hold the store, so the registry may call them after the provider is gone; they may
// run on any thread, concurrently (the store is thread-safe).
#pragma once

#include <memory>
#include <string>

#include "framework/Administration.h"
#include "host/ConfigurationStore.h"

namespace connector {
namespace host {

// The label that `config set` and connector.config.set use when none is given.
inline constexpr const char* kOperatorLabel = "operator";

// "KEY = VALUE (TYPE, label "LABEL")", printable.
std::string describeEntry(const ConfigurationStore::Entry& entry);

// The value `text` stands for when set to `key`: a quoted text is a string; otherwise, when
// `current` (the key's value) is given, of its type, else true and false are bools, whole numbers
// ints and anything else a string. Throws std::invalid_argument, naming the key, for a text the
// type cannot take or a number that does not fit an int.
configuration::ConfigValue parseValue(const std::string& key, const std::string& text, bool quoted,
                                      const configuration::ConfigValue* current);

class ConfigurationCommands : public administration::CommandProvider {
 public:
  ConfigurationCommands(std::shared_ptr<administration::Administration> administration,
                        std::shared_ptr<ConfigurationStore> store);
  ~ConfigurationCommands() override;

 private:
  std::shared_ptr<administration::Administration> administration_;
};

}  // namespace host
}  // namespace connector
