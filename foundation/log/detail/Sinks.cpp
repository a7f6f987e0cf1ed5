#include "foundation/log/detail/Sinks.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <utility>

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <nlohmann/json.hpp>

#include "foundation/log/Log.h"

namespace foundation {
namespace log {
namespace detail {

namespace {

// The name under which the queue reports its drops, as a channel would.
constexpr const char* kDropReporter = "foundation.log";

}  // namespace

// ---- reopenable_file_sink

reopenable_file_sink::reopenable_file_sink(opener open) : open_(std::move(open)), file_(open_()) {}

void reopenable_file_sink::log(const spdlog::details::log_msg& msg) {
  std::lock_guard<std::mutex> lock(mutex_);
  file_->log(msg);
}

void reopenable_file_sink::flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  file_->flush();
}

void reopenable_file_sink::set_pattern(const std::string& pattern) {
  set_formatter(std::make_unique<spdlog::pattern_formatter>(pattern));
}

void reopenable_file_sink::set_formatter(std::unique_ptr<spdlog::formatter> formatter) {
  std::lock_guard<std::mutex> lock(mutex_);
  formatter_ = std::move(formatter);
  file_->set_formatter(formatter_->clone());
}

void reopenable_file_sink::reopen() {
  std::unique_ptr<spdlog::sinks::sink> previous;  // closed once the lock is released
  std::lock_guard<std::mutex> lock(mutex_);
  // Opened under the lock: a rotating file must not rotate under the old sink while the new one
  // is being opened on the same name.
  std::unique_ptr<spdlog::sinks::sink> fresh = open_();
  if (formatter_) {
    fresh->set_formatter(formatter_->clone());
  }
  file_->flush();
  previous = std::exchange(file_, std::move(fresh));
}

// ---- async_sink

// The one sink of the async logger: runs on the pool's thread only, so it needs no lock.
class async_sink::backend final : public spdlog::sinks::sink {
 public:
  backend(std::shared_ptr<spdlog::sinks::sink> target, spdlog::details::thread_pool& pool)
      : target_(std::move(target)), pool_(&pool) {}

  void log(const spdlog::details::log_msg& msg) override {
    target_->log(msg);
    // One look at the queue per record, as each look costs the writers a turn at its lock.
    // Records are dropped only while the queue is full, and between two looks this thread takes
    // out one record, so drops since the last look leave the queue at least nearly full at this
    // one. The drop count is read only when the queue has room again after such a look: one
    // report per overflow, however long it lasts.
    const std::size_t waiting = pool_->queue_size();
    if (waiting + 1 >= queue_capacity) {
      overflowing_ = true;
    } else if (overflowing_) {
      overflowing_ = false;
      report_drops(pool_->overrun_counter());
    }
    if (waiting == 0) {
      target_->flush();
    }
  }
  void flush() override { target_->flush(); }
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}

  // Writes one warn record for the drops since the last report, if any. Called on the pool's
  // thread, or by drain() once that thread has been joined.
  void report_drops(std::size_t dropped) {
    if (dropped <= reported_) {
      return;
    }
    const std::string text = std::to_string(dropped - reported_) +
                             " log records were dropped because the async queue of " +
                             std::to_string(queue_capacity) + " records was full";
    reported_ = dropped;
    target_->log(spdlog::details::log_msg(spdlog::log_clock::now(), spdlog::source_loc{}, kDropReporter,
                                          spdlog::level::warn, text));
  }

  void detach() { pool_ = nullptr; }

 private:
  const std::shared_ptr<spdlog::sinks::sink> target_;
  // The pool that owns the thread calling log(); it outlives every call, and holding it weakly
  // or strongly would make it own itself through its queued records.
  spdlog::details::thread_pool* pool_;
  std::size_t reported_ = 0;  // drops already reported
  bool overflowing_ = false;  // the last look found the queue (nearly) full
};

async_sink::async_sink(std::shared_ptr<spdlog::sinks::sink> target)
    : target_(std::move(target)), pool_(std::make_shared<spdlog::details::thread_pool>(queue_capacity, 1)) {
  backend_ = std::make_shared<backend>(target_, *pool_);
  worker_ = std::make_shared<spdlog::async_logger>(kDropReporter, backend_, pool_,
                                                   spdlog::async_overflow_policy::overrun_oldest);
  worker_->set_level(spdlog::level::trace);
  auditWriter_ = std::thread([this] { writeAuditLane(); });
}

async_sink::~async_sink() {
  try {
    drain();
  } catch (...) {
    // Only a failed lock can throw here; the queue is then lost with the process.
  }
}

void async_sink::log(const spdlog::details::log_msg& msg) {
  if (msg.logger_name == audit_channel_name) {
    if (reserve_audit()) {
      write_audit(msg);
    } else {
      std::lock_guard<std::mutex> lock(auditMutex_);
      ++auditDropped_;
    }
    return;
  }
  // No lock: drain() runs only once no writer can reach this sink any more.
  if (!pool_) {
    target_->log(msg);
    return;
  }
  // The record keeps its own channel name and time: the pool copies the message, and the
  // backend writes it as it is. The async logger only carries it to the backend.
  pool_->post_log(std::shared_ptr<spdlog::async_logger>(worker_), msg,
                  spdlog::async_overflow_policy::overrun_oldest);
}

void async_sink::set_pattern(const std::string& pattern) {
  target_->set_pattern(pattern);
}

void async_sink::set_formatter(std::unique_ptr<spdlog::formatter> formatter) {
  target_->set_formatter(std::move(formatter));
}

bool async_sink::reserve_audit() {
  std::lock_guard<std::mutex> lock(auditMutex_);
  if (auditDrained_) {
    return true;
  }
  if (auditReserved_ == audit_capacity) {
    return false;
  }
  ++auditReserved_;
  return true;
}

void async_sink::release_audit() {
  std::lock_guard<std::mutex> lock(auditMutex_);
  if (!auditDrained_) {
    --auditReserved_;
  }
}

void async_sink::write_audit(const spdlog::details::log_msg& msg) {
  {
    std::lock_guard<std::mutex> lock(auditMutex_);
    if (!auditDrained_) {
      auditLane_.emplace_back(msg);
      auditReady_.notify_one();
      return;
    }
  }
  target_->log(msg);
  target_->flush();
}

void async_sink::writeAuditLane() {
  std::unique_lock<std::mutex> lock(auditMutex_);
  for (;;) {
    auditReady_.wait(lock, [this] { return auditDrained_ || !auditLane_.empty(); });
    if (auditLane_.empty()) {
      return;  // drained, and everything written
    }
    const spdlog::details::log_msg_buffer record = std::move(auditLane_.front());
    auditLane_.pop_front();
    // The place stays reserved until the record is out, so a stalled target fills the lane.
    lock.unlock();
    target_->log(record);
    target_->flush();
    lock.lock();
    --auditReserved_;
  }
}

void async_sink::drain() {
  std::lock_guard<std::mutex> lock(mutex_);
  {
    std::lock_guard<std::mutex> audit(auditMutex_);
    auditDrained_ = true;
  }
  auditReady_.notify_one();
  if (auditWriter_.joinable()) {
    auditWriter_.join();  // after writing out the lane
  }
  if (!pool_) {
    return;
  }
  // No writer can post while the lock is held, so the count is final.
  droppedWhenDrained_ = pool_->overrun_counter();
  // The pool's destructor queues a stop behind every record and joins its thread.
  pool_.reset();
  backend_->detach();
  backend_->report_drops(droppedWhenDrained_);
  target_->flush();
}

std::size_t async_sink::dropped() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::lock_guard<std::mutex> audit(auditMutex_);
  return (pool_ ? pool_->overrun_counter() : droppedWhenDrained_) + auditDropped_;
}

std::size_t async_sink::queued() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::lock_guard<std::mutex> audit(auditMutex_);
  return (pool_ ? pool_->queue_size() : 0) + auditLane_.size();
}

// ---- record_formatter

namespace {

// Levels as specifications spell them, in spdlog's order.
constexpr const char* kLevelNames[] = {"trace", "debug", "info", "warn", "error", "critical", "off"};

// A JSON string, quoted and escaped; bytes that are not UTF-8 become U+FFFD.
std::string jsonString(spdlog::string_view_t text) {
  return nlohmann::json(std::string(text.data(), text.size()))
      .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void record_formatter::format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) {
  const auto since = msg.time.time_since_epoch();
  const std::time_t second = std::chrono::duration_cast<std::chrono::seconds>(since).count();
  if (second != second_) {
    std::tm utc{};
    ::gmtime_r(&second, &utc);
    std::strftime(secondText_, sizeof secondText_, "%Y-%m-%dT%H:%M:%S", &utc);
    second_ = second;
  }
  const int millis =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count() % 1000);
  const char stamp[] = {'.', static_cast<char>('0' + millis / 100), static_cast<char>('0' + millis / 10 % 10),
                        static_cast<char>('0' + millis % 10), 'Z'};
  const std::string_view level = kLevelNames[static_cast<int>(msg.level)];
  const auto put = [&dest](std::string_view text) { dest.append(text.data(), text.data() + text.size()); };
  put(json_ ? "{\"time\":\"" : "[");
  put(secondText_);
  put(std::string_view(stamp, sizeof stamp));
  if (json_) {
    put("\",\"channel\":");
    put(jsonString(msg.logger_name));
    put(",\"level\":\"");
    put(level);
    put("\",\"text\":");
    put(jsonString(msg.payload));
    put("}\n");
  } else {
    put("] [");
    put(std::string_view(msg.logger_name.data(), msg.logger_name.size()));
    put("] [");
    put(level);
    put("] ");
    put(std::string_view(msg.payload.data(), msg.payload.size()));
    put("\n");
  }
}

// ---- function_sink

void function_sink::sink_it_(const spdlog::details::log_msg& msg) {
  spdlog::memory_buf_t formatted;
  formatter_->format(msg, formatted);
  write_(std::string_view(formatted.data(), formatted.size()));
}

}  // namespace detail
}  // namespace log
}  // namespace foundation
