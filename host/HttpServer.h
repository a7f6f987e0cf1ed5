// The HTTP monitoring endpoint: serves the library's figures, read-only, over HTTP/1.1 so that
// Prometheus can scrape them and a person can look at them in a browser.
//
//   GET /metrics  Options::metrics(), as text/plain; version=0.0.4; charset=utf-8
//   GET /         Options::statusPage(), as text/html; charset=utf-8
//   GET /healthz  200 "ok"
// HEAD answers the same headers with no body. A path whose callable is empty is unknown (404); a
// callable that throws is answered 500 with the exception's text, and the server goes on. A query
// string is ignored. Nothing changes state over HTTP: the server holds no command registry, so a
// scrape runs no command and writes no audit record.
//
// Limits, each answered while the server keeps serving every other connection: a method other
// than GET or HEAD (405), a request with a body (400, closed), headers over kMaxHeaderBytes (431,
// closed), more than maxConnections connections at once (the extra one gets 503, closed), headers
// not complete within headerTimeout of the connection waiting for them (408, closed; a connection
// that sent nothing of them is closed without an answer, so that a client keeping an idle
// connection alive sees no answer it did not ask for), a malformed request (400, closed), an
// unknown path (404). Connections are kept alive as HTTP/1.1 says.
//
// Binds 127.0.0.1 unless given another address; isLoopback() tells a caller whether to warn that
// anyone who can reach the port can read the figures.
//
// Threads: one I/O thread owns every socket and calls the callables, one request at a time, so
// they need not be thread-safe with each other but must not block for long. The constructor
// starts serving and the destructor (or stop()) ends it: stops accepting and frees the port, lets
// answers being written finish for up to shutdownGrace, then closes every connection. Construct,
// stop and destroy from one thread; never from a callable.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace connector {
namespace host {
namespace detail {
class HttpSession;  // one connection; in HttpServer.cpp
}

class HttpServer {
 public:
  static constexpr std::size_t kMaxHeaderBytes = 8 * 1024;

  struct Options {
    std::string address = "127.0.0.1";  // an IPv4 or IPv6 address, not a host name
    unsigned short port = 9464;         // 0: any free port (see port())
    std::size_t maxConnections = 32;
    std::chrono::milliseconds headerTimeout = std::chrono::seconds(10);
    std::chrono::milliseconds shutdownGrace = std::chrono::seconds(5);
    std::function<std::string()> metrics;     // the body of /metrics
    std::function<std::string()> statusPage;  // the body of /
  };

  // Connections and answers since the server started, by status; safe from any thread.
  struct Counts {
    std::uint64_t connections = 0;         // accepted and served
    std::uint64_t open = 0;                // of those, the ones open now
    std::uint64_t ok = 0;                  // 200
    std::uint64_t badRequest = 0;          // 400: malformed, or with a body
    std::uint64_t notFound = 0;            // 404
    std::uint64_t methodNotAllowed = 0;    // 405
    std::uint64_t timedOut = 0;            // 408
    std::uint64_t headersTooLarge = 0;     // 431
    std::uint64_t failed = 0;              // 500: a callable threw
    std::uint64_t tooManyConnections = 0;  // 503
  };

  // Starts serving. Throws std::invalid_argument for an address that is not an IP address or
  // maxConnections of 0, std::runtime_error naming the address and port when they cannot be bound.
  explicit HttpServer(Options options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Ends serving as described above; later calls do nothing.
  void stop();

  // The port bound (the one chosen when Options::port was 0).
  unsigned short port() const;
  Counts counts() const;

  // "HOST:PORT" or "[V6]:PORT" into Options' address and port; throws std::invalid_argument
  // naming the text and the expected form.
  static void parseEndpoint(const std::string& text, Options& options);
  // Whether `address` (an IP address) is a loopback one: 127.0.0.0/8 or ::1.
  static bool isLoopback(const std::string& address);

 private:
  friend class detail::HttpSession;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace host
}  // namespace connector
