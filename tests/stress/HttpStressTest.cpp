// The HTTP monitoring endpoint under load: many clients scraping over kept-alive connections.
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/HttpServer.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/HttpPeer.h"

namespace connector {
namespace {

// 16 clients x 200 scrapes, each client on one kept-alive connection: every answer arrives
// complete, with the body the renderer made for it, and once the clients are gone the server
// holds the descriptors it held before them.
TEST(HttpServerUnderLoad, KeptAliveScrapersGetEveryAnswerWholeAndLeaveNoDescriptorBehind) {
  std::atomic<int> rendered{0}, whole{0};
  host::HttpServer::Options options;
  options.port = 0;
  options.metrics = [&rendered] {  // a body long enough to take several writes, unique per scrape
    return std::string(100000, '#') + "\nconnector_scrapes_total " + std::to_string(++rendered) + "\n";
  };
  host::HttpServer server(options);
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const std::ptrdiff_t before = descriptors();
  const int scrapes = test_support::stressCount(200);
  std::vector<std::thread> clients;
  for (int c = 0; c < 16; ++c) {
    clients.emplace_back([&] {
      test_support::HttpPeer peer(server.port());
      for (int i = 0; i < scrapes; ++i) {
        peer.send("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
        const std::string answer = peer.next();
        whole +=
            answer.rfind("HTTP/1.1 200 OK\r\n", 0) == 0 && answer.size() > 100000 && answer.back() == '\n';
      }
    });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(whole.load(), 16 * scrapes);
  EXPECT_EQ(rendered.load(), 16 * scrapes);
  while (server.counts().open != 0) {  // the server has seen every client close
    std::this_thread::yield();
  }
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace connector
