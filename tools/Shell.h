// The shell's interpreter: builds a host (connector, configuration store, command registry) with
// the library's providers and runs one command line at a time against it.
//
// The host: an EchoServiceProvider "echo" behind a LoggingServiceProvider "svc" on the address
// "echo" (svc writes its lines to the shell's output), a ConnectorCommandProvider, a
// LoggingCommandProvider, a LogOperationsCommandProvider and the command connector.send (the
// shell's send, for clients of the served registry). A line is split into words at blanks; double
// quotes group a word (a backslash inside them escapes the next character). Results go to `out`; each error
// is one line "error: ..." on `err`, written after `out` has been flushed so that the two stay in order on a
// terminal. Whatever came from a user (answers, values, svc's prefix, echoed input) is printed with its
// control bytes escaped, so that no text can clear or recolour the terminal. The Shell owns the host; the
// streams must outlive it. One thread at a time.
#pragma once

#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/AdminProtocol.h"
#include "host/CommandRegistry.h"
#include "host/ConfigurationCommands.h"
#include "host/ConfigurationStore.h"
#include "host/Connector.h"
#include "host/MonitoringSources.h"

namespace connector {
namespace common_services {
class AccessLogServiceProvider;
class ConnectorCommandProvider;
class StatisticsServiceProvider;
class LoggingCommandProvider;
class LogOperationsCommandProvider;
}  // namespace common_services

namespace shell {

class Shell {
 public:
  Shell(std::ostream& out, std::ostream& err);
  ~Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Runs one line; a blank line or a comment (first word starting with '#') does nothing.
  // Returns false when the line failed, after printing why.
  bool run(const std::string& line);

  // Whether "quit" has been run.
  bool quitRequested() const { return quit_; }

  // What may be typed as the first word of a line, for completion.
  std::vector<std::string> commandNames() const;
  // Words that may follow `first` as the second word ("config" subcommands, "send" addresses,
  // the commands that "help" describes).
  std::vector<std::string> secondWords(const std::string& first) const;
  // Words that may follow the words `before` (the line's complete words so far): command names
  // first, then second words, then message types after "send ADDRESS" and configuration keys
  // after "config get" and "config set".
  std::vector<std::string> completions(const std::vector<std::string>& before) const;

  // The text of the shell's --help.
  static std::string usage();

  // The registry of the shell's host, for serving it to other processes.
  std::shared_ptr<host::CommandRegistry> registry() const { return registry_; }

  // What the HTTP monitoring endpoint reads: "metrics", "access", the connector and the version
  // (no administration server: the caller adds the one it runs).
  host::MonitoringSources monitoringSources() const;

 private:
  using Word = host::admin::Word;

  bool send(const std::vector<Word>& words);
  // What send ADDRESS TYPE [TEXT] [-n COUNT] prints, from the words after "send"; throws
  // std::invalid_argument for words it cannot use and std::runtime_error when an answer failed.
  // Also the handler of connector.send, on the administration server's threads.
  std::string sendMessages(std::vector<std::string> words);
  bool config(const std::vector<Word>& words);
  bool help(const std::vector<Word>& words);
  bool fail(const std::string& text);

  struct PrintableOut;  // `out` seen through a filter that escapes control bytes

  std::ostream& out_;
  std::ostream& err_;
  bool quit_ = false;
  const std::unique_ptr<PrintableOut> svcOut_;  // where svc writes its lines; outlives the host
  const std::string user_;                      // the caller the audit trail names

  std::mutex deliveryErrorsMutex_;
  std::vector<std::string> deliveryErrors_;  // guarded by deliveryErrorsMutex_; refusals of the last set

  // Built in this order and destroyed in the reverse: the providers go before the host pieces
  // they registered with.
  std::shared_ptr<host::ConfigurationStore> configuration_;
  std::shared_ptr<host::CommandRegistry> registry_;
  std::shared_ptr<host::Connector> connector_;
  std::shared_ptr<common_services::AccessLogServiceProvider> access_;       // also routed in connector_
  std::shared_ptr<common_services::StatisticsServiceProvider> statistics_;  // also routed in connector_
  std::unique_ptr<common_services::ConnectorCommandProvider> connectorCommands_;
  std::unique_ptr<common_services::LoggingCommandProvider> logCommands_;
  std::unique_ptr<common_services::LogOperationsCommandProvider> logOperations_;
  std::unique_ptr<host::ConfigurationCommands> configCommands_;  // connector.config.*
};

}  // namespace shell
}  // namespace connector
