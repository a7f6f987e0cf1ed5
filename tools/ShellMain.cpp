// connector-shell: reads commands from a script, a pipe or a terminal and runs them on a Shell.
// See Shell::usage() (or --help) for what it offers.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <readline/history.h>
#include <readline/readline.h>

#include "foundation/log/Log.h"
#include "host/DisplayText.h"
#include "tools/Shell.h"

namespace {

const char* const kPrompt = "connector> ";

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

// Completes the first word from the shell's commands and the second from what may follow it.
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
  if (words.empty()) {
    completionCandidates = completingShell->commandNames();
  } else if (words.size() == 1) {
    completionCandidates = completingShell->secondWords(words[0]);
  } else {
    return nullptr;
  }
  return rl_completion_matches(text, nextCandidate);
}

int interactive(connector::shell::Shell& shell) {
  completingShell = &shell;
  rl_attempted_completion_function = complete;
  while (!shell.quitRequested()) {
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
    shell.run(text);
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

}  // namespace

int main(int argc, char** argv) {
  std::string script;
  std::string logDirectory = ".";
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::cout << connector::shell::Shell::usage();
      return 0;
    }
    if ((option == "--script" || option == "--log-dir") && i + 1 < argc) {
      (option == "--script" ? script : logDirectory) = argv[++i];
      continue;
    }
    if (option == "--script" || option == "--log-dir") {
      return usageError(option + " needs a value");
    }
    return usageError("unknown option \"" + option + "\"");
  }

  // Operators can point the process log at a file with connector.log.setDestination; keep such
  // files inside one directory so that a command cannot overwrite files elsewhere.
  try {
    foundation::log::confine_file_destinations(logDirectory);
  } catch (const std::exception& error) {
    return usageError(std::string("--log-dir: ") + error.what());
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

  connector::shell::Shell shell(std::cout, std::cerr);
  if (!script.empty()) {
    return batch(shell, file, true);
  }
  if (isatty(STDIN_FILENO)) {
    return interactive(shell);
  }
  return batch(shell, std::cin, false);
}
