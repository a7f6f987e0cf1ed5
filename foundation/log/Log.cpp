#include "foundation/log/Log.h"

#include <fnmatch.h>

#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "foundation/log/Admin.h"
#include "foundation/log/detail/Confinement.h"
#include "foundation/log/detail/Destination.h"
#include "foundation/log/detail/Specification.h"

namespace foundation {
namespace log {

namespace detail {

struct channel_core {
  std::string name;
  std::shared_ptr<spdlog::logger> logger;  // its only sink is the process router
};

}  // namespace detail

namespace {

constexpr const char* kInitialDestination = "stderr";
constexpr const char* kInitialSpecification = "info";

// Our levels and spdlog's are listed in the same order.
spdlog::level::level_enum toSpdlog(level severity) {
  static_assert(static_cast<int>(level::error) == spdlog::level::err &&
                    static_cast<int>(level::off) == spdlog::level::off,
                "foundation::log::level follows spdlog's order");
  return static_cast<spdlog::level::level_enum>(severity);
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
    logger->set_level(specification_.level_for(name));
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
    auto sink = detail::open_destination(text, confinement_);
    router_->set_sinks({std::move(sink)});
    destination_ = text;
  }

  std::string specification() {
    std::lock_guard<std::mutex> lock(mutex_);
    return specificationText_;
  }

  void setSpecification(const std::string& text) {
    detail::specification parsed = detail::parse_specification(text);
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& core : channels_) {
      core->logger->set_level(parsed.level_for(core->name));
    }
    specification_ = std::move(parsed);
    specificationText_ = text;
  }

  void confine(const std::string& directory) {
    std::filesystem::path root = detail::canonical_confinement(directory);
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
        specification_(detail::parse_specification(kInitialSpecification)) {
    router_->set_sinks({std::make_shared<spdlog::sinks::stderr_sink_mt>()});
  }

  // Lock order: mutex_, then the router's own mutex (taken by set_sinks()). Writers take only the
  // router's mutex, and level changes are atomic stores, so logging never waits on mutex_.
  std::mutex mutex_;
  const std::shared_ptr<spdlog::sinks::dist_sink_mt> router_;    // every channel's only sink
  std::string destination_;                                      // guarded by mutex_
  std::string specificationText_;                                // guarded by mutex_
  detail::specification specification_;                          // guarded by mutex_
  std::vector<std::shared_ptr<detail::channel_core>> channels_;  // guarded by mutex_; creation order
  std::unordered_map<std::string, std::shared_ptr<detail::channel_core>> byName_;  // guarded by mutex_
  std::filesystem::path
      confinement_;  // guarded by mutex_; canonical, or empty when file destinations are free
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
