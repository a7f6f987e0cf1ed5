// connector-shell: reads commands from a script, a pipe or a terminal and runs them on a Shell.
// See Shell::usage() (or --help) for what it offers.
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <readline/history.h>
#include <readline/readline.h>

#include "foundation/log/Log.h"
#include "host/DisplayText.h"
#include "tools/AdminClient.h"
#include "tools/Monitoring.h"
#include "tools/Shell.h"

namespace {

const char* const kPrompt = "connector> ";
const char* const kHistoryFileName = ".connector_shell_history";
constexpr int kHistoryLines = 1000;

// Readline's completion callbacks are plain functions; they reach the running shell through this.
const connector::shell::Shell* completingShell = nullptr;
std::vector<std::string> completionCandidates;

char* nextCandidate(const char* text, int state) {
  static std::size_t index;
  if (state == 0) {
    index = 0;
  }
  const std::size_t length = std::strlen(text);
  while (index < completionCandidates.size()) {
    const std::string& candidate = completionCandidates[index++];
    if (candidate.compare(0, length, text) == 0) {
      return strdup(candidate.c_str());
    }
  }
  return nullptr;
}

// Completes a word from what the shell says may follow the complete words before it.
char** complete(const char* text, int start, int) {
  rl_attempted_completion_over = 1;  // never fall back to file names
  std::string before(rl_line_buffer, static_cast<std::size_t>(start));
  std::vector<std::string> words;
  std::size_t from = 0;
  while ((from = before.find_first_not_of(' ', from)) != std::string::npos) {
    const std::size_t to = before.find(' ', from);
    words.push_back(before.substr(from, to - from));
    from = to;
  }
  completionCandidates = completingShell->completions(words);
  return completionCandidates.empty() ? nullptr : rl_completion_matches(text, nextCandidate);
}

// The history file: $HOME/.connector_shell_history, or none when HOME is not set.
std::string historyFile() {
  const char* home = std::getenv("HOME");
  return home != nullptr && home[0] != '\0' ? std::string(home) + "/" + kHistoryFileName : std::string();
}

// Ctrl-C abandons the line being typed instead of ending the shell. SIGINT is blocked and read
// from a descriptor that the input loop waits on beside the terminal, so it is handled in that
// loop, between two keys, with no signal handler (which could call nothing of readline safely).
// Called before anything starts a thread, so that every thread inherits the blocked signal.
// Returns the descriptor, or -1 if it cannot be had (Ctrl-C then ends the shell as usual).
int takeInterrupts() {
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  const int descriptor = signalfd(-1, &interrupt, SFD_CLOEXEC);
  if (descriptor >= 0) {
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
  }
  return descriptor;
}

// What the line handler, a plain function, works on.
connector::shell::Shell* lineShell = nullptr;
bool endOfInput = false;

void onLine(char* line) {
  if (line == nullptr) {  // Ctrl-D on an empty line
    std::cout << '\n';
    endOfInput = true;
    return;
  }
  const std::string text(line);
  std::free(line);
  if (!text.empty()) {
    add_history(text.c_str());
    const std::string file = historyFile();
    // Appended line by line, so that a shell that is killed keeps what was typed before.
    if (!file.empty() && append_history(1, file.c_str()) != 0) {
      write_history(file.c_str());
    }
  }
  lineShell->run(text);
}

int interactive(connector::shell::Shell& shell, int interrupts) {
  completingShell = &shell;
  lineShell = &shell;
  rl_attempted_completion_function = complete;
  const std::string file = historyFile();
  stifle_history(kHistoryLines);
  if (!file.empty()) {
    read_history(file.c_str());
    history_truncate_file(file.c_str(), kHistoryLines);
  }

  rl_callback_handler_install(kPrompt, onLine);
  const int terminal = fileno(rl_instream);
  while (!shell.quitRequested() && !endOfInput) {
    fd_set input;
    FD_ZERO(&input);
    FD_SET(terminal, &input);
    if (interrupts >= 0) {
      FD_SET(interrupts, &input);
    }
    const int ready = select(std::max(terminal, interrupts) + 1, &input, nullptr, nullptr, nullptr);
    if (ready < 0 && errno != EINTR) {
      std::perror("connector-shell: waiting for input");
      break;
    }
    if (ready > 0 && interrupts >= 0 && FD_ISSET(interrupts, &input)) {
      signalfd_siginfo taken;
      if (read(interrupts, &taken, sizeof taken) < 0) {
        std::perror("connector-shell: reading Ctrl-C");
      }
      rl_free_line_state();
      rl_callback_sigcleanup();
      std::fputs("^C", rl_outstream);
      rl_crlf();
      rl_replace_line("", 0);
      rl_on_new_line();
      rl_redisplay();
    } else if (ready > 0) {
      rl_callback_read_char();
    }
  }
  rl_callback_handler_remove();
  if (!file.empty()) {
    history_truncate_file(file.c_str(), kHistoryLines);
  }
  return 0;
}

// Runs every line of `input`; with `echo`, prints each line first, commands after the prompt,
// so that the output reads as a transcript.
int batch(connector::shell::Shell& shell, std::istream& input, bool echo) {
  bool failed = false;
  std::string line;
  while (!shell.quitRequested() && std::getline(input, line)) {
    if (echo) {
      const std::size_t first = line.find_first_not_of(" \t\r");
      const bool command = first != std::string::npos && line[first] != '#';
      std::cout << (command ? kPrompt : "") << connector::host::printable(line) << std::endl;
    }
    failed = !shell.run(line) || failed;
  }
  return failed ? 1 : 0;
}

int usageError(const std::string& text) {
  std::cerr << "connector-shell: " << text << "\n(connector-shell --help shows the options)" << std::endl;
  return 2;
}

// --config FILE: runs its lines (blank lines and "#" comments skipped) as administration
// commands, "config SUB ..." as connector.config.SUB, so that they are typed and audited as over
// the socket. Throws std::runtime_error naming the file, the line and the reason of the first bad
// line.
void loadConfiguration(connector::host::CommandRegistry& registry, const std::string& path) {
  std::ifstream file(path);
  std::error_code ignored;
  if (!file || std::filesystem::is_directory(path, ignored)) {
    throw std::runtime_error("cannot read the configuration " + path + ": " +
                             (file ? "it is a directory" : std::strerror(errno)));
  }
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    std::string reason;
    try {
      std::vector<connector::host::admin::Word> words = connector::host::admin::splitWords(line);
      if (words.empty() || (!words[0].quoted && words[0].text[0] == '#')) {
        continue;
      }
      const bool config = words.size() > 1 && words[0].text == "config";
      std::vector<std::string> arguments;
      for (std::size_t i = config ? 2 : 1; i < words.size(); ++i) {
        arguments.push_back(words[i].text);
      }
      const std::string name = config ? "connector.config." + words[1].text : words[0].text;
      const auto result = registry.execute(name, std::move(arguments), "--config " + path);
      reason = result.succeeded ? "" : result.text;
    } catch (const std::invalid_argument& error) {
      reason = error.what();
    }
    if (!reason.empty()) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + reason);
    }
  }
}

// Runs --config FILE, if given; false, with the reason on standard error, when a line is bad.
bool configure(connector::host::CommandRegistry& registry, const std::string& path) {
  try {
    if (!path.empty()) {
      loadConfiguration(registry, path);
    }
    return true;
  } catch (const std::runtime_error& error) {
    std::cerr << "connector-shell: " << error.what() << std::endl;
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
#ifdef __GLIBC__
  // A fixed mmap threshold (glibc's default, 128 KiB) keeps large blocks such as the process
  // log's async: queue in mappings of their own, given back when freed. Left dynamic, glibc
  // raises it once the first queue is freed and keeps later queues' pages in the arenas of the
  // threads that opened them, one per arena (README: memory across async: switches).
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
  std::string script;
  std::string logDirectory = ".";
  std::string serveSocket;
  std::string configFile;
  std::string httpEndpoint;
  connector::shell::ClientOptions client;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::cout << connector::shell::Shell::usage();
      return 0;
    }
    if (option == "--version") {
      std::cout << "connector-shell " << CONNECTOR_SHELL_VERSION << std::endl;
      return 0;
    }
    if ((option == "--script" || option == "--log-dir" || option == "--config" || option == "--http") &&
        i + 1 < argc) {
      (option == "--script"   ? script
       : option == "--config" ? configFile
       : option == "--http"   ? httpEndpoint
                              : logDirectory) = argv[++i];
      continue;
    }
    if ((option == "--serve" || option == "--connect" || option == "-c") && i + 1 < argc) {
      std::string& value = option == "--serve"     ? serveSocket
                           : option == "--connect" ? client.socketPath
                                                   : client.commands.emplace_back();
      value = argv[++i];
      continue;
    }
    if (option == "--script" || option == "--log-dir" || option == "--serve" || option == "--connect" ||
        option == "-c" || option == "--config" || option == "--http") {
      return usageError(option + " needs a value");
    }
    return usageError("unknown option \"" + option + "\"");
  }

  if (!client.socketPath.empty()) {
    if (!serveSocket.empty()) {
      return usageError("--serve and --connect exclude each other");
    }
    if (!httpEndpoint.empty()) {
      return usageError(
          "--http serves this process's figures; run it on the server (--serve SOCKET --http ...)");
    }
    if (!configFile.empty()) {
      return usageError("--config configures this process's host; with --connect, use -c 'config set ...'");
    }
    client.script = script;
    return connector::shell::runClient(client);
  }
  if (!client.commands.empty()) {
    return usageError("-c runs a command on a server; give the server's socket with --connect");
  }

  // Operators can point the process log at a file with connector.log.setDestination; keep such
  // files inside one directory so that a command cannot overwrite files elsewhere.
  try {
    foundation::log::confine_file_destinations(logDirectory);
  } catch (const std::exception& error) {
    return usageError(std::string("--log-dir: ") + error.what());
  }

  if (!serveSocket.empty() && !script.empty()) {
    return usageError("--serve runs no script (it serves until SIGTERM); put settings in --config FILE");
  }
  std::ifstream file;
  if (!script.empty()) {
    // A directory opens as a stream that reads nothing, which would run no command and succeed.
    std::error_code ignored;
    if (std::filesystem::is_directory(script, ignored)) {
      return usageError("cannot read the script " + connector::host::quoted(script) +
                        ": it is a directory, not a file of commands");
    }
    file.open(script);
    if (!file) {
      return usageError("cannot read the script " + connector::host::quoted(script) + ": " +
                        std::strerror(errno));
    }
  }

  if (!serveSocket.empty()) {
    connector::shell::blockServerSignals();
    connector::shell::Shell shell(std::cout, std::cerr);
    if (!configure(*shell.registry(), configFile)) {
      return 2;
    }
    return connector::shell::serve(shell.registry(), serveSocket, httpEndpoint, shell.monitoringSources());
  }
  const bool fromTerminal = script.empty() && isatty(STDIN_FILENO);
  const int interrupts = fromTerminal ? takeInterrupts() : -1;
  connector::shell::Shell shell(std::cout, std::cerr);
  if (!configure(*shell.registry(), configFile)) {
    return 2;
  }
  std::unique_ptr<connector::host::HttpServer> http;
  if (!httpEndpoint.empty()) {
    try {
      http = connector::shell::startMonitoring(httpEndpoint, shell.monitoringSources(), std::cout, std::cerr);
    } catch (const std::exception& error) {
      return usageError(std::string("--http: ") + error.what());
    }
  }
  if (!script.empty()) {
    return batch(shell, file, true);
  }
  if (fromTerminal) {
    return interactive(shell, interrupts);
  }
  return batch(shell, std::cin, false);
}
