#include "host/AdminServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include "foundation/log/Log.h"
#include "host/AdminProtocol.h"
#include "host/detail/CommandPool.h"
#include "host/detail/SocketFile.h"

namespace connector {
namespace host {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;
using admin::Response;
using admin::Status;

namespace {

const char* const kAuditChannel = "connector.audit";
const char* const kServerChannel = "connector.admin";
const char* const kEmptyRequest = "empty request; send a command name and its arguments, e.g. help";
constexpr std::size_t kReadChunk = 16 * 1024;

const foundation::log::channel& auditLog() {
  static const foundation::log::channel channel(kAuditChannel);
  return channel;
}

const foundation::log::channel& serverLog() {
  static const foundation::log::channel channel(kServerChannel);
  return channel;
}

std::string errnoText(int error) {
  return std::strerror(error);
}

std::string idleText(std::chrono::milliseconds idle) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(idle).count();
  return seconds > 0 ? std::to_string(seconds) + " s" : std::to_string(idle.count()) + " ms";
}

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

}  // namespace

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

// The server's state; everything but the owner's `stopped` flag is used from the I/O thread.
struct ServerState {
  using Options = AdminServer::Options;
  ServerState(std::shared_ptr<CommandRegistry> registry, const std::string& path, Options options);

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

struct AdminServer::Impl : ServerState {
  using ServerState::ServerState;
};

// One connection. Lives on the I/O thread, kept alive by the handlers it has pending.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(ServerState& server, Local::socket socket)
      : server_(server), socket_(std::move(socket)), idleTimer_(server.context) {
    server_.sessions.insert(this);
  }

  ~Session() {
    server_.sessions.erase(this);
    if (counted_) {
      --server_.counted;
    }
    if (server_.shuttingDown && server_.sessions.empty()) {
      server_.graceTimer.cancel();
    }
  }

  // Serves the connection, or refuses it with `refusal`.
  void start(const std::string& refusal, bool counted, std::string caller) {
    counted_ = counted;
    caller_ = std::move(caller);
    lastActivity_ = std::chrono::steady_clock::now();
    if (!refusal.empty()) {
      closeWith(refusal);
      return;
    }
    read();
    watchIdle(server_.options.idleTimeout);
  }

  // Shutdown: no further request is taken; the connection closes once its command's answer is
  // written.
  void drain() {
    draining_ = true;
    if (!running_) {
      closeAfterWrite_ = true;
      flush();
    }
  }

  void close() {
    closing_ = true;
    boost::system::error_code ignored;
    idleTimer_.cancel();
    socket_.close(ignored);
  }

 private:
  void read() {
    if (reading_ || closing_) {
      return;
    }
    reading_ = true;
    socket_.async_read_some(
        asio::buffer(buffer_),
        [self = shared_from_this()](const boost::system::error_code& error, std::size_t n) {
          self->reading_ = false;
          if (error == asio::error::eof) {
            // The client has sent its last request (a half-close, as `printf ... | nc -U` does);
            // what it sent is still answered.
            self->inputEnded_ = true;
            self->pump();
            return;
          }
          if (error) {
            self->peerGone_ = true;
            if (!self->running_) {
              self->close();
            }
            return;
          }
          self->reader_.append(std::string_view(self->buffer_.data(), n));
          self->pump();
        });
  }

  // Takes the next request line, if one is complete and none is running.
  void pump() {
    // A client that sends without reading is not answered faster than it reads.
    while (!running_ && !closing_ && !closeAfterWrite_ && !draining_ && pending_.size() < kReadChunk) {
      std::optional<std::string> line;
      try {
        line = reader_.next();
      } catch (const std::length_error& tooLong) {
        server_.refusals.record(Refusal::lineTooLong,
                                "a request line from " + caller_ + ": " + tooLong.what());
        closeWith(tooLong.what());
        return;
      }
      if (!line && inputEnded_) {
        closeAfterWrite_ = true;  // a request cut short by the end of input is dropped
        flush();
        return;
      }
      if (!line) {
        read();
        return;
      }
      // Only a complete request counts as activity: bytes that never make a line (one a minute,
      // say) do not keep a connection's slot.
      lastActivity_ = std::chrono::steady_clock::now();
      const std::string invalid = admin::invalidTextReason(*line);
      if (!invalid.empty()) {
        server_.refusals.record(Refusal::notText, "a request from " + caller_ + ": " + invalid);
        send({Status::error, invalid});
        continue;
      }
      std::vector<admin::Word> words;
      try {
        words = admin::splitWords(*line);
      } catch (const std::invalid_argument& error) {
        send({Status::error, error.what()});
        continue;
      }
      if (words.empty()) {
        send({Status::error, kEmptyRequest});
        continue;
      }
      run(std::move(words));
    }
  }

  void run(std::vector<admin::Word> words) {
    running_ = true;
    std::string name = std::move(words[0].text);
    std::vector<std::string> arguments;
    for (std::size_t i = 1; i < words.size(); ++i) {
      arguments.push_back(std::move(words[i].text));
    }
    std::weak_ptr<Session> weak = shared_from_this();
    server_.pool->submit([registry = server_.registry, path = server_.returnPath, weak, caller = caller_,
                          name = std::move(name), arguments = std::move(arguments)]() mutable {
      CommandRegistry::Result result{false, {}};
      try {
        result = registry->execute(name, std::move(arguments), caller);
      } catch (const std::exception& error) {
        // Out of memory, most likely: the request fails alone and the server goes on.
        result = {false, name + " could not run: " + error.what()};
      } catch (...) {
        result = {false, name + " could not run: an unknown exception"};
      }
      path->post([weak, result = std::move(result)]() mutable {
        if (std::shared_ptr<Session> self = weak.lock()) {
          self->answered(std::move(result));
        }
      });
    });
  }

  void answered(CommandRegistry::Result result) {
    running_ = false;
    lastActivity_ = std::chrono::steady_clock::now();
    if (peerGone_ || closing_) {
      close();
      return;
    }
    closeAfterWrite_ = closeAfterWrite_ || draining_;
    send({result.succeeded ? Status::ok : Status::error, std::move(result.text)});
    pump();
  }

  void closeWith(const std::string& reason) {
    send({Status::closed, reason});
    closeAfterWrite_ = true;
    flush();
  }

  void send(const Response& response) {
    pending_ += admin::frameResponse(response);
    flush();
  }

  void flush() {
    if (writing_ || closing_) {
      return;
    }
    if (pending_.empty()) {
      if (closeAfterWrite_) {
        close();
      }
      return;
    }
    writing_ = true;
    writingNow_.swap(pending_);
    pending_.clear();
    asio::async_write(socket_, asio::buffer(writingNow_),
                      [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                        self->writing_ = false;
                        self->writingNow_.clear();
                        if (error) {
                          self->peerGone_ = true;
                          self->pending_.clear();
                          if (!self->running_) {
                            self->close();
                          }
                          return;
                        }
                        self->lastActivity_ = std::chrono::steady_clock::now();
                        self->flush();
                        self->pump();
                      });
  }

  // Closes the connection when no complete request has arrived nor an answer been written for
  // idleTimeout, partial line or not, unless a
  // command is running: a slow command is not an idle client.
  void watchIdle(std::chrono::steady_clock::duration wait) {
    idleTimer_.expires_after(wait);
    idleTimer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
      if (error || self->closing_) {
        return;
      }
      const auto idle = self->server_.options.idleTimeout;
      const auto since = std::chrono::steady_clock::now() - self->lastActivity_;
      if (self->running_ || since < idle) {
        self->watchIdle(self->running_ ? idle : idle - since);
        return;
      }
      if (self->closeAfterWrite_) {
        self->close();  // its last answer has not moved for the idle time: the peer does not read
        return;
      }
      self->closeWith("the connection was idle for " + idleText(idle) + "; connect again to go on");
      self->watchIdle(idle);
    });
  }

  ServerState& server_;
  Local::socket socket_;
  asio::steady_timer idleTimer_;
  std::array<char, kReadChunk> buffer_{};
  admin::RequestReader reader_;
  std::string pending_;     // framed answers not yet handed to the socket
  std::string writingNow_;  // the bytes of the write in progress
  std::string caller_;
  std::chrono::steady_clock::time_point lastActivity_;
  bool counted_ = false;
  bool reading_ = false;
  bool writing_ = false;
  bool running_ = false;          // a command of this connection is on the pool
  bool peerGone_ = false;         // the peer closed or the socket failed
  bool inputEnded_ = false;       // the peer has shut down its sending side
  bool draining_ = false;         // the server is shutting down
  bool closeAfterWrite_ = false;  // a "closed" answer is on its way; nothing more is read
  bool closing_ = false;          // the socket is closed
};

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
    std::make_shared<Session>(*this, std::move(socket))->start(refusal, counts, caller);
    accept();
  });
}

void ServerState::beginShutdown() {
  shuttingDown = true;
  boost::system::error_code ignored;
  acceptor.close(ignored);
  retryTimer.cancel();
  socketFile->remove();
  // drain() may close and so destroy sessions: walk a copy.
  const std::vector<Session*> open(sessions.begin(), sessions.end());
  for (Session* session : open) {
    session->drain();
  }
  if (sessions.empty()) {
    return;
  }
  // Past the grace period, connections still waiting for a command or a slow reader are closed.
  graceTimer.expires_at(stopDeadline);
  graceTimer.async_wait([this](const boost::system::error_code& error) {
    if (error) {
      return;
    }
    const std::vector<Session*> left(sessions.begin(), sessions.end());
    for (Session* session : left) {
      session->close();
    }
  });
}

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

}  // namespace host
}  // namespace connector
