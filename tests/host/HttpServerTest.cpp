// The HTTP monitoring endpoint: its pages, its limits, and a clean stop.
#include <algorithm>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host/HttpServer.h"
#include "tests/support/HttpPeer.h"

namespace connector {
namespace {

using host::HttpServer;

std::string exchange(unsigned short port, const std::string& request) {
  test_support::HttpPeer peer(port);
  peer.send(request);
  return peer.readToEnd();
}

HttpServer::Options options() {
  HttpServer::Options chosen;
  chosen.port = 0;
  chosen.metrics = [] { return std::string("connector_up 1\n"); };
  chosen.statusPage = [] { return std::string("<html></html>"); };
  return chosen;
}

const std::string kClose = " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n";

// Every limit and page has its answer (a renderer that throws, 500), and each is given while another client
// is half-way through its headers: it is answered at the end as if nothing had happened.
TEST(HttpServer, EveryLimitIsAnsweredWhileAnotherClientIsServed) {
  HttpServer::Options chosen = options();
  chosen.maxConnections = 2;
  HttpServer server(chosen);
  test_support::HttpPeer pending(server.port());
  pending.send("GET /metrics?x=1 HTTP/1.1\r\nHost: x\r\n");
  const struct {
    std::string request, status, end;
  } cases[] = {
      {"GET /healthz" + kClose + "\r\n", "200", "\r\n\r\nok"},
      {"GET /" + kClose + "\r\n", "200", "Content-Length: 13\r\n\r\n<html></html>"},
      {"HEAD /" + kClose + "\r\n", "200", "Content-Length: 13\r\n\r\n"},
      {"POST /metrics" + kClose + "\r\n", "405", "only GET and HEAD are served here\n"},
      {"GET /healthz" + kClose + "Content-Length: 2\r\n\r\nab", "400", ""},
      {"GET /" + kClose + "X: " + std::string(HttpServer::kMaxHeaderBytes, 'x') + "\r\n\r\n", "431", ""},
      {"GET\r\n\r\n", "400", ""},
      {"GET /metrics/x" + kClose + "\r\n", "404", ""},
  };
  for (const auto& c : cases) {
    while (server.counts().open != 1) {  // the server has seen the last exchange close
      std::this_thread::yield();
    }
    const std::string answer = exchange(server.port(), c.request);
    EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 " + c.status) << c.request.substr(0, 40);
    EXPECT_EQ(answer.substr(answer.size() - std::min(answer.size(), c.end.size())), c.end) << answer;
  }
  while (server.counts().open != 1) {
    std::this_thread::yield();
  }
  auto second = std::make_unique<test_support::HttpPeer>(server.port());  // takes the last place
  second->send("GET /healthz HTTP/1.1\r\n");
  EXPECT_EQ(exchange(server.port(), "GET /healthz" + kClose + "\r\n").substr(0, 12), "HTTP/1.1 503");
  pending.send("Connection: close\r\n\r\n");
  EXPECT_NE(
      pending.readToEnd().find(
          "version=0.0.4; charset=utf-8\r\nConnection: close\r\nContent-Length: 15\r\n\r\nconnector_up 1\n"),
      std::string::npos);
  second.reset();

  HttpServer::Options hasty = options();
  hasty.headerTimeout = std::chrono::milliseconds(50);
  hasty.metrics = []() -> std::string { throw 42; };  // not even a std::exception
  HttpServer quick(hasty);
  EXPECT_EQ(exchange(quick.port(), "GET / HTTP/1.1\r\n").substr(0, 12), "HTTP/1.1 408");
  EXPECT_EQ(exchange(quick.port(), ""), "");  // an idle connection is closed unanswered
  EXPECT_EQ(exchange(quick.port(), "GET /metrics" + kClose + "\r\n").substr(0, 12), "HTTP/1.1 500");
}

// Stopping lets an answer being written finish, however large, and frees the port.
TEST(HttpServer, StopFinishesTheAnswerBeingWrittenAndFreesThePort) {
  HttpServer::Options chosen = options();
  const std::string page(32 << 20, 'p');  // far more than the socket buffers hold
  chosen.statusPage = [&page] { return page; };
  chosen.shutdownGrace = std::chrono::minutes(1);
  auto server = std::make_unique<HttpServer>(chosen);
  chosen.port = server->port();
  test_support::HttpPeer reader(chosen.port);
  reader.send("GET /" + kClose + "\r\n");
  while (server->counts().ok == 0) {
    std::this_thread::yield();
  }
  auto stopped = std::async(std::launch::async, [&server] { server->stop(); });
  const std::string answer = reader.readToEnd();
  stopped.get();
  EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, page.size());
  EXPECT_NO_THROW(HttpServer{chosen});
}

}  // namespace
}  // namespace connector
