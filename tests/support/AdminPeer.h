// A bare client of the administration endpoint for tests and benchmarks: writes whatever bytes
// it is given, byte-exact (malformed requests included), and reads framed answers back. Owns its
// socket; use from one thread at a time.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      const int error = errno;
      if (fd_ >= 0) {
        ::close(fd_);
      }
      throw std::runtime_error("cannot connect to " + path + ": " + std::strerror(error));
    }
  }
  AdminPeer(const AdminPeer&) = delete;
  AdminPeer& operator=(const AdminPeer&) = delete;
  ~AdminPeer() { ::close(fd_); }

  // Writes all of `bytes`; false when the server has closed the connection.
  bool send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return false;
      }
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
  }

  // Tells the server that no more requests follow (a half-close); answers can still be read.
  void finishSending() { ::shutdown(fd_, SHUT_WR); }

  // The next answer, or nothing once the server has closed the connection.
  std::optional<host::admin::Response> next() {
    for (;;) {
      if (std::optional<host::admin::Response> response = reader_.next()) {
        return response;
      }
      const ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return std::nullopt;
      }
      reader_.append(std::string_view(buffer_.data(), static_cast<std::size_t>(n)));
    }
  }

  // Sends one line and returns its answer ("<closed connection>" as an error when none came).
  host::admin::Response call(const std::string& line) {
    send(line + "\n");
    std::optional<host::admin::Response> response = next();
    return response ? *response : host::admin::Response{host::admin::Status::error, "<closed connection>"};
  }

 private:
  int fd_;
  std::array<char, 16 * 1024> buffer_{};
  host::admin::ResponseReader reader_;
};

}  // namespace test_support
}  // namespace connector
