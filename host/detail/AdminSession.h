// The administration server's per-connection side: the state a session shares with its server,
// the way back from the command pool to the I/O thread, the refusal counts, and the sessions
// themselves (in AdminSession.cpp). Everything here but ReturnPath, RefusalLog::snapshot() and the
// owner's fields of ServerState is used from the I/O thread only.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "foundation/log/Log.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "host/detail/CommandPool.h"
#include "host/detail/SocketFile.h"

namespace connector {
namespace host {
namespace detail {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

// The server's channel, "connector.admin".
const foundation::log::channel& serverLog();

// The way back from the pool to the I/O thread. Closed before the io_context goes, so that a
// command finishing late posts nothing into a destroyed context.
struct ReturnPath {
  std::mutex mutex;
  asio::io_context* context;  // guarded by mutex; null once closed

  void post(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(mutex);
    if (context != nullptr) {
      asio::post(*context, std::move(handler));
    }
  }
  void close() {
    std::lock_guard<std::mutex> lock(mutex);
    context = nullptr;
  }
};

class Session;

// The limits that refuse something, as counted in AdminServer::RefusalCounts.
enum class Refusal { lineTooLong, notText, tooManyConnections, foreignPeer };
constexpr std::size_t kRefusalKinds = 4;
constexpr auto kRefusalLogInterval = std::chrono::seconds(10);

// Counts refusals by reason and logs them, at most one record per reason per interval.
class RefusalLog {
 public:
  // From the I/O thread only. `what` describes the refusal; `logged` is false for a reason that
  // is recorded elsewhere.
  void record(Refusal reason, const std::string& what, bool logged = true) {
    const auto index = static_cast<std::size_t>(reason);
    counts_[index].fetch_add(1, std::memory_order_relaxed);
    Pace& pace = paces_[index];
    const auto now = std::chrono::steady_clock::now();
    if (!logged || (pace.logged && now - pace.last < kRefusalLogInterval)) {
      ++pace.suppressed;
      return;
    }
    const std::string more = pace.suppressed == 0 ? std::string()
                                                  : " (" + std::to_string(pace.suppressed) +
                                                        " more like it since the last such record)";
    serverLog().warn("refused " + what + more);
    pace = Pace{now, 0, true};
  }

  AdminServer::RefusalCounts snapshot() const {
    const auto count = [this](Refusal reason) {
      return counts_[static_cast<std::size_t>(reason)].load(std::memory_order_relaxed);
    };
    return {count(Refusal::lineTooLong), count(Refusal::notText), count(Refusal::tooManyConnections),
            count(Refusal::foreignPeer)};
  }

 private:
  struct Pace {
    std::chrono::steady_clock::time_point last;
    std::uint64_t suppressed = 0;
    bool logged = false;
  };
  std::array<std::atomic<std::uint64_t>, kRefusalKinds> counts_{};  // read from any thread
  std::array<Pace, kRefusalKinds> paces_{};                         // the I/O thread's
};

// AdminServer::ActivityCounts as they grow: written by the I/O thread and the command pool,
// read from any thread.
struct ActivityCounters {
  std::atomic<std::uint64_t> connections{0};
  std::atomic<std::uint64_t> commandsSucceeded{0};
  std::atomic<std::uint64_t> commandsFailed{0};
};

// The server's state; everything but the owner's `stopped` flag is used from the I/O thread.
struct ServerState {
  using Options = AdminServer::Options;
  ServerState(std::shared_ptr<CommandRegistry> registry, const std::string& path, Options options);
  ServerState(const ServerState&) = delete;
  ServerState& operator=(const ServerState&) = delete;

  void accept();
  void beginShutdown();

  const std::shared_ptr<CommandRegistry> registry;
  const std::string path;
  const Options options;
  const uid_t uid = ::geteuid();

  // The I/O thread's own state: touched only from it, or once it has been joined. The context
  // runs until no handler is pending, so no session outlives the I/O thread.
  std::unordered_set<Session*> sessions;
  std::size_t counted = 0;  // sessions that take one of maxConnections
  RefusalLog refusals;
  const std::shared_ptr<ActivityCounters> activity = std::make_shared<ActivityCounters>();
  bool shuttingDown = false;

  asio::io_context context;
  Local::acceptor acceptor{context};
  asio::steady_timer retryTimer{context};  // paces accept() after a failure such as EMFILE
  asio::steady_timer graceTimer{context};  // bounds the shutdown's wait for running commands
  std::shared_ptr<ReturnPath> returnPath = std::make_shared<ReturnPath>();
  std::unique_ptr<detail::CommandPool> pool;       // made once the options are known to be sound
  std::unique_ptr<detail::SocketFile> socketFile;  // then the socket file, listening

  // The I/O thread runs until every socket and timer is done with, which after beginShutdown()
  // is when the last connection has closed.
  std::thread ioThread;
  bool stopped = false;  // touched by the owner's thread only
  // The one deadline of the whole stop: closing the connections and waiting for the command
  // threads. Set by the owner before it posts beginShutdown().
  std::chrono::steady_clock::time_point stopDeadline;
};

// Serves a connection accepted by `server`, or refuses it with `refusal` (when not empty).
// `counted`: it takes one of maxConnections. `caller` names the peer in the audit trail.
void startSession(ServerState& server, Local::socket socket, const std::string& refusal, bool counted,
                  std::string caller);

// Shutdown: the session takes no further request and closes once its running command's answer is
// written. May destroy the session.
void drainSession(Session& session);

// Closes the session's socket now. May destroy the session.
void closeSession(Session& session);

}  // namespace detail
}  // namespace host
}  // namespace connector
