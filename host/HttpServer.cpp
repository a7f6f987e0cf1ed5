#include "host/HttpServer.h"

#include <array>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include "foundation/log/Log.h"
#include "host/detail/GracefulStop.h"

namespace connector {
namespace host {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

const char* const kChannel = "connector.http";
const char* const kMetricsType = "text/plain; version=0.0.4; charset=utf-8";
const char* const kPageType = "text/html; charset=utf-8";
const char* const kTextType = "text/plain; charset=utf-8";
const char* const kEndpointForm = "HOST:PORT with HOST an IP address, such as 127.0.0.1:9464 or [::1]:9464";
// How long a closing connection's unread input is drained, so that the peer reads the answer
// before the connection is reset.
constexpr auto kLingerTime = std::chrono::seconds(1);

const foundation::log::channel& httpLog() {
  static const foundation::log::channel channel(kChannel);
  return channel;
}

// The answers counted in HttpServer::Counts, besides connections.
enum class Answer : std::size_t {
  ok,
  badRequest,
  notFound,
  methodNotAllowed,
  timedOut,
  headersTooLarge,
  failed,
  tooManyConnections
};
constexpr std::size_t kAnswerKinds = 8;

Answer answerOf(http::status status) {
  switch (status) {
    case http::status::ok:
      return Answer::ok;
    case http::status::not_found:
      return Answer::notFound;
    case http::status::method_not_allowed:
      return Answer::methodNotAllowed;
    case http::status::request_timeout:
      return Answer::timedOut;
    case http::status::request_header_fields_too_large:
      return Answer::headersTooLarge;
    case http::status::service_unavailable:
      return Answer::tooManyConnections;
    case http::status::internal_server_error:
      return Answer::failed;
    default:
      return Answer::badRequest;
  }
}

asio::ip::address addressOf(const std::string& text) {
  boost::system::error_code error;
  const asio::ip::address address = asio::ip::make_address(text, error);
  if (error) {
    throw std::invalid_argument("the HTTP endpoint needs an IP address, not \"" + text + "\"");
  }
  return address;
}

}  // namespace

namespace detail {
class HttpSession;
}
using detail::HttpSession;

struct HttpServer::Impl {
  explicit Impl(Options optionsIn) : options(std::move(optionsIn)) {}
  void accept();
  void beginShutdown();

  const Options options;
  std::array<std::atomic<std::uint64_t>, kAnswerKinds> answers{};  // read from any thread
  std::atomic<std::uint64_t> connections{0};                       // read from any thread
  std::atomic<std::uint64_t> open{0};                              // read from any thread
  unsigned short port = 0;                                         // set before serving starts

  // The I/O thread's own state: touched only from it, or once it has been joined. The context
  // runs until no handler is pending, so no session outlives the I/O thread.
  std::unordered_set<HttpSession*> sessions;
  std::size_t counted = 0;  // sessions that take one of maxConnections
  bool shuttingDown = false;
  asio::io_context context;
  tcp::acceptor acceptor{context};
  asio::steady_timer retryTimer{context};              // paces accept() after a failure such as EMFILE
  asio::steady_timer graceTimer{context};              // bounds the shutdown's wait for answers being written
  std::chrono::steady_clock::time_point stopDeadline;  // set by the owner before beginShutdown()

  std::thread ioThread;
  bool stopped = false;  // touched by the owner's thread only
};

namespace detail {

// One connection: reads a request's headers, answers, and reads the next while it is kept alive.
// Lives as long as a handler of its own is pending; used from the I/O thread only.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(HttpServer::Impl& server, tcp::socket socket, bool counted)
      : server_(server), socket_(std::move(socket)), timer_(server.context), counted_(counted) {
    server_.sessions.insert(this);
  }
  ~HttpSession() {
    server_.sessions.erase(this);
    if (counted_) {
      --server_.counted;
      server_.open.fetch_sub(1, std::memory_order_relaxed);
    }
    if (server_.shuttingDown && server_.sessions.empty()) {
      server_.graceTimer.cancel();  // nothing left to wait for: let the I/O thread end
    }
  }

  void start() { readRequest(); }

  void refuse() {
    answer(http::status::service_unavailable, kTextType,
           "too many connections: this endpoint takes " + std::to_string(server_.options.maxConnections) +
               " at once; try again when one has closed\n",
           false, false, 11);
  }

  // Shutdown: a connection waiting for a request closes now; one writing closes once written.
  void drain() {
    if (!writing_) {
      close();
    }
  }

  void close() {
    boost::system::error_code ignored;
    timer_.cancel();
    socket_.close(ignored);
  }

 private:
  void readRequest() {
    parser_.emplace();
    parser_->header_limit(HttpServer::kMaxHeaderBytes);
    reading_ = true;
    timedOut_ = false;
    timer_.expires_after(server_.options.headerTimeout);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
      if (!error && self->reading_) {
        self->timedOut_ = true;
        boost::system::error_code ignored;
        self->socket_.cancel(ignored);
      }
    });
    http::async_read_header(socket_, buffer_, *parser_,
                            [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                              self->onHeaders(error);
                            });
  }

  void onHeaders(const boost::system::error_code& error) {
    reading_ = false;
    timer_.cancel();
    if (server_.shuttingDown) {
      close();
    } else if (timedOut_ && buffer_.size() == 0 && !parser_->got_some()) {
      close();  // idle, at its start or between requests: nothing to answer
    } else if (timedOut_) {
      answer(http::status::request_timeout, kTextType,
             "the request's headers did not arrive within " +
                 std::to_string(server_.options.headerTimeout.count()) + " ms\n",
             false, false, 11);
    } else if (error == http::error::header_limit || error == http::error::buffer_overflow) {
      answer(http::status::request_header_fields_too_large, kTextType,
             "the request's headers exceed " + std::to_string(HttpServer::kMaxHeaderBytes) + " bytes\n",
             false, false, 11);
    } else if (error == http::error::end_of_stream || error == http::error::partial_message ||
               error == asio::error::eof || error == asio::error::connection_reset ||
               error == asio::error::operation_aborted) {
      close();  // the peer has gone: nobody to answer
    } else if (error) {
      answer(http::status::bad_request, kTextType, "malformed request: " + error.message() + "\n", false,
             false, 11);
    } else {
      serve(parser_->get());
    }
  }

  void serve(const http::request<http::empty_body>& request) {
    const unsigned version = request.version();
    const bool head = request.method() == http::verb::head;
    const bool body = request.chunked() || (request.has_content_length() && *parser_->content_length() > 0);
    if (request.method() != http::verb::get && !head) {
      // The body, if any, is not read, so the connection cannot go on.
      answer(http::status::method_not_allowed, kTextType, "only GET and HEAD are served here\n",
             request.keep_alive() && !body, false, version);
      return;
    }
    if (body) {
      answer(http::status::bad_request, kTextType, "a GET or HEAD request takes no body\n", false, head,
             version);
      return;
    }
    const std::string_view target(request.target().data(), request.target().size());
    const std::string_view path = target.substr(0, target.find('?'));
    const std::function<std::string()>* render = path == "/metrics" ? &server_.options.metrics
                                                 : path == "/"      ? &server_.options.statusPage
                                                                    : nullptr;
    const bool keepAlive = request.keep_alive();
    if (path == "/healthz") {
      answer(http::status::ok, kTextType, "ok", keepAlive, head, version);
    } else if (render == nullptr || !*render) {
      answer(http::status::not_found, kTextType,
             "no page " + std::string(path) + " here; there are /metrics, /healthz and /\n", keepAlive, head,
             version);
    } else {
      std::string text;
      std::optional<std::string> failure;
      try {
        text = (*render)();
      } catch (const std::exception& error) {
        failure = error.what();
      } catch (...) {
        failure = "an exception that is not a std::exception";
      }
      if (failure) {
        answer(http::status::internal_server_error, kTextType,
               "rendering " + std::string(path) + " failed: " + *failure + "\n", keepAlive, head, version);
        return;
      }
      answer(http::status::ok, path == "/" ? kPageType : kMetricsType, std::move(text), keepAlive, head,
             version);
    }
  }

  void answer(http::status status, const char* type, std::string body, bool keepAlive, bool head,
              unsigned version) {
    server_.answers[static_cast<std::size_t>(answerOf(status))].fetch_add(1, std::memory_order_relaxed);
    response_.emplace(status, version);
    response_->set(http::field::server, "connector");
    response_->set(http::field::content_type, type);
    if (status == http::status::method_not_allowed) {
      response_->set(http::field::allow, "GET, HEAD");
    }
    response_->keep_alive(keepAlive);
    const std::size_t size = body.size();
    if (!head) {
      response_->body() = std::move(body);
    }
    response_->content_length(size);  // HEAD: the length GET would have
    writing_ = true;
    http::async_write(
        socket_, *response_,
        [self = shared_from_this(), keepAlive](const boost::system::error_code& error, std::size_t) {
          self->writing_ = false;
          if (error) {
            self->close();
          } else if (!keepAlive || self->server_.shuttingDown) {
            self->linger();
          } else {
            self->readRequest();
          }
        });
  }

  // Ends sending and reads what the peer still sends, for a while, before closing: closing with
  // input unread would reset the connection, and the peer could lose the answer.
  void linger() {
    boost::system::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    timer_.expires_after(kLingerTime);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
      if (!error) {
        self->close();
      }
    });
    discard();
  }

  void discard() {
    socket_.async_read_some(asio::buffer(sink_),
                            [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
                              if (error) {
                                self->close();
                              } else {
                                self->discard();
                              }
                            });
  }

  HttpServer::Impl& server_;
  tcp::socket socket_;
  asio::steady_timer timer_;  // the header timeout, then the linger time
  const bool counted_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::empty_body>> parser_;
  std::optional<http::response<http::string_body>> response_;
  std::array<char, 1024> sink_{};
  bool reading_ = false;
  bool writing_ = false;
  bool timedOut_ = false;
};

}  // namespace detail

void HttpServer::Impl::accept() {
  acceptor.async_accept([this](const boost::system::error_code& error, tcp::socket socket) {
    if (shuttingDown) {
      return;
    }
    if (error) {
      // Out of descriptors, most likely: try again a little later rather than spin.
      httpLog().warn("accepting an HTTP connection failed: " + error.message());
      retryTimer.expires_after(std::chrono::milliseconds(100));
      retryTimer.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled && !shuttingDown) {
          accept();
        }
      });
      return;
    }
    const bool fits = counted < options.maxConnections;
    auto session = std::make_shared<HttpSession>(*this, std::move(socket), fits);
    if (fits) {
      ++counted;
      connections.fetch_add(1, std::memory_order_relaxed);
      open.fetch_add(1, std::memory_order_relaxed);
      session->start();
    } else {
      session->refuse();
    }
    accept();
  });
}

void HttpServer::Impl::beginShutdown() {
  shuttingDown = true;
  boost::system::error_code ignored;
  acceptor.close(ignored);
  retryTimer.cancel();
  // Answers being written finish; past the grace period, those to a slow reader are cut off.
  detail::drainThenClose(
      sessions, graceTimer, stopDeadline, [](HttpSession& session) { session.drain(); },
      [](HttpSession& session) { session.close(); });
}

HttpServer::HttpServer(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {
  const Options& chosen = impl_->options;
  if (chosen.maxConnections == 0) {
    throw std::invalid_argument("the HTTP endpoint needs maxConnections of at least 1");
  }
  const tcp::endpoint endpoint(addressOf(chosen.address), chosen.port);
  boost::system::error_code error;
  tcp::acceptor& acceptor = impl_->acceptor;
  acceptor.open(endpoint.protocol(), error);
  if (!error) {
    acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  }
  if (!error) {
    acceptor.bind(endpoint, error);
  }
  if (!error) {
    acceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  if (error) {
    throw std::runtime_error("the HTTP endpoint cannot listen on " + chosen.address + " port " +
                             std::to_string(chosen.port) + ": " + error.message() +
                             " (choose another port, or stop what holds this one)");
  }
  impl_->port = acceptor.local_endpoint().port();
  impl_->accept();
  impl_->ioThread = std::thread([impl = impl_.get()] { impl->context.run(); });
  httpLog().info("serving HTTP monitoring on " + chosen.address + " port " + std::to_string(impl_->port));
}

HttpServer::~HttpServer() {
  stop();
}

void HttpServer::stop() {
  if (impl_->stopped) {
    return;
  }
  impl_->stopped = true;
  impl_->stopDeadline = std::chrono::steady_clock::now() + impl_->options.shutdownGrace;
  asio::post(impl_->context, [impl = impl_.get()] { impl->beginShutdown(); });
  impl_->ioThread.join();
  httpLog().info("stopped serving HTTP monitoring on port " + std::to_string(impl_->port));
}

unsigned short HttpServer::port() const {
  return impl_->port;
}

HttpServer::Counts HttpServer::counts() const {
  const auto count = [this](Answer answer) {
    return impl_->answers[static_cast<std::size_t>(answer)].load(std::memory_order_relaxed);
  };
  Counts counts;
  counts.connections = impl_->connections.load(std::memory_order_relaxed);
  counts.open = impl_->open.load(std::memory_order_relaxed);
  counts.ok = count(Answer::ok);
  counts.badRequest = count(Answer::badRequest);
  counts.notFound = count(Answer::notFound);
  counts.methodNotAllowed = count(Answer::methodNotAllowed);
  counts.timedOut = count(Answer::timedOut);
  counts.headersTooLarge = count(Answer::headersTooLarge);
  counts.failed = count(Answer::failed);
  counts.tooManyConnections = count(Answer::tooManyConnections);
  return counts;
}

void HttpServer::parseEndpoint(const std::string& text, Options& options) {
  const bool bracketed = !text.empty() && text[0] == '[';
  const std::size_t colon = bracketed ? text.find("]:") + 1 : text.rfind(':');
  const std::string port = colon == std::string::npos || colon == 0 ? "" : text.substr(colon + 1);
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(port) > 65535) {
    throw std::invalid_argument("an HTTP endpoint is " + std::string(kEndpointForm) + ", not \"" + text +
                                "\"");
  }
  const std::string address = bracketed ? text.substr(1, colon - 2) : text.substr(0, colon);
  try {
    addressOf(address);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("an HTTP endpoint is " + std::string(kEndpointForm) + ", not \"" + text +
                                "\"");
  }
  options.address = address;
  options.port = static_cast<unsigned short>(std::stoul(port));
}

bool HttpServer::isLoopback(const std::string& address) {
  boost::system::error_code error;
  const asio::ip::address parsed = asio::ip::make_address(address, error);
  return !error && parsed.is_loopback();
}

}  // namespace host
}  // namespace connector
