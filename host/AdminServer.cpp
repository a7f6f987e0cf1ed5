#include "host/AdminServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
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
constexpr std::size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;
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

// Refuses a path that is not a socket or that a live process serves; removes a stale socket.
void clearStaleSocket(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return;
    }
    throw std::runtime_error("cannot inspect the socket path " + path + ": " + errnoText(errno));
  }
  if (!S_ISSOCK(status.st_mode)) {
    throw std::runtime_error(path + " exists and is not a socket; remove it or choose another socket path");
  }
  boost::system::error_code error;
  asio::io_context context;
  Local::socket socket(context);
  socket.connect(Local::endpoint(path), error);
  if (!error) {
    throw std::runtime_error("another process is serving on " + path +
                             "; stop it or choose another socket path");
  }
  if (error != asio::error::connection_refused) {
    throw std::runtime_error("cannot tell whether a process serves on " + path + ": " + error.message());
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw std::runtime_error("cannot remove the stale socket " + path + ": " + errnoText(errno));
  }
}

// A fixed set of threads that run commands. Its state is shared with the threads so that one
// left running past the grace period (detached) never touches freed memory.
class CommandPool {
 public:
  // Throws std::runtime_error when the threads cannot all be made (a thread limit, little memory);
  // the threads made so far are ended first, so the failure never takes the process down.
  explicit CommandPool(std::size_t threads) : state_(std::make_shared<State>()) {
    try {
      for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back([state = state_] { work(*state); });
      }
    } catch (const std::exception& error) {
      const std::size_t made = threads_.size();
      shutdown(std::chrono::steady_clock::now() + std::chrono::hours(1));
      throw std::runtime_error("the administration server could make only " + std::to_string(made) +
                               " of its " + std::to_string(threads) + " command threads (" + error.what() +
                               "); lower maxConnections or raise the process's thread limit");
    }
  }

  // Idle threads end at once; a job still running is waited for.
  ~CommandPool() { shutdown(std::chrono::steady_clock::now() + std::chrono::hours(24 * 365)); }

  void submit(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->jobs.push_back(std::move(job));
    }
    state_->wake.notify_one();
  }

  // Lets the queued and running jobs finish until `deadline`, joins the threads that ended and
  // detaches the others.
  void shutdown(std::chrono::steady_clock::time_point deadline) {
    if (threads_.empty()) {
      return;
    }
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    state_->wake.notify_all();
    const bool allEnded =
        state_->ended.wait_until(lock, deadline, [this] { return state_->endedThreads == threads_.size(); });
    lock.unlock();
    for (std::thread& thread : threads_) {
      if (allEnded) {
        thread.join();
      } else {
        thread.detach();
      }
    }
    threads_.clear();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;            // jobs were queued, or stopping was set
    std::condition_variable ended;           // a thread ended
    std::deque<std::function<void()>> jobs;  // guarded by mutex
    bool stopping = false;                   // guarded by mutex
    std::size_t endedThreads = 0;            // guarded by mutex
  };

  static void work(State& state) {
    std::unique_lock<std::mutex> lock(state.mutex);
    for (;;) {
      state.wake.wait(lock, [&] { return state.stopping || !state.jobs.empty(); });
      if (state.jobs.empty()) {
        break;
      }
      std::function<void()> job = std::move(state.jobs.front());
      state.jobs.pop_front();
      lock.unlock();
      job();          // never throws: run() catches whatever the command's execution throws
      job = nullptr;  // whatever the job holds goes before the lock is taken again
      lock.lock();
    }
    ++state.endedThreads;
    state.ended.notify_all();
  }

  std::shared_ptr<State> state_;
  std::vector<std::thread> threads_;
};

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
  ino_t inode = 0;  // of the socket file this server made; only that one is removed

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
  std::unique_ptr<CommandPool> pool;  // made once the options are known to be sound

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
  if (path.empty() || path.size() > kMaxSocketPath) {
    throw std::runtime_error("the socket path \"" + path + "\" is " + std::to_string(path.size()) +
                             " bytes long; a Unix socket path needs 1 to " + std::to_string(kMaxSocketPath));
  }
  pool = std::make_unique<CommandPool>(options.maxConnections);
  clearStaleSocket(path);
  boost::system::error_code error;
  acceptor.open(Local(), error);
  if (!error) {
    acceptor.bind(Local::endpoint(path), error);
  }
  if (error) {
    throw std::runtime_error("cannot bind the socket " + path + ": " + error.message());
  }
  // No client can connect before listen(), so the mode is right before anyone can use it,
  // whatever the umask was.
  struct stat status {};
  if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0 || ::lstat(path.c_str(), &status) != 0) {
    const int saved = errno;
    ::unlink(path.c_str());
    throw std::runtime_error("cannot make the socket " + path + " private (mode 0600): " + errnoText(saved));
  }
  inode = status.st_ino;
  acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    ::unlink(path.c_str());
    throw std::runtime_error("cannot listen on the socket " + path + ": " + error.message());
  }
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
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && status.st_ino == inode) {
    ::unlink(path.c_str());
  }
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
