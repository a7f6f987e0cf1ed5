// A bare client of the administration endpoint for tests and benchmarks: writes whatever bytes
// it is given, byte-exact (malformed requests included), and reads framed answers back. Owns its
// socket; use from one thread at a time.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/AdminProtocol.h"

namespace connector {
namespace test_support {

class AdminPeer {
 public:
  explicit AdminPeer(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::close(fd_);
      throw std::runtime_error("cannot connect to " + path);
    }
  }
  AdminPeer(const AdminPeer&) = delete;
  AdminPeer& operator=(const AdminPeer&) = delete;
  ~AdminPeer() { ::close(fd_); }

  // Writes `bytes`, or as much as the server takes before it closes the connection.
  void send(std::string_view bytes) {
    for (ssize_t n; !bytes.empty() && (n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL)) > 0;) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }

  // Tells the server that no more requests follow (a half-close); answers can still be read.
  void finishSending() { ::shutdown(fd_, SHUT_WR); }

  // The next answer, or nothing once the server has closed the connection.
  std::optional<host::admin::Response> next() {
    std::optional<host::admin::Response> response;
    char buffer[16 * 1024];
    for (ssize_t n = 1; !(response = reader_.next()) && n > 0;) {
      n = ::recv(fd_, buffer, sizeof buffer, 0);
      reader_.append(std::string_view(buffer, n > 0 ? static_cast<std::size_t>(n) : 0));
    }
    return response;
  }

  // Sends one line and returns its answer (an error when none came).
  host::admin::Response call(const std::string& line) {
    send(line + "\n");
    return next().value_or(host::admin::Response{host::admin::Status::error, "<closed connection>"});
  }

 private:
  int fd_;
  host::admin::ResponseReader reader_;
};

}  // namespace test_support
}  // namespace connector
