// A client of the HTTP endpoint for tests and fuzzers: one loopback connection, raw bytes out and
// answers in, with a generous receive bound (a hung server fails the caller, it is not a timing
// assertion). One thread at a time.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace connector {
namespace test_support {

class HttpPeer {
 public:
  explicit HttpPeer(unsigned short port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval patience{60, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);  // failing, it answers nothing
  }
  ~HttpPeer() { ::close(fd_); }

  // Sends `bytes` (a failure shows as a missing answer); with `last`, ends the sending side then.
  void send(const std::string& bytes, bool last = false) {
    ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (last) {
      ::shutdown(fd_, SHUT_WR);
    }
  }

  // Everything the server sends until it closes (or the receive bound passes).
  std::string readToEnd() {
    while (receive()) {
    }
    return std::move(buffered_);
  }

  // One answer, head and body, by its Content-Length (so not one to HEAD), or what arrived before
  // the server closed.
  std::string next() {
    std::size_t size = std::string::npos;
    do {
      const std::size_t head = buffered_.find("\r\n\r\n"), field = buffered_.find("Content-Length: ");
      if (head != std::string::npos && field < head) {
        size = head + 4 + std::strtoul(buffered_.c_str() + field + 16, nullptr, 10);
      }
    } while (buffered_.size() < size && receive());
    std::string answer = buffered_.substr(0, size);
    buffered_.erase(0, answer.size());
    return answer;
  }

 private:
  bool receive() {
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    buffered_.append(chunk, n > 0 ? static_cast<std::size_t>(n) : 0);
    return n > 0;
  }

  const int fd_;
  std::string buffered_;
};

}  // namespace test_support
}  // namespace connector
