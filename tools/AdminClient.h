// connector-shell's two administration modes: serving a host's commands on a Unix socket
// (--serve), and running commands on such a server from another process (--connect).
//
// AdminClient is one connection to a server; it owns its socket. Use it from one thread at a
// time. The modes own everything they make and return the process's exit status.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>

#include "host/AdminProtocol.h"
#include "host/CommandRegistry.h"
#include "host/MonitoringSources.h"

namespace connector {
namespace shell {

// The server could not be reached, or it closed the connection; what() says why and, for a
// command, whether it ran. notRun: the server refused the command unread (it answered "closed",
// e.g. after the idle time), so sending it again on a new connection runs it once.
class Unreachable : public std::runtime_error {
 public:
  explicit Unreachable(const std::string& text, bool notRun = false)
      : std::runtime_error(text), notRun(notRun) {}
  bool notRun;
};

class AdminClient {
 public:
  // Connects to the server on `socketPath`. Throws Unreachable with the reason.
  explicit AdminClient(const std::string& socketPath);

  // Sends the command `words` (name first) and waits for its answer, which is ok or error.
  // Throws Unreachable when the connection fails or the server closes it (with its reason), and
  // std::invalid_argument for words no request line can carry.
  host::admin::Response call(const std::vector<std::string>& words);

 private:
  std::string socketPath_;
  boost::asio::io_context context_;
  boost::asio::local::stream_protocol::socket socket_;
  host::admin::ResponseReader reader_;
};

struct ClientOptions {
  std::string socketPath;
  std::vector<std::string> commands;  // -c lines, run in order
  std::string script;                 // --script FILE, run after the commands
};

// --connect: runs the -c commands and the script, or without either reads commands from standard
// input (a prompt with line editing, history and Tab completion on a terminal). Prints each
// answer's text on standard output and each error as "error: ..." on standard error. Returns 0
// when every command succeeded, 1 when one failed, 2 when the server could not be reached or the
// script read (the reason on standard error).
int runClient(const ClientOptions& options);

// --serve: serves `registry` on `socketPath`, and with an `httpEndpoint` (--http) `sources` with
// the administration server over HTTP, until SIGINT or SIGTERM, then stops cleanly and returns 0;
// returns 2 when a server cannot start (the reason on standard error). Prints "serving on SOCKET"
// (and "serving HTTP on HOST:PORT") on standard output once clients can connect. SIGHUP reopens every file
// the process writes (as connector.log.reopen does) and records it on "connector.admin"; the server goes on.
// Call blockServerSignals() first.
int serve(std::shared_ptr<host::CommandRegistry> registry, const std::string& socketPath,
          const std::string& httpEndpoint, host::MonitoringSources sources);

// For --serve, before any thread starts (so that every thread inherits the mask): blocks SIGHUP,
// SIGINT and SIGTERM, which only serve() takes, and ignores SIGUSR1 and SIGUSR2.
void blockServerSignals();

}  // namespace shell
}  // namespace connector
