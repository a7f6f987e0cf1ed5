#include "tools/AdminClient.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include <readline/history.h>
#include <readline/readline.h>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "foundation/log/Log.h"
#include "host/AdminServer.h"
#include "tools/Monitoring.h"

namespace connector {
namespace shell {

namespace asio = boost::asio;
using host::admin::Response;
using host::admin::Status;

namespace {

const char* const kPrompt = "connector> ";
const char* const kProgram = "connector-shell: ";
const char* const kServerChannel = "connector.admin";

// The signals the server waits for: SIGHUP reopens its files, SIGINT and SIGTERM stop it.
sigset_t serverSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGHUP, SIGINT, SIGTERM}) {
    sigaddset(&signals, signal);
  }
  return signals;
}

// SIGHUP, as after logrotate's rename: every file the process writes is opened again by name,
// and the outcome is recorded on the process log (in the new file when it worked).
void reopenFiles() {
  static const foundation::log::channel channel(kServerChannel);
  try {
    foundation::log::reopen();
    channel.info("SIGHUP: reopened the log files");
  } catch (const std::invalid_argument&) {
    channel.info("SIGHUP: the process log writes to no file; nothing to reopen");
  } catch (const std::exception& error) {
    channel.warn(std::string("SIGHUP: reopening the log files failed; the old ones stay in use: ") +
                 error.what());
  }
}

// Readline's completion callbacks are plain functions; they read the names fetched at start.
std::vector<std::string> remoteNames;

char* nextName(const char* text, int state) {
  static std::size_t index;
  if (state == 0) {
    index = 0;
  }
  const std::size_t length = std::strlen(text);
  while (index < remoteNames.size()) {
    const std::string& name = remoteNames[index++];
    if (name.compare(0, length, text) == 0) {
      return strdup(name.c_str());
    }
  }
  return nullptr;
}

// Completes the first word only: the server's command names.
char** completeName(const char* text, int start, int) {
  rl_attempted_completion_over = 1;  // never fall back to file names
  const std::string before(rl_line_buffer, static_cast<std::size_t>(start));
  if (before.find_first_not_of(" \t") != std::string::npos) {
    return nullptr;
  }
  return rl_completion_matches(text, nextName);
}

// Runs one line on the server and prints its outcome; false when it failed. Throws Unreachable.
bool runLine(AdminClient& client, const std::string& line, bool& quit) {
  std::vector<host::admin::Word> words;
  try {
    words = host::admin::splitWords(line);
  } catch (const std::invalid_argument& error) {
    std::cerr << "error: " << error.what() << std::endl;
    return false;
  }
  if (words.empty() || (!words[0].quoted && words[0].text[0] == '#')) {
    return true;
  }
  if (words.size() == 1 && words[0].text == "quit") {
    quit = true;
    return true;
  }
  std::vector<std::string> texts;
  for (host::admin::Word& word : words) {
    texts.push_back(std::move(word.text));
  }
  // The shell's `config SUB ...` is the server's connector.config.SUB, its `send` connector.send.
  if (texts.size() > 1 && texts[0] == "config") {
    texts.erase(texts.begin());
    texts[0] = "connector.config." + texts[0];
  } else if (texts[0] == "send") {
    texts[0] = "connector.send";
  }
  Response response{Status::error, ""};
  try {
    response = client.call(texts);
  } catch (const std::invalid_argument& error) {
    response.text = error.what();
  }
  if (response.status != Status::ok) {
    std::cout.flush();
    std::cerr << "error: " << response.text << std::endl;
    return false;
  }
  std::cout << response.text;
  if (!response.text.empty() && response.text.back() != '\n') {
    std::cout << '\n';
  }
  std::cout.flush();
  return true;
}

int interactive(AdminClient& first, const std::string& socketPath) {
  AdminClient* client = &first;
  std::unique_ptr<AdminClient> again;  // the connection made after the server closed one
  // The first word of every line of the server's help is a command name.
  remoteNames = {"quit"};
  Response help = client->call({"help"});
  for (std::size_t from = 0; help.status == Status::ok && from < help.text.size();) {
    const std::size_t end = help.text.find('\n', from);
    const std::string line = help.text.substr(from, end - from);
    remoteNames.push_back(line.substr(0, line.find(' ')));
    from = end == std::string::npos ? help.text.size() : end + 1;
  }
  rl_attempted_completion_function = completeName;
  bool quit = false;
  while (!quit) {
    char* line = readline(kPrompt);
    if (line == nullptr) {
      std::cout << '\n';
      break;
    }
    if (line[0] != '\0') {
      add_history(line);
    }
    const std::string text(line);
    std::free(line);
    // An idle connection is closed by the server; a person at the prompt just goes on. A command
    // the server refused unread is sent again, once, on the new connection; one that may have run
    // is not, so that nothing runs twice.
    for (int attempt = 0; attempt < 2; ++attempt) {
      try {
        runLine(*client, text, quit);
        break;
      } catch (const Unreachable& error) {
        const bool resend = error.notRun && attempt == 0;
        std::cerr << kProgram << error.what()
                  << (resend ? "; connecting again to send it again" : "; connecting again") << std::endl;
        again = std::make_unique<AdminClient>(socketPath);
        client = again.get();
        if (!resend) {
          break;
        }
      }
    }
  }
  return 0;
}

int batch(AdminClient& client, const ClientOptions& options) {
  bool failed = false;
  bool quit = false;
  for (const std::string& command : options.commands) {
    failed = !runLine(client, command, quit) || failed;
    if (quit) {
      return failed ? 1 : 0;
    }
  }
  if (!options.script.empty()) {
    std::ifstream file(options.script);
    if (!file) {
      std::cerr << kProgram << "cannot read the script \"" << options.script << "\": " << std::strerror(errno)
                << std::endl;
      return 2;
    }
    std::string line;
    while (!quit && std::getline(file, line)) {
      failed = !runLine(client, line, quit) || failed;
    }
  }
  return failed ? 1 : 0;
}

}  // namespace

AdminClient::AdminClient(const std::string& socketPath) : socketPath_(socketPath), socket_(context_) {
  boost::system::error_code error;
  socket_.connect(asio::local::stream_protocol::endpoint(socketPath), error);
  if (error) {
    throw Unreachable("cannot reach the server at " + socketPath + ": " + error.message());
  }
}

Response AdminClient::call(const std::vector<std::string>& words) {
  const std::string request = host::admin::formatRequest(words) + '\n';
  boost::system::error_code error;
  // A server that refused the connection may already have closed it; its reason is still to be
  // read, so a failed write is not reported before that.
  asio::write(socket_, asio::buffer(request), error);
  std::array<char, 16 * 1024> buffer;
  for (;;) {
    std::optional<Response> response;
    try {
      response = reader_.next();
    } catch (const std::runtime_error& garbled) {
      throw Unreachable(std::string("the server at ") + socketPath_ + " answered garbage: " + garbled.what());
    }
    if (response && response->status == Status::closed) {
      throw Unreachable("the server at " + socketPath_ + " closed the connection: " + response->text +
                            "; the command did not run",
                        true);
    }
    if (response) {
      return *response;
    }
    const std::size_t n = socket_.read_some(asio::buffer(buffer), error);
    if (error) {
      throw Unreachable("the connection to the server at " + socketPath_ + " was lost: " +
                        (error == asio::error::eof ? "the server closed it" : error.message()) +
                        "; the command may have run (its answer is lost)");
    }
    reader_.append(std::string_view(buffer.data(), n));
  }
}

int runClient(const ClientOptions& options) {
  // A write to a server that has gone must come back as an error, not end the process.
  ::signal(SIGPIPE, SIG_IGN);
  try {
    AdminClient client(options.socketPath);
    if (!options.commands.empty() || !options.script.empty()) {
      return batch(client, options);
    }
    if (isatty(STDIN_FILENO)) {
      return interactive(client, options.socketPath);
    }
    ClientOptions piped = options;
    piped.script = "/dev/stdin";
    return batch(client, piped);
  } catch (const Unreachable& error) {
    std::cout.flush();
    std::cerr << kProgram << error.what() << std::endl;
    return 2;
  }
}

void blockServerSignals() {
  // Ignored rather than fatal: a stray kill -USR1 must not take the service down.
  ::signal(SIGUSR1, SIG_IGN);
  ::signal(SIGUSR2, SIG_IGN);
  sigset_t waited = serverSignals();
  pthread_sigmask(SIG_BLOCK, &waited, nullptr);
}

int serve(std::shared_ptr<host::CommandRegistry> registry, const std::string& socketPath,
          const std::string& httpEndpoint, host::MonitoringSources sources) {
  const sigset_t waited = serverSignals();
  std::shared_ptr<host::AdminServer> server;
  std::unique_ptr<host::HttpServer> http;
  try {
    server = std::make_shared<host::AdminServer>(std::move(registry), socketPath);
    std::cout << "serving on " << socketPath << std::endl;
    if (!httpEndpoint.empty()) {
      sources.admin = server;
      http = startMonitoring(httpEndpoint, std::move(sources), std::cout, std::cerr);
    }
  } catch (const std::exception& error) {
    std::cerr << kProgram << error.what() << std::endl;
    return 2;
  }
  int signal = 0;
  while (sigwait(&waited, &signal) == 0 && signal == SIGHUP) {
    reopenFiles();
  }
  if (http) {
    http->stop();
  }
  server->stop();
  std::cout << "stopped (" << (signal == SIGINT ? "SIGINT" : "SIGTERM") << ")" << std::endl;
  return 0;
}

}  // namespace shell
}  // namespace connector
