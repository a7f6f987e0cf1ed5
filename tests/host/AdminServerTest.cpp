// The administration endpoint: its line protocol, and the server's answers, limits and lifecycle
// seen from a raw socket.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/log/Log.h"
#include "host/AdminProtocol.h"
#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace host {
namespace admin {

void PrintTo(const Response& response, std::ostream* out) {
  const char* const names[] = {"ok", "error", "closed"};
  *out << names[static_cast<int>(response.status)] << " [" << response.text << "]";
}

}  // namespace admin
}  // namespace host

namespace {

using host::AdminServer;
using host::admin::Response;
using host::admin::Status;
using test_support::AdminPeer;

Response ok(const std::string& text) {
  return {Status::ok, text};
}
Response error(const std::string& text) {
  return {Status::error, text};
}

// ---- Protocol ----

// UTF-8 is taken whole; overlong, surrogate, out-of-range and cut sequences are not. A word with a
// line feed cannot be sent. (That formatted words split back unchanged is the fuzzer's model.)
TEST(AdminProtocol, OnlyWellFormedUtf8IsTextAndNoWordHoldsALineFeed) {
  EXPECT_EQ(host::admin::invalidTextReason("h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"), "");
  for (const char* bad :
       {"\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xc3("}) {
    EXPECT_NE(host::admin::invalidTextReason(bad), "") << bad;
  }
  EXPECT_THROW(host::admin::formatRequest({"cmd", "line\nfeed"}), std::invalid_argument);
}

// ---- Server ----

// A registry with a command that answers its argument ("~" for a line feed) and one that blocks
// until released.
struct Fixture {
  test_support::TempDirectory directory;
  std::string path = directory / "s";
  std::shared_ptr<host::CommandRegistry> registry = std::make_shared<host::CommandRegistry>();
  std::promise<void> entered;  // set when test.block starts
  std::promise<void> release;  // test.block returns when this is set
  std::shared_future<void> released = release.get_future().share();

  Fixture() {
    registry->registerCommand({"test.text", "Answers its argument, ~ as a line feed.",
                               [](std::vector<std::string>&& arguments) {
                                 std::string out = arguments.empty() ? "" : arguments[0];
                                 std::replace(out.begin(), out.end(), '~', '\n');
                                 return out;
                               },
                               0, 1});
    // Holds its own copy of `released`: a command that outlives a stop may outlive the fixture.
    registry->registerCommand({"test.block", "Waits until the test releases it.",
                               [this, released = released](std::vector<std::string>&&) {
                                 entered.set_value();
                                 released.wait();
                                 return std::string("released");
                               },
                               0, 0});
  }

  // What starting a server on `socket` throws, or "" when it starts.
  std::string startFailure(const std::string& socket) {
    try {
      AdminServer server(registry, socket);
      return "";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }
};

// Pipelined requests are answered one each, in order, with every text exact; a request that
// cannot run (blank, unknown, an open quote, NUL, not UTF-8) fails alone. A client that
// half-closes after sending still gets every answer; a request cut short by the end is dropped.
// A line of exactly the limit is a request; one byte more is answered and the connection closed.
TEST(AdminServer, AnswersPipelinedRequestsInOrderAndExactlyUpToTheLineLimit) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  const std::string longest = "test.text " + std::string(host::admin::kMaxRequestLine - 10, 'x');
  const char requests[] =
      "test.text\ntest.text a~b~\ntest.text \"ok 3~abc~\"\n \nbogus 1\ntest.text \"open\n"
      "test.text a\0b\ntest.text \xff\ntest.text \xc3\xa9~\r\n";
  peer.send(std::string(requests, sizeof requests - 1) + longest + "\ntest.text cut-sh");
  peer.finishSending();
  for (const Response& want :
       {ok(""), ok("a\nb\n"), ok("ok 3\nabc\n"),
        error("empty request; send a command name and its arguments, e.g. help"),
        error("unknown command \"bogus\"; \"help\" lists the commands"),
        error("the quote at column 11 is not closed; end the quoted text with \""),
        error("byte 12 is NUL; requests are text"), error("byte 11 (0xff) is not valid UTF-8"),
        ok("\xc3\xa9\n"), ok(std::string(host::admin::kMaxRequestLine - 10, 'x'))}) {
    EXPECT_EQ(peer.next(), want);
  }
  EXPECT_EQ(peer.next(), std::nullopt);
  AdminPeer greedy(f.path);
  greedy.send(longest + "x");
  EXPECT_EQ(greedy.next(), (Response{Status::closed,
                                     "the request line is longer than 65536 bytes; send at most "
                                     "that much before each line feed"}));
  EXPECT_EQ(greedy.next(), std::nullopt);
}

// The connection beyond the 32 served at once is told so and closed.
TEST(AdminServer, ConnectionBeyondTheLimitIsToldAndClosed) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  std::vector<std::unique_ptr<AdminPeer>> peers;
  for (int i = 0; i < 32; ++i) {
    peers.push_back(std::make_unique<AdminPeer>(f.path));
    EXPECT_EQ(peers.back()->call("test.text x"), ok("x"));
  }
  AdminPeer extra(f.path);
  EXPECT_EQ(extra.next(), (Response{Status::closed,
                                    "too many connections: the server takes 32 at once; try "
                                    "again when one has closed"}));
  EXPECT_EQ(extra.next(), std::nullopt);
}

// A connection runs its requests one at a time: a command that has not returned holds up the
// requests after it, and no other connection. A connection with nothing to do is closed after the
// idle time, with a reason; one whose command is still running is not idle. Stopping removes the
// socket at once but lets a running command answer before its connection closes.
TEST(AdminServer, ARunningCommandHoldsUpOnlyItsConnectionIsNotIdleAndIsAnsweredOnStop) {
  Fixture f;
  AdminServer::Options options;
  options.idleTimeout = std::chrono::milliseconds(20);
  AdminServer server(f.registry, f.path, options);
  AdminPeer busy(f.path);
  busy.send("test.block\ntest.text after\n");
  f.entered.get_future().wait();
  AdminPeer idle(f.path);
  EXPECT_EQ(idle.call("test.text x"), ok("x"));
  EXPECT_EQ(idle.next(),
            (Response{Status::closed, "the connection was idle for 20 ms; connect again to go on"}));
  EXPECT_EQ(idle.next(), std::nullopt);
  std::thread stopping([&] { server.stop(); });
  while (std::filesystem::exists(f.path)) {
    std::this_thread::yield();
  }
  f.release.set_value();
  stopping.join();
  EXPECT_EQ(busy.next(), ok("released"));
  EXPECT_EQ(busy.next(), std::nullopt);
}

// A live socket, a file and an overlong path are refused; a stale socket is replaced. (That the
// socket is private is checked by tests/tools/admin-test.sh.)
TEST(AdminServer, OnlyAStaleSocketIsReplaced) {
  Fixture f;
  {
    AdminServer server(f.registry, f.path);
    EXPECT_EQ(f.startFailure(f.path),
              "another process is serving on " + f.path + "; stop it or choose another socket path");
  }
  const std::string file = f.directory / "file";
  std::ofstream(file) << "not a socket";
  EXPECT_EQ(f.startFailure(file),
            file + " exists and is not a socket; remove it or choose another socket path");
  EXPECT_NE(f.startFailure(f.directory / std::string(120, 'x')).find("a Unix socket path needs 1 to 107"),
            std::string::npos);

  // A socket left behind by a process that died: bound, never unlinked, nobody listening.
  const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{AF_UNIX, {}};
  std::strcpy(address.sun_path, f.path.c_str());
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(stale);
  EXPECT_EQ(f.startFailure(f.path), "");
}

// A peer of another user gets one "closed" answer and the refusal is audited; it needs root to
// connect as another user.
TEST(AdminServer, PeerOfAnotherUserIsRefusedAndAudited) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to connect as another user";
  }
  Fixture f;
  const std::string logFile = f.directory / "audit.log";
  foundation::log::set_destination("file:" + logFile);
  AdminServer server(f.registry, f.path);
  // Lets the other user reach the credential check.
  ::chmod(f.directory.path().c_str(), 0711);
  ::chmod(f.path.c_str(), 0666);
  const Response refusal{Status::closed, "uid 65534 may not use this endpoint; only uid 0 and root may"};
  const pid_t child = ::fork();
  if (child == 0) {
    try {
      ::_exit(::setuid(65534) == 0 && AdminPeer(f.path).next() == refusal ? 0 : 1);
    } catch (...) {
      ::_exit(2);
    }
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  foundation::log::set_destination("null");
  const std::string log = test_support::TempDirectory::read(logFile);
  EXPECT_NE(log.find("[connector.audit] [warning] refused uid=65534 pid=" + std::to_string(child) + " on " +
                     f.path),
            std::string::npos)
      << log;
}

}  // namespace
}  // namespace connector
