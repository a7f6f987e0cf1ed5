// The HTTP monitoring endpoint's request handling, fed arbitrary bytes over a real connection.
// Checked for every input: the answer is nothing (the bytes never completed a request's headers)
// or starts with a complete head whose status is one the endpoint documents, with a length; and
// the endpoint serves the next client afterwards.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "fuzz/FuzzInput.h"
#include "host/HttpServer.h"

namespace {

using connector::host::HttpServer;

HttpServer& server() {
  static HttpServer* const endpoint = [] {
    HttpServer::Options options;
    options.port = 0;
    options.metrics = [] { return std::string("connector_up 1\n"); };
    options.statusPage = [] { return std::string("<html></html>"); };
    return new HttpServer(options);  // lives as long as the process: the fuzzer never returns
  }();
  return *endpoint;
}

// Sends `bytes`, ends the sending side and returns everything the endpoint answers until it
// closes.
std::string exchange(const std::string& bytes) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server().port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  MODEL_CHECK(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
  MODEL_CHECK(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
              "send");
  ::shutdown(fd, SHUT_WR);
  std::string answer;
  char chunk[4096];
  ssize_t n;
  while ((n = ::recv(fd, chunk, sizeof chunk, 0)) > 0) {
    answer.append(chunk, static_cast<std::size_t>(n));
  }
  MODEL_CHECK(n == 0 || errno == ECONNRESET, "the endpoint neither answered nor closed");
  ::close(fd);
  return answer;
}

}  // namespace

void runOne(fuzz::Input& input) {
  static const std::set<std::string> statuses = {"200", "400", "404", "405", "408", "431", "503"};
  const std::string answer = exchange(input.ConsumeRemainingBytesAsString());
  if (!answer.empty()) {
    const std::size_t head = answer.find("\r\n\r\n");
    MODEL_CHECK((answer.rfind("HTTP/1.1 ", 0) == 0 || answer.rfind("HTTP/1.0 ", 0) == 0) &&
                    statuses.count(answer.substr(9, 3)) == 1 && head != std::string::npos &&
                    answer.substr(0, head).find("\r\nContent-Length: ") != std::string::npos,
                "an answer that is not a documented one: " + answer.substr(0, 200));
  }
  const std::string health = exchange("GET /healthz HTTP/1.1\r\nConnection: close\r\n\r\n");
  MODEL_CHECK(health.size() > 6 && health.substr(health.size() - 6) == "\r\n\r\nok", "healthz: " + health);
}
