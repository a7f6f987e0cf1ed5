#include "foundation/log/detail/Destination.h"

#include <stdexcept>
#include <system_error>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "foundation/log/Log.h"
#include "foundation/log/detail/Confinement.h"

namespace foundation {
namespace log {
namespace detail {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFilePrefix = "file:";

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

// Appending to a FIFO or a device would block or misbehave; only regular files (or new ones) are logs.
void refuseSpecialFile(const std::string& text, const fs::path& path, const fs::file_status& status) {
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    throw std::invalid_argument("log destination " + inQuotes(text) + " is refused: " +
                                inQuotes(path.string()) + " exists and is not a regular file");
  }
}

}  // namespace

std::string destination_forms(const fs::path& confinement) {
  if (confinement.empty()) {
    return "use stderr, stdout, null or file:PATH (e.g. file:/var/log/app.log)";
  }
  return "use stderr, stdout, null or file:PATH with PATH inside " + inQuotes(confinement.string()) +
         " (e.g. file:app.log)";
}

file_target prepare_file(const std::string& text, const std::string& path_text, const fs::path& confinement) {
  if (path_text.empty()) {
    throw std::invalid_argument("log destination " + inQuotes(text) +
                                " names no file: " + destination_forms(confinement));
  }
  file_target target;
  std::error_code error;
  if (confinement.empty()) {
    target.path = path_text;
    const fs::path parent = target.path.parent_path().empty() ? fs::path(".") : target.path.parent_path();
    if (!fs::is_directory(parent, error)) {
      // spdlog would create the missing directories; a typo should not leave a tree behind.
      throw std::runtime_error("cannot open log file " + inQuotes(target.path.string()) + " for " +
                               inQuotes(text) + ": its directory " + inQuotes(parent.string()) +
                               " does not exist");
    }
    refuseSpecialFile(text, target.path, fs::status(target.path, error));
    return target;
  }
  // Confinement is checked before opening (so that nothing is created outside the directory)
  // and again on the opened file (so that a link swapped in meanwhile is caught).
  confined_file confined = confine_file(text, fs::path(path_text), confinement);
  target.path = std::move(confined.path);
  refuseSpecialFile(text, target.path, fs::symlink_status(target.path, error));
  target.handlers.after_open = [verify = std::move(confined.verify_opened)](
                                   const spdlog::filename_t&, std::FILE* file) { verify(file); };
  return target;
}

std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text, const fs::path& confinement) {
  if (text == "stderr") {
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
  }
  if (text == "stdout") {
    return std::make_shared<spdlog::sinks::stdout_sink_mt>();
  }
  if (text == "null") {
    return std::make_shared<spdlog::sinks::null_sink_mt>();
  }
  if (text.rfind(kFilePrefix, 0) != 0) {
    throw std::invalid_argument("unknown log destination " + inQuotes(text) + ": " +
                                destination_forms(confinement));
  }
  const file_target target = prepare_file(text, text.substr(std::string(kFilePrefix).size()), confinement);
  try {
    return std::make_shared<spdlog::sinks::basic_file_sink_mt>(target.path.string(), false, target.handlers);
  } catch (const spdlog::spdlog_ex& failure) {
    throw std::runtime_error("cannot open log file " + inQuotes(target.path.string()) + " for " +
                             inQuotes(text) + ": " + failure.what());
  }
}

std::shared_ptr<spdlog::sinks::sink> open_destination(const std::string& text) {
  return open_destination(text, fs::path(file_destination_confinement()));
}

}  // namespace detail
}  // namespace log
}  // namespace foundation
