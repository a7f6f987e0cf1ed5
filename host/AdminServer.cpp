#include "host/AdminServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/log/Log.h"
#include "host/detail/AdminSession.h"
#include "host/detail/GracefulStop.h"

namespace connector {
namespace host {
namespace detail {

namespace {

const char* const kAuditChannel = "connector.audit";

const foundation::log::channel& auditLog() {
  static const foundation::log::channel channel(kAuditChannel);
  return channel;
}

std::string errnoText(int error) {
  return std::strerror(error);
}

}  // namespace

ServerState::ServerState(std::shared_ptr<CommandRegistry> registryIn, const std::string& pathIn,
                         Options optionsIn)
    : registry(std::move(registryIn)), path(pathIn), options(optionsIn) {
  if (!registry) {
    throw std::invalid_argument("the administration server needs a command registry, not null");
  }
  if (options.maxConnections == 0) {
    throw std::invalid_argument("the administration server needs maxConnections of at least 1");
  }
  pool = std::make_unique<detail::CommandPool>(options.maxConnections);
  socketFile = std::make_unique<detail::SocketFile>(acceptor, path);
  returnPath->context = &context;
}

void ServerState::accept() {
  acceptor.async_accept([this](const boost::system::error_code& error, Local::socket socket) {
    if (shuttingDown) {
      return;
    }
    if (error) {
      // Out of descriptors, most likely: try again a little later rather than spin.
      serverLog().warn("accepting a connection on " + path + " failed: " + error.message());
      retryTimer.expires_after(std::chrono::milliseconds(100));
      retryTimer.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled && !shuttingDown) {
          accept();
        }
      });
      return;
    }
    activity->connections.fetch_add(1, std::memory_order_relaxed);
    ucred peer{};
    socklen_t size = sizeof peer;
    std::string refusal;
    bool counts = false;
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
      refusal = "the server cannot read this connection's credentials: " + errnoText(errno);
      refusals.record(Refusal::foreignPeer, refusal, false);
      auditLog().warn("refused a connection on " + path + ": no peer credentials (" + errnoText(errno) + ")");
    } else if (peer.uid != uid && peer.uid != 0) {
      refusal = "uid " + std::to_string(peer.uid) + " may not use this endpoint; only uid " +
                std::to_string(uid) + " and root may";
      refusals.record(Refusal::foreignPeer, refusal, false);
      auditLog().warn("refused uid=" + std::to_string(peer.uid) + " pid=" + std::to_string(peer.pid) +
                      " on " + path + ": not the server's uid " + std::to_string(uid) + " nor root");
    } else if (counted >= options.maxConnections) {
      refusal = "too many connections: the server takes " + std::to_string(options.maxConnections) +
                " at once; try again when one has closed";
      refusals.record(Refusal::tooManyConnections, "a connection from uid=" + std::to_string(peer.uid) +
                                                       " pid=" + std::to_string(peer.pid) + ": " + refusal);
    } else {
      counts = true;
      ++counted;
    }
    const std::string caller = "uid=" + std::to_string(peer.uid) + " pid=" + std::to_string(peer.pid);
    startSession(*this, std::move(socket), refusal, counts, caller);
    accept();
  });
}

void ServerState::beginShutdown() {
  shuttingDown = true;
  boost::system::error_code ignored;
  acceptor.close(ignored);
  retryTimer.cancel();
  socketFile->remove();
  // Past the grace period, connections still waiting for a command or a slow reader are closed.
  drainThenClose(
      sessions, graceTimer, stopDeadline, [](Session& session) { drainSession(session); },
      [](Session& session) { closeSession(session); });
}

}  // namespace detail

namespace asio = boost::asio;
using detail::serverLog;

struct AdminServer::Impl : detail::ServerState {
  using ServerState::ServerState;
};

AdminServer::AdminServer(std::shared_ptr<CommandRegistry> registry, const std::string& socketPath)
    : AdminServer(std::move(registry), socketPath, Options()) {}

AdminServer::AdminServer(std::shared_ptr<CommandRegistry> registry, const std::string& socketPath,
                         Options options)
    : impl_(std::make_unique<Impl>(std::move(registry), socketPath, options)) {
  impl_->accept();
  impl_->ioThread = std::thread([impl = impl_.get()] { impl->context.run(); });
  serverLog().info("serving administration commands on " + socketPath);
}

AdminServer::~AdminServer() {
  stop();
}

void AdminServer::stop() {
  if (impl_->stopped) {
    return;
  }
  impl_->stopped = true;
  const auto deadline = std::chrono::steady_clock::now() + impl_->options.shutdownGrace;
  impl_->stopDeadline = deadline;
  asio::post(impl_->context, [impl = impl_.get()] { impl->beginShutdown(); });
  impl_->ioThread.join();
  impl_->returnPath->close();
  impl_->pool->shutdown(deadline);
  serverLog().info("stopped serving on " + impl_->path);
}

const std::string& AdminServer::socketPath() const {
  return impl_->path;
}

AdminServer::RefusalCounts AdminServer::refusals() const {
  return impl_->refusals.snapshot();
}

AdminServer::ActivityCounts AdminServer::activity() const {
  const detail::ActivityCounters& counts = *impl_->activity;
  return {counts.connections.load(std::memory_order_relaxed),
          counts.commandsSucceeded.load(std::memory_order_relaxed),
          counts.commandsFailed.load(std::memory_order_relaxed)};
}

}  // namespace host
}  // namespace connector
