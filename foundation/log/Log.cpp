#include "foundation/log/Log.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "foundation/log/Admin.h"

namespace foundation {
namespace log {

namespace detail {

struct channel_core {
  std::string name;
  std::shared_ptr<spdlog::logger> logger;  // its only sink is the process router
};

}  // namespace detail

namespace {

namespace fs = std::filesystem;

constexpr const char* kInitialDestination = "stderr";
constexpr const char* kInitialSpecification = "info";
constexpr const char* kFilePrefix = "file:";
constexpr const char* kDestinationForms =
    "use stderr, stdout, null or file:PATH (e.g. file:/var/log/app.log)";
constexpr const char* kLevelNames = "trace, debug, info, warn, error, critical or off";

// Our levels and spdlog's are listed in the same order; the table keeps the mapping explicit.
constexpr std::array<std::pair<const char*, spdlog::level::level_enum>, 7> kLevels{{
    {"trace", spdlog::level::trace},
    {"debug", spdlog::level::debug},
    {"info", spdlog::level::info},
    {"warn", spdlog::level::warn},
    {"error", spdlog::level::err},
    {"critical", spdlog::level::critical},
    {"off", spdlog::level::off},
}};

spdlog::level::level_enum toSpdlog(level severity) {
  return kLevels[static_cast<std::size_t>(severity)].second;
}

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

struct Override {
  std::string pattern;
  spdlog::level::level_enum level;
};

struct Specification {
  spdlog::level::level_enum defaultLevel = spdlog::level::info;
  std::vector<Override> overrides;  // in the order written; the last match wins

  spdlog::level::level_enum levelFor(const std::string& name) const {
    for (auto it = overrides.rbegin(); it != overrides.rend(); ++it) {
      if (::fnmatch(it->pattern.c_str(), name.c_str(), 0) == 0) {
        return it->level;
      }
    }
    return defaultLevel;
  }
};

spdlog::level::level_enum parseLevel(const std::string& text, const std::string& word) {
  for (const auto& entry : kLevels) {
    if (word == entry.first) {
      return entry.second;
    }
  }
  throw std::invalid_argument("log specification " + inQuotes(text) + ": unknown level " + inQuotes(word) +
                              " (use " + kLevelNames + ")");
}

Specification parseSpecification(const std::string& text) {
  if (trimmed(text).empty()) {
    throw std::invalid_argument(
        "log specification is empty: give a default level such as \"info\", optionally followed by "
        "overrides such as \",connector.*=debug\"");
  }
  Specification result;
  bool haveDefault = false;
  std::string defaultWord;
  std::size_t start = 0;
  for (std::size_t position = 1;; ++position) {
    const auto comma = text.find(',', start);
    const std::string item = trimmed(text.substr(start, comma == std::string::npos ? comma : comma - start));
    if (item.empty()) {
      throw std::invalid_argument("log specification " + inQuotes(text) + ": item " +
                                  std::to_string(position) +
                                  " is empty (separate items with single commas, no comma at either end)");
    }
    const auto equals = item.find('=');
    if (equals == std::string::npos) {
      if (haveDefault) {
        throw std::invalid_argument("log specification " + inQuotes(text) + " has two default levels (" +
                                    inQuotes(defaultWord) + " and " + inQuotes(item) +
                                    "): give at most one, and PATTERN=LEVEL for the others");
      }
      result.defaultLevel = parseLevel(text, item);
      haveDefault = true;
      defaultWord = item;
    } else {
      if (item.find('=', equals + 1) != std::string::npos) {
        throw std::invalid_argument("log specification " + inQuotes(text) + ": item " + inQuotes(item) +
                                    " has more than one \"=\" (write PATTERN=LEVEL)");
      }
      const std::string pattern = trimmed(item.substr(0, equals));
      if (pattern.empty()) {
        throw std::invalid_argument("log specification " + inQuotes(text) + ": item " + inQuotes(item) +
                                    " has no channel pattern before \"=\" (write PATTERN=LEVEL)");
      }
      result.overrides.push_back(Override{pattern, parseLevel(text, trimmed(item.substr(equals + 1)))});
    }
    if (comma == std::string::npos) {
      return result;
    }
    start = comma + 1;
  }
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The process-wide log. Created on first use and never destroyed, so that channels stay usable
// from static destructors in any order.
class ProcessLog {
 public:
  static ProcessLog& instance() {
    static ProcessLog* const log = new ProcessLog();
    return *log;
  }

  std::shared_ptr<detail::channel_core> channelNamed(const std::string& name) {
    if (name.empty()) {
      throw std::invalid_argument("a log channel needs a non-empty name, such as \"connector.delivery\"");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = byName_.find(name);
    if (found != byName_.end()) {
      return found->second;
    }
    auto logger = std::make_shared<spdlog::logger>(name, router_);
    logger->set_level(specification_.levelFor(name));
    // Flushing every record means a record is in the file once write() returns, and nothing is
    // lost when the process ends without running destructors.
    logger->flush_on(spdlog::level::trace);
    auto core = std::make_shared<detail::channel_core>(detail::channel_core{name, std::move(logger)});
    channels_.push_back(core);
    byName_.emplace(name, core);
    return core;
  }

  std::vector<std::string> channelNames(const std::string* pattern) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    for (const auto& core : channels_) {
      if (pattern == nullptr || ::fnmatch(pattern->c_str(), core->name.c_str(), 0) == 0) {
        names.push_back(core->name);
      }
    }
    return names;
  }

  std::string destination() {
    std::lock_guard<std::mutex> lock(mutex_);
    return destination_;
  }

  void setDestination(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto sink = makeSink(text);
    router_->set_sinks({std::move(sink)});
    destination_ = text;
  }

  std::string specification() {
    std::lock_guard<std::mutex> lock(mutex_);
    return specificationText_;
  }

  void setSpecification(const std::string& text) {
    Specification parsed = parseSpecification(text);
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& core : channels_) {
      core->logger->set_level(parsed.levelFor(core->name));
    }
    specification_ = std::move(parsed);
    specificationText_ = text;
  }

  void confine(const std::string& directory) {
    fs::path root;
    if (!directory.empty()) {
      std::error_code error;
      root = fs::canonical(directory, error);
      if (error || !fs::is_directory(root, error)) {
        throw std::invalid_argument("cannot confine log files to " + inQuotes(directory) +
                                    ": it is not an existing directory");
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    confinement_ = std::move(root);
  }

  std::string confinement() {
    std::lock_guard<std::mutex> lock(mutex_);
    return confinement_.string();
  }

 private:
  ProcessLog()
      : router_(std::make_shared<spdlog::sinks::dist_sink_mt>()),
        destination_(kInitialDestination),
        specificationText_(kInitialSpecification),
        specification_(parseSpecification(kInitialSpecification)) {
    router_->set_sinks({std::make_shared<spdlog::sinks::stderr_sink_mt>()});
  }

  // Builds the sink for a destination text without touching the one in force. Called under mutex_.
  std::shared_ptr<spdlog::sinks::sink> makeSink(const std::string& text) {
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
      throw std::invalid_argument("unknown log destination " + inQuotes(text) + ": " + kDestinationForms);
    }
    const std::string pathText = text.substr(std::string(kFilePrefix).size());
    if (pathText.empty()) {
      throw std::invalid_argument("log destination " + inQuotes(text) +
                                  " names no file: " + kDestinationForms);
    }
    return confinement_.empty() ? openFile(text, fs::path(pathText))
                                : openConfinedFile(text, fs::path(pathText));
  }

  std::shared_ptr<spdlog::sinks::sink> openFile(const std::string& text, const fs::path& path) {
    const fs::path parent = path.parent_path().empty() ? fs::path(".") : path.parent_path();
    std::error_code error;
    if (!fs::is_directory(parent, error)) {
      // spdlog would create the missing directories; a typo should not leave a tree behind.
      throw std::runtime_error("cannot open log file " + inQuotes(path.string()) + " for " + inQuotes(text) +
                               ": its directory " + inQuotes(parent.string()) + " does not exist");
    }
    refuseSpecialFile(text, path, fs::status(path, error));
    return open(text, path, {});
  }

  // Confinement is checked before opening (so that nothing is created outside the directory)
  // and again on the opened file (so that a link swapped in meanwhile is caught).
  std::shared_ptr<spdlog::sinks::sink> openConfinedFile(const std::string& text, const fs::path& given) {
    const std::string refused = "log destination " + inQuotes(text) + " is refused: ";
    const std::string confined = "log files are confined to " + inQuotes(confinement_.string());
    for (const auto& part : given) {
      if (part == "..") {
        throw std::invalid_argument(refused + "\"..\" may not appear in the path (" + confined + ")");
      }
    }
    const fs::path path = (confinement_ / given).lexically_normal();  // an absolute `given` replaces the root
    const fs::path inside = path.lexically_relative(confinement_);
    if (inside.empty() || *inside.begin() == ".." || inside == ".") {
      throw std::invalid_argument(refused + inQuotes(path.string()) + " lies outside the directory (" +
                                  confined + ")");
    }
    const fs::path parent = path.parent_path();
    std::error_code error;
    if (!fs::is_directory(parent, error)) {
      throw std::runtime_error("cannot open log file " + inQuotes(path.string()) + " for " + inQuotes(text) +
                               ": its directory " + inQuotes(parent.string()) + " does not exist");
    }
    const auto checkNoLinks = [&] {
      std::error_code canonicalError;
      if (fs::canonical(parent, canonicalError) != parent || canonicalError) {
        throw std::invalid_argument(refused + "the directory " + inQuotes(parent.string()) +
                                    " is reached through a symbolic link (" + confined + ")");
      }
      if (fs::is_symlink(fs::symlink_status(path, canonicalError))) {
        throw std::invalid_argument(refused + inQuotes(path.string()) + " is a symbolic link (" + confined +
                                    ")");
      }
    };
    checkNoLinks();
    refuseSpecialFile(text, path, fs::symlink_status(path, error));

    spdlog::file_event_handlers handlers;
    handlers.after_open = [&](const spdlog::filename_t&, std::FILE* file) {
      checkNoLinks();
      struct stat opened {};
      struct stat named {};
      if (::fstat(::fileno(file), &opened) != 0 || ::lstat(path.c_str(), &named) != 0 ||
          !sameFile(opened, named)) {
        throw std::invalid_argument(refused + inQuotes(path.string()) +
                                    " was replaced while it was being opened (" + confined + ")");
      }
    };
    return open(text, path, handlers);
  }

  // Appending to a FIFO or a device would block or misbehave; only regular files (or new ones) are logs.
  static void refuseSpecialFile(const std::string& text, const fs::path& path,
                                const fs::file_status& status) {
    if (fs::exists(status) && !fs::is_regular_file(status)) {
      throw std::invalid_argument("log destination " + inQuotes(text) + " is refused: " +
                                  inQuotes(path.string()) + " exists and is not a regular file");
    }
  }

  static std::shared_ptr<spdlog::sinks::sink> open(const std::string& text, const fs::path& path,
                                                   const spdlog::file_event_handlers& handlers) {
    try {
      return std::make_shared<spdlog::sinks::basic_file_sink_mt>(path.string(), false, handlers);
    } catch (const spdlog::spdlog_ex& failure) {
      throw std::runtime_error("cannot open log file " + inQuotes(path.string()) + " for " + inQuotes(text) +
                               ": " + failure.what());
    }
  }

  // Lock order: mutex_, then the router's own mutex (taken by set_sinks()). Writers take only the
  // router's mutex, and level changes are atomic stores, so logging never waits on mutex_.
  std::mutex mutex_;
  const std::shared_ptr<spdlog::sinks::dist_sink_mt> router_;    // every channel's only sink
  std::string destination_;                                      // guarded by mutex_
  std::string specificationText_;                                // guarded by mutex_
  Specification specification_;                                  // guarded by mutex_
  std::vector<std::shared_ptr<detail::channel_core>> channels_;  // guarded by mutex_; creation order
  std::unordered_map<std::string, std::shared_ptr<detail::channel_core>> byName_;  // guarded by mutex_
  fs::path confinement_;  // guarded by mutex_; canonical, or empty when file destinations are free
};

}  // namespace

channel::channel(const std::string& name) : core_(ProcessLog::instance().channelNamed(name)) {}

const std::string& channel::name() const noexcept {
  return core_->name;
}

bool channel::enabled(level severity) const noexcept {
  return severity != level::off && core_->logger->should_log(toSpdlog(severity));
}

void channel::write(level severity, std::string_view text) const {
  if (severity == level::off) {
    return;
  }
  core_->logger->log(toSpdlog(severity), spdlog::string_view_t(text.data(), text.size()));
}

std::string destination() {
  return ProcessLog::instance().destination();
}
void set_destination(const std::string& text) {
  ProcessLog::instance().setDestination(text);
}
std::string specification() {
  return ProcessLog::instance().specification();
}
void set_specification(const std::string& text) {
  ProcessLog::instance().setSpecification(text);
}
void confine_file_destinations(const std::string& directory) {
  ProcessLog::instance().confine(directory);
}
std::string file_destination_confinement() {
  return ProcessLog::instance().confinement();
}

namespace local {

admin::admin() noexcept = default;
admin::~admin() = default;

boost::shared_ptr<admin> admin::get() {
  // Never destroyed, like the log itself, so get() works from static destructors.
  static const auto* const instance = new boost::shared_ptr<admin>(new admin());
  return *instance;
}

std::vector<std::string> admin::getChannels() {
  return ProcessLog::instance().channelNames(nullptr);
}

std::vector<std::string> admin::getChannels(const std::string& pattern) {
  return ProcessLog::instance().channelNames(&pattern);
}

}  // namespace local

}  // namespace log
}  // namespace foundation
