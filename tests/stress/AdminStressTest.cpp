// The administration endpoint under load: many clients pipelining at once while one keeps
// dropping its connection in the middle of a request.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using test_support::AdminPeer;

// What stress.echo answers for `word`: the word on two lines, so that framing matters.
std::string answerFor(const std::string& word) {
  return word + "\n" + word + "\n";
}

// `clients` clients at once each run `commands` commands in pipelined windows of 100; returns the
// answers that were wrong or missing. Client 0, after every window, sends half a request and hangs
// up, then connects again. (Not a whole request too: its command could still be running when the
// descriptors are counted.)
int runClients(const std::string& path, int clients, int commands) {
  std::vector<int> wrong(clients, 0);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      auto peer = std::make_unique<AdminPeer>(path);
      for (int sent = 0; sent < commands; sent += 100) {
        const int end = std::min(sent + 100, commands);
        std::string requests;
        for (int i = sent; i < end; ++i) {
          requests += "stress.echo c" + std::to_string(c) + "-" + std::to_string(i) + "\n";
        }
        peer->send(requests);
        for (int i = sent; i < end; ++i) {
          wrong[c] += peer->next().value_or(host::admin::Response{}).text !=
                      answerFor("c" + std::to_string(c) + "-" + std::to_string(i));
        }
        if (c == 0) {
          peer->send("stress.echo cut-sho");
          peer = std::make_unique<AdminPeer>(path);
        }
      }
    });
  }
  int total = 0;
  for (int c = 0; c < clients; ++c) {
    threads[c].join();
    total += wrong[c];
  }
  return total;
}

// 16 clients pipeline 1,000 commands each while one of them hangs up mid-request every 100: every
// answer to the others arrives, correct and in order (the sanitizers judge the rest), and once the
// clients are gone the server holds the descriptors it held before them.
TEST(AdminServerUnderLoad, PipelinedClientsAndADropperGetEveryAnswerAndLeaveNoDescriptorBehind) {
  foundation::log::set_specification("off,connector.audit=off");  // no audit record per command
  test_support::TempDirectory directory;
  auto registry = std::make_shared<host::CommandRegistry>();
  registry->registerCommand({"stress.echo", "Answers its argument twice, one per line.",
                             [](std::vector<std::string>&& arguments) { return answerFor(arguments[0]); }, 1,
                             1});
  const std::string path = directory / "s";
  host::AdminServer server(registry, path);
  // A first round starts every thread and pool that the server keeps for good.
  ASSERT_EQ(runClients(path, 16, 100), 0);
  AdminPeer probe(path);
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const std::ptrdiff_t before = descriptors();
  EXPECT_EQ(runClients(path, 16, test_support::stressCount(1000)), 0);
  // The clients' hang-ups reached the server before these requests did; the I/O thread handles
  // them, and the completions they queue, before it has answered two requests sent after them.
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace connector
