#include "host/ConfigurationCommands.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

#include "host/DisplayText.h"

namespace connector {
namespace host {

namespace {

using administration::Command;
using Arguments = std::vector<std::string>;

constexpr const char* kGet = "connector.config.get";
constexpr const char* kSet = "connector.config.set";
constexpr const char* kList = "connector.config.list";
constexpr const char* kCommandNames[] = {kGet, kSet, kList};

bool isWholeNumber(const std::string& text) {
  const std::size_t sign = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
  return text.size() > sign && text.find_first_not_of("0123456789", sign) == std::string::npos;
}

}  // namespace

std::string describeEntry(const ConfigurationStore::Entry& entry) {
  return printable(entry.key) + " = " + describeValue(entry.value) + " (" + describeType(entry.value) +
         ", label " + quoted(entry.label) + ")";
}

configuration::ConfigValue parseValue(const std::string& key, const std::string& text, bool isQuoted,
                                      const configuration::ConfigValue* current) {
  const bool boolean = text == "true" || text == "false";
  const std::string type = isQuoted              ? "string"
                           : current             ? describeType(*current)
                           : boolean             ? "bool"
                           : isWholeNumber(text) ? "int"
                                                 : "string";
  if (type == "string") {
    return text;
  }
  if (type == "bool" && boolean) {
    return text == "true";
  }
  if (type != "int" || !isWholeNumber(text)) {
    const bool simple = type == "bool" || type == "int";
    throw std::invalid_argument(key + " takes " +
                                (type == "bool"  ? std::string("a bool (true or false)")
                                 : type == "int" ? std::string("an int")
                                                 : "a " + type) +
                                ", not " + quoted(text, kEchoLimit) +
                                (simple ? "" : "; a command sets only strings, bools and ints"));
  }
  errno = 0;
  const long long parsed = std::strtoll(text.c_str(), nullptr, 10);
  if (errno == ERANGE || parsed < std::numeric_limits<int>::min() ||
      parsed > std::numeric_limits<int>::max()) {
    throw std::out_of_range(
        "value " + text + " does not fit an int (" + std::to_string(std::numeric_limits<int>::min()) +
        " to " + std::to_string(std::numeric_limits<int>::max()) + "); quote it to set it as a string");
  }
  return static_cast<int>(parsed);
}

ConfigurationCommands::ConfigurationCommands(std::shared_ptr<administration::Administration> administration,
                                             std::shared_ptr<ConfigurationStore> store)
    : administration_(std::move(administration)) {
  administration_->registerCommand(
      Command{kGet, "Get a configuration key's value, type and label.",
              [store](Arguments&& arguments) {
                const std::optional<ConfigurationStore::Entry> entry = store->get(arguments[0]);
                if (!entry) {
                  throw std::invalid_argument("configuration key " + quoted(arguments[0], kEchoLimit) +
                                              " has no value; connector.config.list shows the keys");
                }
                return describeEntry(*entry);
              },
              1, 1});
  administration_->registerCommand(Command{
      kSet, "Set a configuration key's value under a label (\"operator\" by default).",
      [store](Arguments&& arguments) {
        const std::string& key = arguments[0];
        const std::string label = arguments.size() == 3 ? arguments[2] : kOperatorLabel;
        const std::optional<ConfigurationStore::Entry> current = store->get(key);
        const bool inForce =
            store->set(key, parseValue(key, arguments[1], false, current ? &current->value : nullptr), label)
                .get();
        std::string answer = describeEntry(*store->get(key));
        return inForce
                   ? answer
                   : answer + "\n(stored under " + quoted(label) + "; that label's value is not in force)";
      },
      2, 3});
  administration_->registerCommand(Command{kList, "List the configuration keys (those starting with PREFIX).",
                                           [store](Arguments&& arguments) {
                                             std::string text;
                                             for (const auto& entry : store->list()) {
                                               if (arguments.empty() ||
                                                   entry.key.rfind(arguments[0], 0) == 0) {
                                                 text += describeEntry(entry) + '\n';
                                               }
                                             }
                                             return text;
                                           },
                                           0, 1});
}

ConfigurationCommands::~ConfigurationCommands() {
  for (const char* name : kCommandNames) {
    administration_->unregisterCommand(name);
  }
}

}  // namespace host
}  // namespace connector
