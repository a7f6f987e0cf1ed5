// The administration endpoint under load: many clients pipelining at once while one keeps
// dropping its connection in the middle of a request.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// The sanitizer runtimes' allocator statistics (declared by clang's sanitizer/allocator_interface.h,
// which g++ does not ship).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

#include "foundation/log/Log.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "tests/stress/StressCounts.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using host::admin::Status;
using test_support::AdminPeer;

// The bytes the program has allocated and not freed, or nothing when that cannot be told: glibc
// counts the blocks its per-thread caches keep as in use, so without a sanitizer's allocator the
// caches must be off (GLIBC_TUNABLES=glibc.malloc.tcache_count=0, as ctest runs it).
std::optional<std::size_t> heapInUse() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables == nullptr || std::strstr(tunables, "glibc.malloc.tcache_count=0") == nullptr) {
    return std::nullopt;
  }
  return mallinfo2().uordblks;
#endif
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  if (DIR* directory = ::opendir("/proc/self/fd")) {
    while (::readdir(directory) != nullptr) {
      ++count;
    }
    ::closedir(directory);
  }
  return count;
}

// What stress.echo answers for `word`: the word on two lines, so that framing matters.
std::string answerFor(const std::string& word) {
  return word + "\n" + word + "\n";
}

// Runs `commands` commands in pipelined windows of `window`; returns the answers that were wrong.
// The dropper, after every window, sends half a request and hangs up, then connects again. (Not a
// whole request too: its command could still be running when the levels are read.)
int runClient(const std::string& path, int client, int commands, int window, bool dropper, int& checked) {
  int wrong = 0;
  auto peer = std::make_unique<AdminPeer>(path);
  for (int sent = 0; sent < commands; sent += window) {
    const int count = std::min(window, commands - sent);
    std::string requests;
    for (int i = 0; i < count; ++i) {
      requests += "stress.echo c" + std::to_string(client) + "-" + std::to_string(sent + i) + "\n";
    }
    peer->send(requests);
    for (int i = 0; i < count; ++i) {
      const auto answer = peer->next();
      const std::string want = answerFor("c" + std::to_string(client) + "-" + std::to_string(sent + i));
      wrong += (answer && answer->status == Status::ok && answer->text == want) ? 0 : 1;
      ++checked;
    }
    if (dropper) {
      peer->send("stress.echo cut-sho");
      peer = std::make_unique<AdminPeer>(path);
    }
  }
  return wrong;
}

// The clients run at once; returns the answers that were wrong.
int runClients(const std::string& path, int clients, int commands, int& checked) {
  std::vector<int> wrong(clients, 0), counted(clients, 0);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] { wrong[c] = runClient(path, c, commands, 100, c == 0, counted[c]); });
  }
  int total = 0;
  for (int c = 0; c < clients; ++c) {
    threads[c].join();
    total += wrong[c];
    checked += counted[c];
  }
  return total;
}

// 16 clients pipeline 1,000 commands each while one of them hangs up mid-request every 100: every
// answer to the others arrives, correct and in order, and once the clients are gone the server
// holds the descriptors and memory it held before them.
TEST(AdminServerUnderLoad, PipelinedClientsAndADropperGetEveryAnswerAndLeaveNothingBehind) {
  const int clients = 16;
  const int commands = test_support::stressCount(1000);
  const std::string previous = foundation::log::specification();
  foundation::log::set_specification("off,connector.audit=off");  // no audit record per command
  test_support::TempDirectory directory;
  auto registry = std::make_shared<host::CommandRegistry>();
  administration::Command echo;
  echo.name = "stress.echo";
  echo.description = "Answers its argument twice, one per line.";
  echo.minArguments = echo.maxArguments = 1;
  echo.handler = [](std::vector<std::string>&& arguments) { return answerFor(arguments[0]); };
  registry->registerCommand(echo);
  const std::string path = directory / "s";
  host::AdminServer server(registry, path);

  // A first round starts every thread, pool and cache that the server keeps for good; the levels
  // are read after it, with one probe connection open that has made a round trip.
  int warmUp = 0;
  ASSERT_EQ(runClients(path, clients, 100, warmUp), 0);
  AdminPeer probe(path);
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  const std::size_t descriptorsBefore = openDescriptors();
  const std::optional<std::size_t> heapBefore = heapInUse();

  int checked = 0;
  EXPECT_EQ(runClients(path, clients, commands, checked), 0);
  // The clients' hang-ups reached the server before these requests did; the I/O thread handles
  // them, and the completions they queue, before it has answered two requests sent after them.
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  const std::size_t descriptorsAfter = openDescriptors();
  const std::optional<std::size_t> heapAfter = heapInUse();
  std::printf("%d clients x %d commands: %d answers checked; descriptors %zu -> %zu; heap %zu -> %zu bytes\n",
              clients, commands, checked, descriptorsBefore, descriptorsAfter, heapBefore.value_or(0),
              heapAfter.value_or(0));
  EXPECT_EQ(checked, clients * commands);
  EXPECT_EQ(descriptorsAfter, descriptorsBefore);
  // A little slack for what the allocator and the threads keep per thread (a few hundred bytes);
  // one session left behind would hold more than that in its read buffer alone.
  if (heapBefore && heapAfter) {
    EXPECT_LE(*heapAfter, *heapBefore + 4096);
  }
  foundation::log::set_specification(previous);
}

}  // namespace
}  // namespace connector
