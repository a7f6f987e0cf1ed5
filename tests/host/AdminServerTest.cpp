// The administration endpoint: its line protocol, and the server's answers, limits and lifecycle
// seen from a raw socket.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
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
namespace {

using host::AdminServer;
using host::admin::Response;
using host::admin::Status;
using test_support::AdminPeer;
using test_support::TempDirectory;

Response ok(const std::string& text) {
  return {Status::ok, text};
}
Response error(const std::string& text) {
  return {Status::error, text};
}
Response closed(const std::string& text) {
  return {Status::closed, text};
}

std::string describe(const std::optional<Response>& response) {
  if (!response) {
    return "<end of stream>";
  }
  const char* status = response->status == Status::ok      ? "ok"
                       : response->status == Status::error ? "error"
                                                           : "closed";
  return std::string(status) + " [" + response->text + "]";
}

// ---- Protocol ----

// Whatever a word holds (blanks, quotes, backslashes, nothing, a leading #), formatting it into a
// request line and splitting that line gives the word back.
TEST(AdminProtocol, FormattedWordsSplitBackUnchanged) {
  const std::vector<std::string> words{"cmd",         "",      "two words", "say \"hi\"",
                                       "back\\slash", "#hash", "a\tb",      "\\\""};
  std::vector<std::string> back;
  for (const auto& word : host::admin::splitWords(host::admin::formatRequest(words))) {
    back.push_back(word.text);
  }
  EXPECT_EQ(back, words);
  EXPECT_THROW(host::admin::formatRequest({"cmd", "line\nfeed"}), std::invalid_argument);
  try {
    host::admin::splitWords("cmd \"open");
    ADD_FAILURE() << "an open quote was accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "the quote at column 5 is not closed; end the quoted text with \"");
  }
}

// UTF-8 is taken whole; NUL, stray, overlong, surrogate, out-of-range and cut sequences are named.
TEST(AdminProtocol, InvalidTextIsNamedByItsByte) {
  EXPECT_EQ(host::admin::invalidTextReason("h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf"), "");
  EXPECT_EQ(host::admin::invalidTextReason(std::string("ab\0c", 4)), "byte 3 is NUL; requests are text");
  EXPECT_EQ(host::admin::invalidTextReason("a\xff"), "byte 2 (0xff) is not valid UTF-8");
  for (const char* bad :
       {"\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xc3("}) {
    EXPECT_NE(host::admin::invalidTextReason(bad), "") << bad;
  }
}

// A reader refuses what is not "STATUS LENGTH\nTEXT\n", and waits for what is merely incomplete.
TEST(AdminProtocol, ResponseReaderWaitsForMoreAndRefusesBadFraming) {
  for (const char* bad : {"hello\n", "ok\n", "ok x\n", "fine 3\nabc\n", "ok 3\nabcX", "ok 99999999999\n",
                          "ok 123456789012345678901234567890123"}) {
    host::admin::ResponseReader reader;
    reader.append(bad);
    EXPECT_THROW(reader.next(), std::runtime_error) << bad;
  }
  host::admin::ResponseReader reader;
  reader.append("error 5\nab");
  EXPECT_FALSE(reader.next());
  reader.append("\ncd\n");
  EXPECT_EQ(reader.next(), error("ab\ncd"));
}

// ---- Server ----

// A registry with commands that answer awkward texts and that block until released.
struct Fixture {
  TempDirectory directory;
  std::string path = directory / "s";
  std::shared_ptr<host::CommandRegistry> registry = std::make_shared<host::CommandRegistry>();
  std::promise<void> entered;  // set when test.block starts
  std::promise<void> release;  // test.block returns when this is set
  std::shared_future<void> released = release.get_future().share();

  Fixture() {
    administration::Command text;
    text.name = "test.text";
    text.description = "Answers its argument with escapes: \\n a line feed, \\e nothing.";
    text.maxArguments = 1;
    text.handler = [](std::vector<std::string>&& arguments) {
      std::string out;
      for (std::size_t i = 0; !arguments.empty() && i < arguments[0].size(); ++i) {
        out += arguments[0][i] == '~' ? '\n' : arguments[0][i];
      }
      return out;
    };
    registry->registerCommand(text);
    administration::Command block;
    block.name = "test.block";
    block.description = "Waits until the test releases it.";
    // Holds its own copy of `released`: a command that outlives a stop may outlive the fixture.
    block.handler = [this, released = released](std::vector<std::string>&&) {
      entered.set_value();
      released.wait();
      return std::string("released");
    };
    registry->registerCommand(block);
  }
};

// Pipelined requests are answered one each, in order, with every text exact: empty, several
// lines, a text that looks like a header, a failure, and requests that cannot run; a client that
// half-closes after sending still gets every answer, and a request cut short by its end is dropped.
TEST(AdminServer, AnswersPipelinedRequestsInOrderAndExactly) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  peer.send(
      "test.text\ntest.text a~b~\ntest.text \"ok 3~abc~\"\n \nbogus 1\ntest.text \"open\n"
      "test.text ~\r\ntest.text cut-sh");
  peer.finishSending();
  const std::vector<Response> expected{
      ok(""),
      ok("a\nb\n"),
      ok("ok 3\nabc\n"),
      error("empty request; send a command name and its arguments, e.g. help"),
      error("unknown command \"bogus\"; \"help\" lists the commands"),
      error("the quote at column 11 is not closed; end the quoted text with \""),
      ok("\n")};
  for (const Response& want : expected) {
    EXPECT_EQ(describe(peer.next()), describe(want));
  }
  EXPECT_EQ(describe(peer.next()), "<end of stream>");
}

// A command that has not returned holds up only its own connection.
TEST(AdminServer, SlowCommandDoesNotHoldUpOtherConnections) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  AdminPeer slow(f.path);
  slow.send("test.block\n");
  f.entered.get_future().wait();
  AdminPeer other(f.path);
  EXPECT_EQ(describe(other.call("test.text x")), describe(ok("x")));
  f.release.set_value();
  EXPECT_EQ(describe(slow.next()), describe(ok("released")));
}

// A line of exactly the limit is a request; one byte more is answered and the connection closed.
TEST(AdminServer, RequestLineOverTheLimitClosesTheConnection) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  const std::string longest = "test.text " + std::string(host::admin::kMaxRequestLine - 10, 'x');
  EXPECT_EQ(peer.call(longest).text.size(), host::admin::kMaxRequestLine - 10);
  peer.send(longest + "x");
  EXPECT_EQ(describe(peer.next()),
            describe(closed("the request line is longer than 65536 bytes; send at most that much before each "
                            "line feed")));
  EXPECT_EQ(describe(peer.next()), "<end of stream>");
}

// Text that is not UTF-8, or holds NUL, fails that request only.
TEST(AdminServer, InvalidTextFailsTheRequestAndTheConnectionGoesOn) {
  Fixture f;
  AdminServer server(f.registry, f.path);
  AdminPeer peer(f.path);
  const char requests[] = "test.text a\0b\ntest.text \xc3\x28\ntest.text \xc3\xa9\n";
  peer.send(std::string(requests, sizeof requests - 1));
  EXPECT_EQ(describe(peer.next()), describe(error("byte 12 is NUL; requests are text")));
  EXPECT_EQ(describe(peer.next()), describe(error("byte 11 (0xc3) starts an invalid UTF-8 sequence")));
  EXPECT_EQ(describe(peer.next()), describe(ok("\xc3\xa9")));
}

// The connection beyond the limit is told so and closed; those within it are served.
TEST(AdminServer, ConnectionBeyondTheLimitIsToldAndClosed) {
  Fixture f;
  AdminServer::Options options;
  options.maxConnections = 2;
  AdminServer server(f.registry, f.path, options);
  AdminPeer first(f.path), second(f.path);
  EXPECT_EQ(first.call("test.text 1").text, "1");  // both are accepted before the third comes
  EXPECT_EQ(second.call("test.text 2").text, "2");
  AdminPeer third(f.path);
  EXPECT_EQ(
      describe(third.next()),
      describe(closed("too many connections: the server takes 2 at once; try again when one has closed")));
  EXPECT_EQ(describe(third.next()), "<end of stream>");
  EXPECT_EQ(first.call("test.text 3").text, "3");
}

// A connection with nothing to do is closed after the idle time, with a reason; one whose command
// is still running is not idle.
TEST(AdminServer, IdleConnectionIsClosedButARunningCommandIsNotIdle) {
  Fixture f;
  AdminServer::Options options;
  options.idleTimeout = std::chrono::milliseconds(20);
  AdminServer server(f.registry, f.path, options);
  AdminPeer busy(f.path);
  busy.send("test.block\n");
  f.entered.get_future().wait();
  AdminPeer idle(f.path);
  EXPECT_EQ(describe(idle.next()),
            describe(closed("the connection was idle for 20 ms; connect again to go on")));
  EXPECT_EQ(describe(idle.next()), "<end of stream>");
  f.release.set_value();
  EXPECT_EQ(describe(busy.next()), describe(ok("released")));
}

// The socket is private whatever the umask; a stale socket is replaced, a live one or a file that
// is not a socket is refused, and stopping removes the socket.
TEST(AdminServer, SocketIsPrivateAndOnlyAStaleOneIsReplaced) {
  Fixture f;
  {
    const mode_t saved = ::umask(0);
    AdminServer server(f.registry, f.path);
    ::umask(saved);
    struct stat status {};
    ASSERT_EQ(::lstat(f.path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    try {
      AdminServer second(f.registry, f.path);
      ADD_FAILURE() << "a second server took over a live socket";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()),
                "another process is serving on " + f.path + "; stop it or choose another socket path");
    }
  }
  EXPECT_FALSE(std::filesystem::exists(f.path));

  // A socket left behind by a process that died: bound, never unlinked, nobody listening.
  const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, f.path.c_str());
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(stale);
  {
    AdminServer server(f.registry, f.path);
    EXPECT_EQ(AdminPeer(f.path).call("test.text up").text, "up");
  }

  const std::string file = f.directory / "file";
  std::ofstream(file) << "not a socket";
  EXPECT_THROW(AdminServer(f.registry, file), std::runtime_error);
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_THROW(AdminServer(f.registry, f.directory / std::string(120, 'x')), std::runtime_error);
}

// Stopping lets a running command answer before its connection closes; a command that outlasts the
// grace period does not hold the stop up, and its connection is closed without an answer.
TEST(AdminServer, StopLetsRunningCommandsFinishWithinTheGracePeriod) {
  for (const bool releasedInTime : {true, false}) {
    Fixture f;
    AdminServer::Options options;
    options.shutdownGrace = releasedInTime ? std::chrono::minutes(5) : std::chrono::milliseconds(10);
    auto server = std::make_unique<AdminServer>(f.registry, f.path, options);
    AdminPeer peer(f.path);
    peer.send("test.block\n");
    f.entered.get_future().wait();
    if (releasedInTime) {
      std::thread stopping([&] { server->stop(); });
      f.release.set_value();
      stopping.join();
      EXPECT_EQ(describe(peer.next()), describe(ok("released")));
    } else {
      server->stop();
      f.release.set_value();
    }
    EXPECT_EQ(describe(peer.next()), "<end of stream>");
    EXPECT_FALSE(std::filesystem::exists(f.path));
  }
}

// A peer of another user is refused with one answer and the refusal is audited; it needs root to
// connect as another user.
TEST(AdminServer, PeerOfAnotherUserIsRefusedAndAudited) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to connect as another user";
  }
  Fixture f;
  const std::string logFile = f.directory / "audit.log";
  const std::string previous = foundation::log::destination();
  foundation::log::set_destination("file:" + logFile);
  AdminServer server(f.registry, f.path);
  // Lets the other user reach the credential check.
  ::chmod(f.directory.path().c_str(), 0711);
  ::chmod(f.path.c_str(), 0666);
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(pipe[0]);
    int status = ::setuid(65534) == 0 ? 0 : 3;
    try {
      std::optional<Response> answer = AdminPeer(f.path).next();
      const std::string text = describe(answer);
      status = ::write(pipe[1], text.data(), text.size()) < 0 ? 4 : status;
    } catch (...) {
      status = 5;
    }
    ::_exit(status);
  }
  ::close(pipe[1]);
  std::string seen;
  char buffer[256];
  for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) > 0;) {
    seen.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(pipe[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(seen, describe(closed("uid 65534 may not use this endpoint; only uid 0 and root may")));
  foundation::log::set_destination(previous);
  EXPECT_NE(TempDirectory::read(logFile).find("[connector.audit] [warning] refused uid=65534 pid=" +
                                              std::to_string(child) + " on " + f.path),
            std::string::npos)
      << TempDirectory::read(logFile);
}

}  // namespace
}  // namespace connector
