#include "host/detail/AdminSession.h"

#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <boost/asio/write.hpp>

#include "host/AdminProtocol.h"

namespace connector {
namespace host {
namespace detail {

using admin::Response;
using admin::Status;

namespace {

const char* const kServerChannel = "connector.admin";
const char* const kEmptyRequest = "empty request; send a command name and its arguments, e.g. help";
constexpr std::size_t kReadChunk = 16 * 1024;

std::string idleText(std::chrono::milliseconds idle) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(idle).count();
  return seconds > 0 ? std::to_string(seconds) + " s" : std::to_string(idle.count()) + " ms";
}

}  // namespace

const foundation::log::channel& serverLog() {
  static const foundation::log::channel channel(kServerChannel);
  return channel;
}

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
    server_.pool->submit([registry = server_.registry, path = server_.returnPath, activity = server_.activity,
                          weak, caller = caller_, name = std::move(name),
                          arguments = std::move(arguments)]() mutable {
      CommandRegistry::Result result{false, {}};
      try {
        result = registry->execute(name, std::move(arguments), caller);
      } catch (const std::exception& error) {
        // Out of memory, most likely: the request fails alone and the server goes on.
        result = {false, name + " could not run: " + error.what()};
      } catch (...) {
        result = {false, name + " could not run: an unknown exception"};
      }
      (result.succeeded ? activity->commandsSucceeded : activity->commandsFailed)
          .fetch_add(1, std::memory_order_relaxed);
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

void startSession(ServerState& server, Local::socket socket, const std::string& refusal, bool counted,
                  std::string caller) {
  std::make_shared<Session>(server, std::move(socket))->start(refusal, counted, std::move(caller));
}

void drainSession(Session& session) {
  session.drain();
}

void closeSession(Session& session) {
  session.close();
}

}  // namespace detail
}  // namespace host
}  // namespace connector
