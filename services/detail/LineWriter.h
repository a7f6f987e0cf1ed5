// A writer of lines with a thread of its own: requests hand it lines and never wait for a
// destination; its thread writes them, in order. The queue is bounded: a line that finds it full
// is refused (the caller counts it), so a destination that stalls (a pipe nobody reads) costs
// lines, never callers.
//
// Shared by its owner and its thread, which is detached: stop() only asks the thread to end, and
// it writes out what is queued and ends by itself, so no request thread that held the owner last
// ever waits for a write. At normal exit every writer still alive is written out, as the process
// log does with its queue. Each line goes to the LineTarget it was queued with; a target's last
// owner hands it to the writer's thread to destroy, so a request never closes a file either.
//
// Internal to connector_common_services. Every member is safe from any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log/LineDestination.h"

namespace connector {
namespace common_services {
namespace detail {

// Where a line goes; a provider derives its settings from it.
struct LineTarget {
  virtual ~LineTarget() = default;

  std::shared_ptr<foundation::log::line_destination> sink;
  bool flushEachLine = false;  // spdlog's standard-stream sinks flush every line themselves
};

class LineWriter {
 public:
  // Lines waiting at most.
  static constexpr std::size_t kCapacity = 8192;

  struct Entry {
    std::shared_ptr<const LineTarget> target;  // where the line goes
    std::string line;                          // empty: flush `target` and let it go (it was replaced)
  };

  // A writer with its thread running.
  static std::shared_ptr<LineWriter> start();

  // Queues `entry`; returns false (and keeps nothing) when the queue is full. An entry that only
  // lets its target go is always taken.
  bool push(Entry&& entry);

  // Waits until every entry queued before the call has been handled.
  void flush();

  // Lets the thread end once it has written what is queued.
  void stop();

  // Shares `target` so that its last owner hands it to `writer`'s thread, which destroys it.
  // Destroyed at once when the writer is gone.
  template <typename Target>
  static std::shared_ptr<const Target> owned(const std::shared_ptr<LineWriter>& writer, Target&& target) {
    const auto release = [writer = std::weak_ptr<LineWriter>(writer)](const Target* last) {
      std::unique_ptr<const LineTarget> owner(last);
      if (const std::shared_ptr<LineWriter> alive = writer.lock()) {
        alive->release(std::move(owner));
      }
    };
    return std::shared_ptr<const Target>(new Target(std::forward<Target>(target)), release);
  }

  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> failed{0};  // lines the destination refused

 private:
  void run();
  void release(std::unique_ptr<const LineTarget> target);

  std::mutex mutex_;
  std::condition_variable wake_;  // an entry was queued or released, or stopping_ was set
  std::condition_variable idle_;  // handled_ grew
  std::deque<Entry> queue_;       // guarded by mutex_
  std::uint64_t queued_ = 0;      // guarded by mutex_; entries queued so far
  std::uint64_t handled_ = 0;     // guarded by mutex_; entries written, failed or let go so far
  bool stopping_ = false;         // guarded by mutex_
  bool sleeping_ = false;         // guarded by mutex_; the thread waits on wake_ for work
  unsigned flushing_ = 0;         // guarded by mutex_; threads waiting in flush()
  // Guarded by mutex_; targets let go by their last owner, for the thread to destroy.
  std::vector<std::unique_ptr<const LineTarget>> released_;
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
