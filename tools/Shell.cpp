#include "tools/Shell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <boost/variant/apply_visitor.hpp>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/core/diag/Demangle.h"
#include "foundation/log/Log.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "tools/DemoMessages.h"

namespace connector {
namespace shell {

namespace {

const char* const kEchoName = "echo";
const char* const kLoggerName = "svc";
const char* const kEchoAddress = "echo";
const char* const kOperatorLabel = "operator";
const char* const kLogChannel = "connector.shell";
const char* const kMessageTypes = "ping, greeting, order";

const char* const kUsage = R"(Usage: connector-shell [--script FILE] [--log-dir DIR] [--help]

An interactive host for the connector common services. It runs an EchoServiceProvider named
"echo" behind a LoggingServiceProvider named "svc" on the address "echo" (svc writes its lines
to standard output), the connector and process-log administration commands, and the process log.

Options:
  --script FILE   run the commands in FILE, each echoed after the prompt, instead of reading
                  standard input; stops at the end of the file or at "quit"
  --log-dir DIR   the directory that "file:" destinations of the process log must lie in; a
                  relative "file:PATH" is taken relative to it (default: the current directory)
  --help          print this text and exit

Commands:
  send ADDRESS TYPE [TEXT]      send a message to ADDRESS and print the answer; TYPE is ping,
                                greeting or order (greeting and order carry TEXT)
  config set KEY VALUE [LABEL]  set KEY to VALUE under LABEL (default "operator"); the label
                                "default" is the lowest layer and never hides another label's value
  config get KEY                print KEY's value, its type and the label it was set under
  config list                   print every key that has a value
  help                          list the shell's commands and the administration commands
  quit                          leave the shell (so does the end of the input)
  NAME [ARGUMENT...]            run the administration command NAME, for example
                                connector.listServiceProviders or
                                connector.log.setSpecification "warn,connector.*=debug"

Values: true and false are bools, whole numbers are ints, anything else is a string; a quoted
value is always a string ("42"). Double quotes group words into one; inside them a backslash
takes the next character as it is. A line whose first word starts with # is a comment.

Keys of svc: svc.enabled (bool: log at all), svc.filter (string: log only the messages whose
type name starts with it, e.g. demo::Order), svc.prefix (string: starts every line).

From a terminal the shell reads with a prompt, line editing, history and Tab completion.
Errors are printed as "error: ..." on standard error and the shell goes on.

Exit status: 2 for a wrong option, an unreadable script or a log directory that does not exist;
otherwise 0, except that with --script or piped input it is 1 when a command failed.
)";

const char* const kShellHelp = R"(Shell commands:
  send ADDRESS TYPE [TEXT]      send a message (TYPE: ping, greeting, order) and print the answer
  config set KEY VALUE [LABEL]  set a configuration value (LABEL defaults to "operator")
  config get KEY                print a key's value, type and label
  config list                   print every key
  help                          print this list
  quit                          leave the shell
Administration commands (NAME [ARGUMENT...]):
)";

std::string quotedText(const std::string& text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

std::string utf16Text(const std::u16string& text) {
  std::string shown = "u\"";
  for (char16_t unit : text) {
    if (unit >= 0x20 && unit < 0x7f && unit != u'"' && unit != u'\\') {
      shown += static_cast<char>(unit);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(unit));
      shown += escaped;
    }
  }
  return shown + '"';
}

// A value as the shell prints it, and the name of its type.
template <typename T>
std::pair<std::string, std::string> shown(const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return {value ? "true" : "false", "bool"};
  } else if constexpr (std::is_same_v<T, int>) {
    return {std::to_string(value), "int"};
  } else if constexpr (std::is_same_v<T, unsigned int>) {
    return {std::to_string(value), "unsigned"};
  } else if constexpr (std::is_same_v<T, double>) {
    std::ostringstream text;
    text << value;
    return {text.str(), "double"};
  } else if constexpr (std::is_same_v<T, std::string>) {
    return {quotedText(value), "string"};
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    return {utf16Text(value), "utf-16 string"};
  } else {
    std::string text = "[";
    std::string element = "value";
    for (std::size_t i = 0; i < value.size(); ++i) {
      auto item = shown(static_cast<typename T::value_type>(value[i]));
      text += (i == 0 ? "" : ", ") + item.first;
      element = item.second;
    }
    if (value.empty()) {
      element = shown(typename T::value_type()).second;
    }
    return {text + "]", "list of " + element};
  }
}

std::pair<std::string, std::string> shown(const configuration::ConfigValue& value) {
  return boost::apply_visitor([](const auto& alternative) { return shown(alternative); }, value);
}

// The typed value of a `config set` word: quoted words are strings; true and false are bools;
// whole numbers are ints (and must fit one); anything else is a string.
configuration::ConfigValue parseValue(const std::string& text, bool quoted) {
  if (quoted) {
    return text;
  }
  if (text == "true" || text == "false") {
    return text == "true";
  }
  std::size_t digits = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
  const bool number =
      text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos;
  if (!number) {
    return text;
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

std::unique_ptr<Message> makeMessage(const std::string& type, const std::string* text) {
  if (type == "ping") {
    if (text != nullptr) {
      throw std::invalid_argument("a ping carries no text; send it as: send ADDRESS ping");
    }
    return std::make_unique<demo::Ping>();
  }
  if (type == "greeting") {
    return std::make_unique<demo::Greeting>(text != nullptr ? *text : std::string());
  }
  if (type == "order") {
    return std::make_unique<demo::Order>(text != nullptr ? *text : std::string());
  }
  throw std::invalid_argument("unknown message type \"" + type + "\"; the types are " + kMessageTypes);
}

std::string describeAnswer(const std::unique_ptr<Message>& answer) {
  if (!answer) {
    return "no message";
  }
  if (const auto* known = dynamic_cast<const demo::DemoMessage*>(answer.get())) {
    return known->describe();
  }
  const Message& message = *answer;
  return foundation::core::diag::readable_type_name(typeid(message));
}

const foundation::log::channel& shellLog() {
  static const foundation::log::channel channel(kLogChannel);
  return channel;
}

}  // namespace

Shell::Shell(std::ostream& out, std::ostream& err) : out_(out), err_(err) {
  configuration_ =
      std::make_shared<host::ConfigurationStore>([this](const std::string& key, std::exception_ptr error) {
        std::string reason;
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& e) {
          reason = e.what();
        } catch (...) {
          reason = "an exception that is not a std::exception";
        }
        std::lock_guard<std::mutex> lock(deliveryErrorsMutex_);
        deliveryErrors_.push_back("a subscriber of " + key + " refused the value: " + reason);
      });
  registry_ = std::make_shared<host::CommandRegistry>();
  connector_ = std::make_shared<host::Connector>();
  connector_->addServiceProvider(kEchoName, std::make_shared<common_services::EchoServiceProvider>());
  connector_->addServiceProvider(kLoggerName, std::make_shared<common_services::LoggingServiceProvider>(
                                                  configuration_, kLoggerName, out_));
  connector_->setRoute(kEchoAddress, {kLoggerName, kEchoName});
  connectorCommands_ = std::make_unique<common_services::ConnectorCommandProvider>(connector_, registry_);
  logCommands_ = std::make_unique<common_services::LoggingCommandProvider>(registry_);
}

Shell::~Shell() = default;

bool Shell::run(const std::string& line) {
  std::vector<Word> words;
  try {
    words = split(line);
  } catch (const std::invalid_argument& error) {
    return fail(error.what());
  }
  if (words.empty() || (!words[0].quoted && words[0].text[0] == '#')) {
    return true;
  }
  shellLog().debug("running: " + line);
  const std::string& command = words[0].text;
  bool succeeded = false;
  if (command == "send") {
    succeeded = send(words);
  } else if (command == "config") {
    succeeded = config(words);
  } else if (command == "help") {
    succeeded = help(words);
  } else if (command == "quit") {
    quit_ = words.size() == 1;
    succeeded = quit_ || fail("quit takes no arguments");
  } else {
    std::vector<std::string> arguments;
    for (std::size_t i = 1; i < words.size(); ++i) {
      arguments.push_back(words[i].text);
    }
    host::CommandRegistry::Result result = registry_->execute(command, std::move(arguments));
    if (!result.succeeded) {
      return fail(result.text);
    }
    out_ << result.text;
    if (!result.text.empty() && result.text.back() != '\n') {
      out_ << '\n';
    }
    out_.flush();
    succeeded = true;
  }
  return succeeded;
}

std::vector<Shell::Word> Shell::split(const std::string& line) {
  std::vector<Word> words;
  std::size_t i = 0;
  while (i < line.size()) {
    if (line[i] == ' ' || line[i] == '\t' || line[i] == '\r' || line[i] == '\n') {
      ++i;
      continue;
    }
    Word word{"", false};
    while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r' && line[i] != '\n') {
      if (line[i] != '"') {
        word.text += line[i++];
        continue;
      }
      word.quoted = true;
      const std::size_t opening = i++;
      while (i < line.size() && line[i] != '"') {
        if (line[i] == '\\' && i + 1 < line.size()) {
          ++i;
        }
        word.text += line[i++];
      }
      if (i == line.size()) {
        throw std::invalid_argument("the quote at column " + std::to_string(opening + 1) +
                                    " is not closed; end the quoted text with \"");
      }
      ++i;
    }
    words.push_back(std::move(word));
  }
  return words;
}

bool Shell::send(const std::vector<Word>& words) {
  if (words.size() < 3 || words.size() > 4) {
    const std::size_t given = words.size() - 1;
    return fail("send takes ADDRESS TYPE [TEXT], but was given " + std::to_string(given) +
                (given == 1 ? " word" : " words") + "; quote a TEXT that has blanks");
  }
  std::unique_ptr<Message> message;
  try {
    message = makeMessage(words[2].text, words.size() == 4 ? &words[3].text : nullptr);
  } catch (const std::invalid_argument& error) {
    return fail(error.what());
  }
  try {
    std::unique_ptr<Message> answer = connector_->send(std::move(message), Address(words[1].text)).get();
    out_ << "answer: " << describeAnswer(answer) << std::endl;
    return true;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

bool Shell::config(const std::vector<Word>& words) {
  const std::string sub = words.size() > 1 ? words[1].text : std::string();
  if (sub == "list" && words.size() == 2) {
    for (const auto& entry : configuration_->list()) {
      out_ << describeEntry(entry) << '\n';
    }
    out_.flush();
    return true;
  }
  if (sub == "get" && words.size() == 3) {
    std::optional<host::ConfigurationStore::Entry> entry = configuration_->get(words[2].text);
    if (!entry) {
      return fail("configuration key \"" + words[2].text + "\" has no value; \"config list\" shows the keys");
    }
    out_ << describeEntry(*entry) << std::endl;
    return true;
  }
  if (sub == "set" && (words.size() == 4 || words.size() == 5)) {
    const std::string& key = words[2].text;
    const std::string label = words.size() == 5 ? words[4].text : kOperatorLabel;
    bool inForce = false;
    try {
      configuration::ConfigValue value = parseValue(words[3].text, words[3].quoted);
      {
        std::lock_guard<std::mutex> lock(deliveryErrorsMutex_);
        deliveryErrors_.clear();
      }
      inForce = configuration_->set(key, std::move(value), label).get();
    } catch (const std::exception& error) {
      return fail(error.what());
    }
    std::vector<std::string> refusals;
    {
      std::lock_guard<std::mutex> lock(deliveryErrorsMutex_);
      refusals.swap(deliveryErrors_);
    }
    if (!refusals.empty()) {
      auto value = shown(parseValue(words[3].text, words[3].quoted));
      return fail(key + " = " + value.first + " (" + value.second + ") is stored, but " + refusals.front());
    }
    if (!inForce) {
      out_ << key << ": the value is stored under \"" << label
           << "\" but another label's value stays in force\n";
    }
    out_ << describeEntry(*configuration_->get(key)) << std::endl;
    return true;
  }
  return fail("config takes one of: set KEY VALUE [LABEL], get KEY, list");
}

bool Shell::help(const std::vector<Word>& words) {
  if (words.size() != 1) {
    return fail("help takes no arguments");
  }
  out_ << kShellHelp << registry_->execute("help", {}).text;
  out_.flush();
  return true;
}

bool Shell::fail(const std::string& text) {
  shellLog().debug("failed: " + text);
  out_.flush();
  err_ << "error: " << text << std::endl;
  return false;
}

std::string Shell::describeEntry(const host::ConfigurationStore::Entry& entry) const {
  auto value = shown(entry.value);
  return entry.key + " = " + value.first + " (" + value.second + ", label \"" + entry.label + "\")";
}

std::vector<std::string> Shell::commandNames() const {
  std::vector<std::string> names{"send", "config", "help", "quit"};
  for (const auto& command : registry_->describeCommands()) {
    if (command.name != "help") {
      names.push_back(command.name);
    }
  }
  return names;
}

std::vector<std::string> Shell::secondWords(const std::string& first) const {
  if (first == "config") {
    return {"set", "get", "list"};
  }
  std::vector<std::string> words;
  if (first == "send") {
    for (const auto& route : connector_->getRoutes()) {
      words.push_back(route.first);
    }
  }
  return words;
}

std::string Shell::usage() {
  return kUsage;
}

}  // namespace shell
}  // namespace connector
