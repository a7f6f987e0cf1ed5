// The sinks behind the destinations that spdlog does not offer as they are: a file that can be
// opened again by name ("file:", "rotating:"), a bounded queue that a background thread drains
// into another destination ("async:"), and a function that a test supplies ("test:NAME"); and
// the formatter that writes the process log's records as text or JSON lines ("json:").
//
// Internal to connector_common_services (not installed). Every sink here is safe from any
// thread, like spdlog's "_mt" sinks, so that one destination may be written by several threads
// (the process log's router, a provider's own logger, the queue's background thread).
#pragma once

#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/sink.h>

namespace foundation {
namespace log {
namespace detail {

// A log file that can be closed and opened again by name, so that after an outside tool renamed
// it new records land in a new file. The file itself is one of spdlog's single-threaded file
// sinks (basic or rotating), made by `open`, written under this sink's mutex.
class reopenable_file_sink final : public spdlog::sinks::sink {
 public:
  // Makes the file sink, checking the file first; throws like the destination it serves.
  using opener = std::function<std::unique_ptr<spdlog::sinks::sink>()>;

  // Opens the file now. Throws whatever `open` throws.
  explicit reopenable_file_sink(opener open);

  void log(const spdlog::details::log_msg& msg) override;
  void flush() override;
  void set_pattern(const std::string& pattern) override;
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override;

  // Closes the file and opens it again by name. Every record goes to exactly one of the two: those
  // written before the call to the old file, those after to the new. When the new file cannot be
  // opened, throws like `open` and keeps writing to the old one.
  void reopen();

 private:
  const opener open_;
  std::mutex mutex_;
  std::unique_ptr<spdlog::sinks::sink> file_;     // guarded by mutex_
  std::unique_ptr<spdlog::formatter> formatter_;  // guarded by mutex_; null while spdlog's default serves
};

// "async:DEST": records go into a queue of `queue_capacity` records that one background thread
// (an spdlog thread pool) drains into `target`. Writing never waits for the target: when the
// queue is full, the oldest queued record is dropped and counted, and once the queue has room
// again (the overflow is over) it writes one warn record saying how many were dropped
// since the last such record. The thread flushes the target whenever it has emptied the queue.
//
// Records of the audit channel travel in a lane of their own, of `audit_capacity` records, that
// a second thread writes and flushes, so that other channels cannot overrun it and no writer
// waits for the target (they may precede records still queued). A command's record reserves its
// place on arrival (reserve_audit()), so that a full lane refuses the command rather than lose
// its record; an audit record written without a reservation (through a channel) that finds the
// lane full is dropped and counted with the queue's drops.
class async_sink final : public spdlog::sinks::sink {
 public:
  static constexpr std::size_t queue_capacity = 8192;
  static constexpr std::size_t audit_capacity = 256;

  // Starts the background thread. `target` must be safe from any thread.
  explicit async_sink(std::shared_ptr<spdlog::sinks::sink> target);

  // Drains (see drain()). Never throws.
  ~async_sink() override;

  void log(const spdlog::details::log_msg& msg) override;
  void flush() override {}  // the background thread flushes; see above
  void set_pattern(const std::string& pattern) override;
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override;

  // Writes every queued record to the target, reports drops not yet reported, joins the thread
  // and flushes the target; later records go to the target on the writer's thread. Call it only
  // once no writer can reach this sink any more (log() takes no lock, for speed), e.g. after the
  // router has moved to another sink; the destructor calls it.
  void drain();

  std::size_t dropped();  // records dropped so far
  std::size_t queued();   // records waiting now, in the queue and in the audit lane

  // Reserves a place in the audit lane; false when the lane is full. Always true once drained.
  bool reserve_audit();
  // Writes an audit record into the place reserved for it (to the target once drained).
  void write_audit(const spdlog::details::log_msg& msg);
  // Gives back a place reserved and not written.
  void release_audit();

  const std::shared_ptr<spdlog::sinks::sink>& target() const { return target_; }

 private:
  class backend;

  const std::shared_ptr<spdlog::sinks::sink> target_;
  std::mutex mutex_;  // serialises drain() with the counts; writers do not take it
  std::shared_ptr<spdlog::details::thread_pool> pool_;  // written by drain() under mutex_; null once drained
  std::shared_ptr<backend> backend_;                    // written to by the pool's thread only
  std::shared_ptr<spdlog::async_logger> worker_;        // hands the queued records to backend_
  std::size_t droppedWhenDrained_ = 0;                  // guarded by mutex_

  void writeAuditLane();  // the audit lane's thread

  // Lock order: mutex_, then auditMutex_. Neither is held while the target is written.
  std::mutex auditMutex_;
  std::condition_variable auditReady_;                     // waited on by auditWriter_
  std::deque<spdlog::details::log_msg_buffer> auditLane_;  // guarded by auditMutex_
  std::size_t auditReserved_ = 0;  // guarded by auditMutex_; places reserved, queued or not
  std::size_t auditDropped_ = 0;   // guarded by auditMutex_
  bool auditDrained_ = false;      // guarded by auditMutex_; set by drain(), then records go direct
  std::thread auditWriter_;        // joined by drain()
};

// How the process log writes a record, as one line: by default
//   [2026-11-24T11:24:42.204Z] [CHANNEL] [LEVEL] TEXT
// with the time in UTC (ISO 8601, milliseconds, "Z") and the level spelled as specifications
// spell it (trace, debug, info, warn, error, critical); as JSON,
//   {"time":"2026-11-24T11:24:42.204Z","channel":"CHANNEL","level":"LEVEL","text":"TEXT"}
// where every string is valid UTF-8 and escaped, whatever bytes the record holds (a byte that is
// not UTF-8 becomes U+FFFD). Safe from any thread.
class record_formatter final : public spdlog::formatter {
 public:
  explicit record_formatter(bool json) : json_(json) {}
  void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override;
  std::unique_ptr<spdlog::formatter> clone() const override {
    return std::make_unique<record_formatter>(json_);
  }

 private:
  const bool json_;
  // The date and time up to the second, remade only when the second changes. A sink calls its
  // formatter under its own lock, as spdlog's pattern formatter also assumes.
  std::time_t second_ = -1;
  char secondText_[24] = {};
};

// "test:NAME": hands each record, formatted, to a function of a test.
class function_sink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit function_sink(std::function<void(std::string_view)> write) : write_(std::move(write)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override;
  void flush_() override {}

 private:
  const std::function<void(std::string_view)> write_;
};

}  // namespace detail
}  // namespace log
}  // namespace foundation
