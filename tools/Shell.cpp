#include "tools/Shell.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <streambuf>
#include <string_view>

#include "commands/ConnectorCommandProvider.h"
#include "commands/LogOperationsCommandProvider.h"
#include "commands/LoggingCommandProvider.h"
#include "foundation/core/diag/Demangle.h"
#include "foundation/log/Log.h"
#include "host/DisplayText.h"
#include "services/AccessLogServiceProvider.h"
#include "services/EchoServiceProvider.h"
#include "services/LoggingServiceProvider.h"
#include "services/StatisticsServiceProvider.h"
#include "tools/DemoMessages.h"
#include "tools/FlakyServiceProvider.h"

namespace connector {
namespace shell {

namespace {

const char* const kEchoName = "echo";
const char* const kLoggerName = "svc";
const char* const kEchoAddress = "echo";
const char* const kAccessName = "access";
const char* const kMetricsName = "metrics";
const char* const kFlakyName = "flaky";
const char* const kApiAddress = "api";
const char* const kFlakyAddress = "flaky";
const char* const kLogChannel = "connector.shell";
const char* const kMessageTypes = "ping, greeting, order, batch";
const char* const kSendCommand = "connector.send";
const char* const kSendDescription =
    "Send a message: ADDRESS TYPE [TEXT] [-n COUNT] (TYPE: ping, greeting, order or batch); answers the "
    "answer, or for COUNT messages a count of their answers and the last one.";

const char* const kUsage =
    R"(Usage: connector-shell [--script FILE] [--config FILE] [--log-dir DIR] [--http HOST:PORT] [--help]
                       [--version]
       connector-shell --serve SOCKET [--config FILE] [--log-dir DIR] [--http HOST:PORT]
       connector-shell --connect SOCKET [-c 'COMMAND ARGS']... [--script FILE]

An interactive host for the connector common services. It runs an EchoServiceProvider named
"echo" behind a LoggingServiceProvider named "svc" on the address "echo" (svc writes its lines
to standard output), the connector and process-log administration commands, and the process log.
The addresses "api" and "flaky" lead through an AccessLogServiceProvider named "access" and a
StatisticsServiceProvider named "metrics" to "echo", and to "flaky", which refuses every third
message.

Options:
  --script FILE   run the commands in FILE, each echoed after the prompt, instead of reading
                  standard input; stops at the end of the file or at "quit"
  --log-dir DIR   the directory that "file:" destinations of the process log must lie in; a
                  relative "file:PATH" is taken relative to it (default: the current directory)
  --config FILE   before anything else, run FILE's lines: "config set KEY VALUE [LABEL]" or an
                  administration command ("#" starts a comment); a bad line stops the start
                  naming the line (exit status 2)
  --help          print this text and exit
  --version       print the version and exit
  --serve SOCKET  run the host without a prompt and serve its administration commands on the
                  Unix socket SOCKET (mode 0600; only this user and root are served) until
                  SIGINT or SIGTERM; SIGHUP reopens the log files, SIGUSR1 and SIGUSR2 are
                  ignored; no --script
  --http HOST:PORT  also serve the host's figures over HTTP, read-only: GET /metrics (Prometheus
                  text format), GET / (a status page) and GET /healthz; HOST is an IP address,
                  such as 127.0.0.1:9464 or [::1]:9464 (port 0: any free port, printed); any
                  address but loopback lets everyone who can reach the port read the figures
  --connect SOCKET  run administration commands on the server at SOCKET: those of -c and
                  --script, else those typed at the prompt ("help" lists the server's);
                  "config get|set|list ..." runs the server's connector.config.get|set|list,
                  "send ..." its connector.send
  -c 'COMMAND ARGS'  with --connect, one command to run (repeatable); prints exactly the
                  answers' texts; exit status 1 if one failed, 2 if the server was not reached

Commands:
  send ADDRESS TYPE [TEXT] [-n COUNT]
                                send a message to ADDRESS and print the answer; TYPE is ping,
                                greeting, order or batch (all but ping carry TEXT); with -n,
                                COUNT messages at once and a count of their answers
  config set KEY VALUE [LABEL]  set KEY to VALUE under LABEL (default "operator"); the label
                                "default" is the lowest layer and never hides another label's value
  config get KEY                print KEY's value, its type and the label it was set under
  config list                   print every key that has a value
  help [COMMAND]                list the shell's commands and the administration commands, or
                                describe one of them
  quit                          leave the shell (so does the end of the input)
  NAME [ARGUMENT...]            run the administration command NAME, for example
                                connector.listServiceProviders or
                                connector.log.setSpecification "warn,connector.*=debug"

Values: true and false are bools, whole numbers are ints, anything else is a string; a quoted
value is always a string ("42"). A key keeps the type of its first value and refuses a value of
another type. Double quotes group words into one; inside them a backslash
takes the next character as it is. A line whose first word starts with # is a comment.

Keys of svc: svc.enabled (bool: log at all), svc.filter (string: log only the messages whose
type name starts with it, e.g. demo::Order), svc.prefix (string: starts every line).
Keys of access: access.enabled, access.errorsOnly (bools), access.slowerThanUs,
access.sampleEvery (ints), access.exclude (type-name prefixes), access.format (text or json),
access.destination (stdout, stderr, null, file:PATH). Commands of metrics: metrics.statistics,
metrics.statistics.reset, metrics.inflight, metrics.slowest.

From a terminal the shell reads with a prompt, line editing and Tab completion (of commands,
addresses, message types and configuration keys). Ctrl-C abandons the line being typed; Ctrl-D
on an empty line leaves. The last 1000 lines are kept in ~/.connector_shell_history.
Errors are printed as "error: ..." on standard error and the shell goes on.

Exit status: 2 for a wrong option, an unreadable script (a directory, say) or a log directory
that does not exist; otherwise 0, except that with --script or piped input it is 1 when a
command failed.
)";

// The commands the shell adds to the administration commands, as "help" lists them.
struct ShellCommand {
  const char* name;
  const char* lines;
};
const ShellCommand kShellCommands[] = {
    {"send",
     "  send ADDRESS TYPE [TEXT] [-n COUNT]  send a message (TYPE: ping, greeting, order, batch), COUNT "
     "times\n"},
    {"config",
     "  config set KEY VALUE [LABEL]  set a configuration value (LABEL defaults to \"operator\")\n"
     "  config get KEY                print a key's value, type and label\n"
     "  config list                   print every key\n"},
    {"quit", "  quit                          leave the shell (so does Ctrl-D on an empty line)\n"},
};
const char* const kShellCommandsTitle = "Shell commands:\n";
const char* const kAdministrationTitle =
    "Administration commands (NAME [ARGUMENT...]; \"help NAME\" describes one):\n";
const char* const kConfigForms = "set KEY VALUE [LABEL], get KEY or list";

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
  if (type == "batch") {
    return std::make_unique<demo::Batch<demo::Order>>(text != nullptr ? *text : std::string());
  }
  throw std::invalid_argument("unknown message type " + host::quoted(type, host::kEchoLimit) +
                              "; the types are " + kMessageTypes);
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

// Who the audit trail names for the commands typed here: the name of the effective user.
std::string localUserName() {
  const passwd* entry = ::getpwuid(::geteuid());
  return entry != nullptr ? entry->pw_name : "uid=" + std::to_string(::geteuid());
}

const foundation::log::channel& shellLog() {
  static const foundation::log::channel channel(kLogChannel);
  return channel;
}

std::string plural(std::size_t count, const char* word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

// Passes everything on to another stream buffer, control bytes other than line feed and tab
// escaped. Unbuffered, so that it and the stream that owns the other buffer stay in order.
class PrintableBuffer final : public std::streambuf {
 public:
  explicit PrintableBuffer(std::streambuf* target) : target_(target) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
      return traits_type::not_eof(c);
    }
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    const std::string shown = host::printable(std::string_view(text, static_cast<std::size_t>(count)));
    const auto size = static_cast<std::streamsize>(shown.size());
    return target_->sputn(shown.data(), size) == size ? count : 0;
  }
  int sync() override { return target_->pubsync(); }

 private:
  std::streambuf* const target_;
};

}  // namespace

struct Shell::PrintableOut {
  explicit PrintableOut(std::ostream& out) : buffer(out.rdbuf()), stream(&buffer) {}
  PrintableBuffer buffer;
  std::ostream stream;
};

Shell::Shell(std::ostream& out, std::ostream& err)
    : out_(out), err_(err), svcOut_(std::make_unique<PrintableOut>(out)), user_(localUserName()) {
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
                                                  configuration_, kLoggerName, svcOut_->stream));
  connector_->setRoute(kEchoAddress, {kLoggerName, kEchoName});
  access_ = std::make_shared<common_services::AccessLogServiceProvider>(configuration_, kAccessName);
  connector_->addServiceProvider(kAccessName, access_);
  statistics_ = std::make_shared<common_services::StatisticsServiceProvider>(registry_, kMetricsName);
  connector_->addServiceProvider(kMetricsName, statistics_);
  connector_->addServiceProvider(kFlakyName, std::make_shared<demo::FlakyServiceProvider>());
  connector_->setRoute(kApiAddress, {kAccessName, kMetricsName, kEchoName});
  connector_->setRoute(kFlakyAddress, {kAccessName, kMetricsName, kFlakyName});
  connectorCommands_ = std::make_unique<common_services::ConnectorCommandProvider>(connector_, registry_);
  logCommands_ = std::make_unique<common_services::LoggingCommandProvider>(registry_);
  logOperations_ = std::make_unique<common_services::LogOperationsCommandProvider>(registry_);
  configCommands_ = std::make_unique<host::ConfigurationCommands>(registry_, configuration_);
  // `send` as an administration command, so that a client of the served host can send too.
  registry_->registerCommand(administration::Command{
      kSendCommand, kSendDescription,
      [this](std::vector<std::string>&& arguments) { return sendMessages(arguments); }, 2, 5});
}

Shell::~Shell() {
  registry_->unregisterCommand(kSendCommand);
}

host::MonitoringSources Shell::monitoringSources() const {
  host::MonitoringSources sources;
  sources.statistics = {statistics_};
  sources.accessLogs = {access_};
  sources.connector = connector_;
  sources.version = CONNECTOR_SHELL_VERSION;
  return sources;
}

bool Shell::run(const std::string& line) {
  std::vector<Word> words;
  try {
    words = host::admin::splitWords(line);
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
    host::CommandRegistry::Result result = registry_->execute(command, std::move(arguments), user_);
    if (!result.succeeded) {
      return fail(result.text);
    }
    out_ << host::printable(result.text);
    if (!result.text.empty() && result.text.back() != '\n') {
      out_ << '\n';
    }
    out_.flush();
    succeeded = true;
  }
  return succeeded;
}

bool Shell::send(const std::vector<Word>& words) {
  std::vector<std::string> arguments;
  for (std::size_t i = 1; i < words.size(); ++i) {
    arguments.push_back(words[i].text);
  }
  try {
    out_ << host::printable(sendMessages(arguments)) << std::endl;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  return true;
}

std::string Shell::sendMessages(std::vector<std::string> words) {
  // A trailing "-n COUNT" sends COUNT messages at once, a burst in one line.
  unsigned long count = 1;
  if (words.size() >= 4 && words[words.size() - 2] == "-n") {
    const std::string& text = words.back();
    if (text.empty() || text.size() > 7 || text.find_first_not_of("0123456789") != std::string::npos ||
        (count = std::stoul(text)) == 0) {
      throw std::invalid_argument("send -n takes a COUNT from 1 to 9999999, not " +
                                  host::quoted(text, host::kEchoLimit));
    }
    words.resize(words.size() - 2);
  }
  if (words.size() < 2 || words.size() > 3) {
    throw std::invalid_argument("send takes ADDRESS TYPE [TEXT] [-n COUNT], but was given " +
                                plural(words.size(), "word") + "; quote a TEXT that has blanks");
  }
  std::vector<Future<std::unique_ptr<Message>>> answers;
  for (unsigned long i = 0; i < count; ++i) {
    answers.push_back(
        connector_->send(makeMessage(words[1], words.size() == 3 ? &words[2] : nullptr), Address(words[0])));
  }
  std::string last;
  std::size_t failed = 0;
  for (auto& answer : answers) {
    try {
      last = "answer: " + describeAnswer(answer.get());
    } catch (const std::exception& error) {
      last = error.what();
      ++failed;
    }
  }
  access_->flush();  // the access log's lines of these requests go before the answer
  if (count == 1 && failed == 1) {
    throw std::runtime_error(last);
  }
  if (count == 1) {
    return last;
  }
  const std::string summary = std::to_string(count) + " sent, " + std::to_string(count - failed) +
                              " answered, " + std::to_string(failed) + " failed; the last: " + last;
  if (failed > 0) {
    throw std::runtime_error(summary);
  }
  return summary;
}

bool Shell::config(const std::vector<Word>& words) {
  if (words.size() == 1) {
    return fail(std::string("config needs one of: ") + kConfigForms);
  }
  const std::string& sub = words[1].text;
  const std::size_t given = words.size() - 2;  // the words after the subcommand
  if (sub == "list") {
    if (given != 0) {
      return fail("config list takes nothing more, but was given " + plural(given, "word"));
    }
    for (const auto& entry : configuration_->list()) {
      out_ << host::describeEntry(entry) << '\n';
    }
    out_.flush();
    return true;
  }
  if (sub == "get") {
    if (given != 1) {
      return fail("config get takes one KEY, but was given " + plural(given, "word"));
    }
    std::optional<host::ConfigurationStore::Entry> entry = configuration_->get(words[2].text);
    if (!entry) {
      return fail("configuration key " + host::quoted(words[2].text, host::kEchoLimit) +
                  " has no value; \"config list\" shows the keys");
    }
    out_ << host::describeEntry(*entry) << std::endl;
    return true;
  }
  if (sub != "set") {
    return fail("config has no subcommand " + host::quoted(sub, host::kEchoLimit) + "; use " + kConfigForms);
  }
  if (given < 2 || given > 3) {
    return fail("config set takes KEY VALUE [LABEL], but was given " + plural(given, "word") +
                "; quote a VALUE that has blanks");
  }
  const std::string& key = words[2].text;
  const std::string label = given == 3 ? words[4].text : host::kOperatorLabel;
  bool inForce = false;
  configuration::ConfigValue value;
  try {
    value = host::parseValue(key, words[3].text, words[3].quoted, nullptr);
    {
      std::lock_guard<std::mutex> lock(deliveryErrorsMutex_);
      deliveryErrors_.clear();
    }
    // The store refuses a value of another type than the key's before storing anything.
    inForce = configuration_->set(key, value, label).get();
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  std::vector<std::string> refusals;
  {
    std::lock_guard<std::mutex> lock(deliveryErrorsMutex_);
    refusals.swap(deliveryErrors_);
  }
  if (!refusals.empty()) {
    return fail(key + " = " + host::describeValue(value) + " (" + host::describeType(value) +
                ") is stored, but " + refusals.front());
  }
  if (!inForce) {
    out_ << key << ": the value is stored under " << host::quoted(label)
         << " but another label's value stays in force\n";
  }
  out_ << host::describeEntry(*configuration_->get(key)) << std::endl;
  return true;
}

bool Shell::help(const std::vector<Word>& words) {
  if (words.size() > 2) {
    return fail("help takes at most one COMMAND, but was given " + plural(words.size() - 1, "word"));
  }
  if (words.size() == 2) {
    for (const ShellCommand& command : kShellCommands) {
      if (words[1].text == command.name) {
        out_ << command.lines;
        out_.flush();
        return true;
      }
    }
  }
  std::vector<std::string> arguments;
  if (words.size() == 2) {
    arguments.push_back(words[1].text);
  }
  const host::CommandRegistry::Result result = registry_->execute("help", std::move(arguments), user_);
  if (!result.succeeded) {
    return fail(result.text);
  }
  if (words.size() == 1) {
    out_ << kShellCommandsTitle;
    for (const ShellCommand& command : kShellCommands) {
      out_ << command.lines;
    }
    out_ << kAdministrationTitle;
  }
  out_ << host::printable(result.text);
  out_.flush();
  return true;
}

bool Shell::fail(const std::string& text) {
  shellLog().debug("failed: " + text);
  out_.flush();
  err_ << "error: " << host::printable(text) << std::endl;
  return false;
}

std::vector<std::string> Shell::commandNames() const {
  std::vector<std::string> names;
  for (const ShellCommand& command : kShellCommands) {
    names.push_back(command.name);
  }
  for (const auto& command : registry_->describeCommands()) {
    names.push_back(command.name);
  }
  return names;
}

std::vector<std::string> Shell::secondWords(const std::string& first) const {
  if (first == "config") {
    return {"set", "get", "list"};
  }
  if (first == "help") {
    return commandNames();
  }
  std::vector<std::string> words;
  if (first == "send") {
    for (const auto& route : connector_->getRoutes()) {
      words.push_back(route.first);
    }
  }
  return words;
}

std::vector<std::string> Shell::completions(const std::vector<std::string>& before) const {
  if (before.empty()) {
    return commandNames();
  }
  if (before.size() == 1) {
    return secondWords(before[0]);
  }
  if (before.size() == 2 && before[0] == "send") {
    return {"ping", "greeting", "order", "batch"};
  }
  std::vector<std::string> keys;
  if (before.size() == 2 && before[0] == "config" && (before[1] == "get" || before[1] == "set")) {
    for (const auto& entry : configuration_->list()) {
      keys.push_back(entry.key);
    }
  }
  return keys;
}

std::string Shell::usage() {
  return kUsage;
}

}  // namespace shell
}  // namespace connector
