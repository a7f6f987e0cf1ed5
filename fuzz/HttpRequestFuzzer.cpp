// The HTTP monitoring endpoint's request handling, fed arbitrary bytes over a real connection.
// Checked for every input: the answer is nothing (the bytes never completed a request's headers)
// or starts with a complete head whose status is one the endpoint documents, with a length; and
// the endpoint serves the next client afterwards.

#include <set>
#include <string>

#include "fuzz/FuzzInput.h"
#include "host/HttpServer.h"
#include "tests/support/HttpPeer.h"

namespace {

using connector::host::HttpServer;

// Lives as long as the process, serving every input in turn.
HttpServer& server() {
  static HttpServer endpoint([] {
    HttpServer::Options options;
    options.port = 0;
    options.metrics = [] { return std::string("connector_up 1\n"); };
    return options;
  }());
  return endpoint;
}

}  // namespace

void runOne(fuzz::Input& input) {
  static const std::set<std::string> statuses = {"200", "400", "404", "405", "408", "431", "503"};
  connector::test_support::HttpPeer peer(server().port());
  peer.send(input.ConsumeRemainingBytesAsString(), true);
  const std::string answer = peer.readToEnd();
  if (!answer.empty()) {
    const std::size_t head = answer.find("\r\n\r\n");
    MODEL_CHECK((answer.rfind("HTTP/1.1 ", 0) == 0 || answer.rfind("HTTP/1.0 ", 0) == 0) &&
                    statuses.count(answer.substr(9, 3)) == 1 && head != std::string::npos &&
                    answer.substr(0, head).find("\r\nContent-Length: ") != std::string::npos,
                "an answer that is not a documented one: " + answer.substr(0, 200));
  }
  connector::test_support::HttpPeer next(server().port());
  next.send("GET /healthz HTTP/1.1\r\n\r\n");
  const std::string health = next.next();
  MODEL_CHECK(health.size() > 6 && health.substr(health.size() - 6) == "\r\n\r\nok", "healthz: " + health);
}
