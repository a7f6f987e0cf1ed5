// The administration endpoint: serves a CommandRegistry's commands to other processes of the
// same user over a Unix domain socket, in the line protocol of host/AdminProtocol.h.
//
// Access: the socket file is made with mode 0600 before it accepts anything, and each peer's
// credentials (SO_PEERCRED) are checked: only the server's own uid and root are served; anyone
// else gets one "closed" answer and is disconnected, and the refusal is logged on the process-log
// channel "connector.audit". Every command runs through CommandRegistry::execute() with the
// caller "uid=U pid=P", which audits it.
//
// Limits, each answered with a text that says so: a request line over kMaxRequestLine bytes
// ("closed"), more than maxConnections connections at once (the extra one gets "closed"), a
// connection that sends no complete request line for idleTimeout, partial line or not ("closed"), a request
// that is not UTF-8 or holds NUL ("error"; the connection goes on).
//
// Threads: one I/O thread owns every socket; commands run on a pool of maxConnections threads, so
// a slow command never holds up another connection. A connection runs one request at a time, in
// the order received, so its answers come back in order however many it pipelines.
//
// Ownership: the server shares the registry. The constructor starts serving and the destructor
// (or stop()) ends it: stops accepting, lets running commands finish for up to shutdownGrace,
// closes the connections and removes the socket file, all within the one shutdownGrace. A command
// that throws (out of memory, say) is answered "error" with its text; the server goes on. Construct, stop and
// destroy from one thread; never from a command handler.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "host/CommandRegistry.h"

namespace connector {
namespace host {

class AdminServer {
 public:
  // How many times each limit has refused something since the server started. Each refusal is
  // also logged on "connector.admin" at warn, at most once per reason in 10 s; a record says how
  // many of its reason went unlogged since the one before. (A peer of another uid is audited on
  // "connector.audit" each time instead.)
  struct RefusalCounts {
    std::uint64_t lineTooLong = 0;         // a request line over kMaxRequestLine bytes
    std::uint64_t notText = 0;             // a request holding NUL or bytes that are not UTF-8
    std::uint64_t tooManyConnections = 0;  // a connection beyond maxConnections
    std::uint64_t foreignPeer = 0;         // a peer of another uid, or without credentials
  };

  // What the server has served since it started: connections accepted (refused ones included)
  // and commands run, by whether they succeeded.
  struct ActivityCounts {
    std::uint64_t connections = 0;
    std::uint64_t commandsSucceeded = 0;
    std::uint64_t commandsFailed = 0;
  };

  struct Options {
    std::size_t maxConnections = 32;
    std::chrono::milliseconds idleTimeout = std::chrono::minutes(5);
    std::chrono::milliseconds shutdownGrace = std::chrono::seconds(5);
  };

  // Starts serving `registry` on `socketPath`. A socket file there that no process serves any
  // more is replaced. Throws std::runtime_error, naming the path, when the path is too long for a
  // Unix socket, is not a socket, is served by a live process, or cannot be bound, and when the
  // maxConnections command threads cannot be made (the options are checked before any is made);
  // std::invalid_argument for a null registry or maxConnections of 0.
  AdminServer(std::shared_ptr<CommandRegistry> registry, const std::string& socketPath);
  AdminServer(std::shared_ptr<CommandRegistry> registry, const std::string& socketPath, Options options);
  ~AdminServer();
  AdminServer(const AdminServer&) = delete;
  AdminServer& operator=(const AdminServer&) = delete;

  // Ends serving as described above, returning within shutdownGrace (plus scheduling) however long
  // a command runs; later calls do nothing. A command still running after the grace period keeps
  // its thread until it returns; its answer is dropped.
  void stop();

  const std::string& socketPath() const;

  // The counts at one moment; safe from any thread, for a metrics exporter.
  RefusalCounts refusals() const;
  ActivityCounts activity() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace host
}  // namespace connector
