#include "foundation/log/Log.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "foundation/log/Admin.h"
#include "foundation/log/LineDestination.h"
#include "foundation/log/detail/Confinement.h"
#include "foundation/log/detail/Destination.h"
#include "foundation/log/detail/Sinks.h"
#include "foundation/log/detail/Specification.h"

namespace foundation {
namespace log {

namespace detail {

struct channel_core {
  std::string name;
  std::shared_ptr<spdlog::logger> logger;  // its only sink is the process router
};

// Holds the room reserved for one audit record, and gives it back if the record is never written.
struct audit_target {
  std::shared_ptr<spdlog::sinks::sink> sink;  // null when the audit channel did not pass info
  bool reserved = false;                      // room for the record was made on arrival
  mutable std::atomic<bool> written{false};

  ~audit_target() {
    if (reserved && !written.load()) {
      release_audit(*sink);
    }
  }
};

}  // namespace detail

namespace {

constexpr const char* kInitialDestination = "stderr";
constexpr const char* kJsonPrefix = "json:";
constexpr const char* kInitialSpecification = "info";
constexpr std::chrono::seconds kShortestTimedSpecification{1};
constexpr std::chrono::seconds kLongestTimedSpecification{86400};
// The channel of the process log's own records: the restore of a timed specification.
constexpr const char* kOwnChannel = "foundation.log";

using Clock = std::chrono::steady_clock;

// Every channel's only sink: passes each record to the destination in force, counting them.
class Router final : public spdlog::sinks::dist_sink<std::mutex> {
 public:
  void count(statistics_snapshot& snapshot) {
    std::lock_guard<std::mutex> lock(mutex_);
    snapshot.records = records_;
    snapshot.records_by_level = byLevel_;
  }

  // Counts an info record written past the router, straight to a destination.
  void countOne() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++records_;
    ++byLevel_[static_cast<std::size_t>(level::info)];
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    ++records_;
    // spdlog's levels run trace to critical in the order of ours.
    ++byLevel_[std::min<std::size_t>(static_cast<std::size_t>(msg.level), byLevel_.size() - 1)];
    dist_sink::sink_it_(msg);
  }

 private:
  std::uint64_t records_ = 0;  // guarded by the base's mutex_
  std::array<std::uint64_t, std::tuple_size<decltype(statistics_snapshot::records_by_level)>::value>
      byLevel_{};  // guarded by the base's mutex_
};

// Whether the process log exists yet; the exit hook below shuts down only one that does.
std::atomic<bool> processLogCreated{false};

// A specification set for a time, and what to restore after it. Re-issuing a timed
// specification replaces the deadline and keeps the rest, so that the one in force before the
// first timed change is what comes back.
struct PendingRestore {
  std::string text;  // the specification in force before the first timed one
  detail::specification parsed;
  Clock::time_point since;  // when the first timed one was set
  Clock::time_point deadline;
};

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
    static ProcessLog* const log = [] {
      auto* created = new ProcessLog();
      processLogCreated.store(true);
      return created;
    }();
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
    std::shared_ptr<spdlog::sinks::sink> retired;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const bool json = text.rfind(kJsonPrefix, 0) == 0;
      auto sink = detail::open_destination(json ? text.substr(std::strlen(kJsonPrefix)) : text, confinement_);
      sink->set_formatter(std::make_unique<detail::record_formatter>(json));
      router_->set_sinks({sink});
      retired = std::exchange(destination_sink_, std::move(sink));
      destination_ = text;
    }
    // No channel writes to it any more. Its queue, if it has one, is written out here, outside
    // every lock, so that neither writers nor other settings wait for it.
    retiredDrops_ += detail::drain_destination(*retired);
  }

  // The destination in force, if the audit channel passes info records now, with room reserved
  // for the record.
  std::shared_ptr<detail::audit_target> auditTarget() {
    channelNamed(audit_channel_name);  // listed among the channels, like any channel written to
    auto target = std::make_shared<detail::audit_target>();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (specification_.level_for(audit_channel_name) > toSpdlog(level::info)) {
        return target;
      }
      target->sink = destination_sink_;
    }
    target->reserved = detail::reserve_audit(*target->sink);
    return target;
  }

  // Writes one audit record to `sink`, which may have been retired meanwhile: a retired file
  // stays open while the route holds it, and a drained "async:" queue writes straight through.
  void writeAudit(spdlog::sinks::sink& sink, std::string_view text) {
    const spdlog::details::log_msg msg(audit_channel_name, spdlog::level::info,
                                       spdlog::string_view_t(text.data(), text.size()));
    detail::write_audit(sink, msg);
    router_->countOne();
  }

  void reopen() {
    std::lock_guard<std::mutex> lock(mutex_);
    detail::reopen_destination(*destination_sink_, destination_);
    ++reopens_;
  }

  statistics_snapshot statistics() {
    statistics_snapshot snapshot;
    std::shared_ptr<spdlog::sinks::sink> sink;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      sink = destination_sink_;
      snapshot.destination = destination_;
      snapshot.reopens = reopens_;
      if (pending_) {
        const auto left = pending_->deadline - Clock::now();
        snapshot.pending_restore = statistics_snapshot::restore{
            pending_->text, std::max(std::chrono::seconds(0), std::chrono::ceil<std::chrono::seconds>(left))};
      }
    }
    const detail::queue_counts counts = detail::queue_counts_of(*sink);
    router_->count(snapshot);
    snapshot.rotations = detail::rotations();
    snapshot.dropped = retiredDrops_ + counts.dropped;
    snapshot.queued = counts.queued;
    return snapshot;
  }

  std::string specification() {
    std::lock_guard<std::mutex> lock(mutex_);
    return specificationText_;
  }

  void setSpecification(const std::string& text) {
    detail::specification parsed = detail::parse_specification(text);
    std::lock_guard<std::mutex> lock(mutex_);
    apply(std::move(parsed), text);
    pending_.reset();
  }

  void setSpecificationFor(std::chrono::seconds duration, const std::string& text) {
    if (duration < kShortestTimedSpecification || duration > kLongestTimedSpecification) {
      throw std::invalid_argument("log specification " + std::string("\"") + text + "\" for " +
                                  std::to_string(duration.count()) +
                                  " seconds is refused: a timed specification lasts 1 to 86400 seconds");
    }
    detail::specification parsed = detail::parse_specification(text);
    std::lock_guard<std::mutex> lock(mutex_);
    const Clock::time_point now = Clock::now();
    if (!pending_) {
      pending_ = PendingRestore{specificationText_, specification_, now, now};
    }
    pending_->deadline = now + duration;
    apply(std::move(parsed), text);
    if (!restorer_.joinable() && !stopping_) {
      restorer_ = std::thread([this] { restoreWhenDue(); });
    }
    restoreDue_.notify_all();
  }

  // At normal exit: joins the restoring thread and writes out the destination's queue, so that
  // no thread of the library runs on while the process ends. The log stays usable afterwards;
  // an "async:" destination then writes on the caller's thread.
  void shutdown() {
    std::thread restorer;
    std::shared_ptr<spdlog::sinks::sink> retired;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      restorer = std::move(restorer_);
      // The channels move to the destination behind the queue (the text in force stays), so that
      // the queue can be written out with no writer left on it.
      if (auto direct = detail::behind_queue(*destination_sink_)) {
        router_->set_sinks({direct});
        retired = std::exchange(destination_sink_, std::move(direct));
      }
    }
    restoreDue_.notify_all();
    if (restorer.joinable()) {
      restorer.join();
    }
    if (retired) {
      retiredDrops_ += detail::drain_destination(*retired);
    }
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
  // Makes `parsed` the specification of every channel. Called with mutex_ held.
  void apply(detail::specification parsed, const std::string& text) {
    for (const auto& core : channels_) {
      core->logger->set_level(parsed.level_for(core->name));
    }
    specification_ = std::move(parsed);
    specificationText_ = text;
  }

  // The restoring thread: sleeps until the pending restore is due (or cancelled, or the process
  // exits), and restores it.
  void restoreWhenDue() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      if (!pending_) {
        restoreDue_.wait(lock);
      } else if (Clock::now() < pending_->deadline) {
        restoreDue_.wait_until(lock, pending_->deadline);
      } else {
        PendingRestore due = std::move(*pending_);
        pending_.reset();
        const std::string timed = specificationText_;
        apply(std::move(due.parsed), due.text);
        const auto lasted = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - due.since);
        // Writing joins a channel, which takes mutex_.
        lock.unlock();
        channel(kOwnChannel)
            .info("specification \"" + due.text + "\" restored after " + std::to_string(lasted.count()) +
                  " s of the timed \"" + timed + "\"");
        lock.lock();
      }
    }
  }

  ProcessLog()
      : router_(std::make_shared<Router>()),
        destination_(kInitialDestination),
        specificationText_(kInitialSpecification),
        specification_(detail::parse_specification(kInitialSpecification)),
        destination_sink_(std::make_shared<spdlog::sinks::stderr_sink_mt>()) {
    destination_sink_->set_formatter(std::make_unique<detail::record_formatter>(false));
    router_->set_sinks({destination_sink_});
  }

  // Lock order: mutex_, then the router's own mutex (taken by set_sinks()), then the destination's
  // own (taken by a reopen). Writers take only the router's mutex and the destination's, and level
  // changes are atomic stores, so logging never waits on mutex_. An "async:" queue is written out
  // with no lock of ours held.
  std::mutex mutex_;
  const std::shared_ptr<Router> router_;                         // every channel's only sink
  std::string destination_;                                      // guarded by mutex_
  std::string specificationText_;                                // guarded by mutex_
  detail::specification specification_;                          // guarded by mutex_
  std::vector<std::shared_ptr<detail::channel_core>> channels_;  // guarded by mutex_; creation order
  std::unordered_map<std::string, std::shared_ptr<detail::channel_core>> byName_;  // guarded by mutex_
  std::filesystem::path
      confinement_;  // guarded by mutex_; canonical, or empty when file destinations are free
  std::shared_ptr<spdlog::sinks::sink> destination_sink_;  // guarded by mutex_; the router's one sink
  std::uint64_t reopens_ = 0;                              // guarded by mutex_
  std::atomic<std::uint64_t> retiredDrops_{0};             // drops of the destinations set before
  std::optional<PendingRestore> pending_;                  // guarded by mutex_
  std::condition_variable restoreDue_;                     // waited on with mutex_ by restorer_
  std::thread restorer_;                                   // guarded by mutex_; started on first use
  bool stopping_ = false;                                  // guarded by mutex_; set at exit
};

// Shuts the process log down when the process exits normally. It is constructed when the
// library is loaded, before any object of its users, so it is destroyed after theirs.
struct ExitHook {
  ~ExitHook() {
    if (processLogCreated.load()) {
      ProcessLog::instance().shutdown();
    }
  }
};
const ExitHook exitHook;

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

audit_route::audit_route() : target_(ProcessLog::instance().auditTarget()) {}

bool audit_route::writable() const noexcept {
  return !target_->sink || target_->reserved;
}

void audit_route::write(std::string_view text) const {
  if (target_->sink && target_->reserved && !target_->written.exchange(true)) {
    ProcessLog::instance().writeAudit(*target_->sink, text);
  }
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
void set_specification_for(std::chrono::seconds duration, const std::string& text) {
  ProcessLog::instance().setSpecificationFor(duration, text);
}
void reopen() {
  // The files of the line destinations (access logs) too, whatever becomes of the process log's.
  std::exception_ptr failure;
  try {
    ProcessLog::instance().reopen();
  } catch (...) {
    failure = std::current_exception();
  }
  const std::string others = reopen_line_destinations();
  if (failure) {
    std::rethrow_exception(failure);
  }
  if (!others.empty()) {
    throw std::runtime_error(others);
  }
}
statistics_snapshot statistics() {
  return ProcessLog::instance().statistics();
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
