// The administration endpoint under load: many clients pipelining at once while one keeps
// dropping its connection in the middle of a request.
#include <gtest/gtest.h>

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

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

std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// What stress.echo answers for `word`: the word on two lines, so that framing matters.
std::string answerFor(const std::string& word) {
  return word + "\n" + word + "\n";
}

// `clients` clients at once each run `commands` commands in pipelined windows of 100; returns the
// answers that were wrong or missing. Client 0, after every window, sends half a request and hangs
// up, then connects again. (Not a whole request too: its command could still be running when the
// levels are read.)
int runClients(const std::string& path, int clients, int commands) {
  std::vector<int> wrong(clients, 0);
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      auto peer = std::make_unique<AdminPeer>(path);
      for (int sent = 0; sent < commands; sent += 100) {
        std::string requests;
        for (int i = sent; i < std::min(sent + 100, commands); ++i) {
          requests += "stress.echo c" + std::to_string(c) + "-" + std::to_string(i) + "\n";
        }
        peer->send(requests);
        for (int i = sent; i < std::min(sent + 100, commands); ++i) {
          wrong[c] += peer->next().value_or(host::admin::Response{}).text ==
                              answerFor("c" + std::to_string(c) + "-" + std::to_string(i))
                          ? 0
                          : 1;
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
// answer to the others arrives, correct and in order, and once the clients are gone the server
// holds the descriptors and memory it held before them.
TEST(AdminServerUnderLoad, PipelinedClientsAndADropperGetEveryAnswerAndLeaveNothingBehind) {
  const std::string previous = foundation::log::specification();
  foundation::log::set_specification("off,connector.audit=off");  // no audit record per command
  test_support::TempDirectory directory;
  auto registry = std::make_shared<host::CommandRegistry>();
  registry->registerCommand({"stress.echo", "Answers its argument twice, one per line.",
                             [](std::vector<std::string>&& arguments) { return answerFor(arguments[0]); }, 1,
                             1});
  const std::string path = directory / "s";
  host::AdminServer server(registry, path);

  // A first round starts every thread, pool and cache that the server keeps for good; the levels
  // are read after it, with one probe connection open that has made a round trip.
  ASSERT_EQ(runClients(path, 16, 100), 0);
  AdminPeer probe(path);
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  const std::ptrdiff_t descriptorsBefore = openDescriptors();
  const std::optional<std::size_t> heapBefore = heapInUse();

  EXPECT_EQ(runClients(path, 16, test_support::stressCount(1000)), 0);
  // The clients' hang-ups reached the server before these requests did; the I/O thread handles
  // them, and the completions they queue, before it has answered two requests sent after them.
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  ASSERT_EQ(probe.call("stress.echo probe").text, answerFor("probe"));
  EXPECT_EQ(openDescriptors(), descriptorsBefore);
  // A little slack for what the allocator and the threads keep per thread (a few hundred bytes);
  // one session left behind would hold more than that in its read buffer alone.
  const std::optional<std::size_t> heapAfter = heapInUse();
  if (heapBefore && heapAfter) {
    EXPECT_LE(*heapAfter, *heapBefore + 4096);
  }
  foundation::log::set_specification(previous);
}

}  // namespace
}  // namespace connector
