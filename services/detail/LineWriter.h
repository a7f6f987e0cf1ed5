// A writer of lines with a thread of its own: requests hand it lines and never wait for a
// destination; its thread writes them, in order. The queue is bounded: a line that finds it full
// is refused (the caller counts it), so a destination that stalls (a pipe nobody reads) costs
// lines, never callers. The thread flushes a target after each run of lines it writes to it.
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
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
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
  bool flushAfterLines = false;  // spdlog's standard-stream sinks flush every line themselves
};

class LineWriter {
 public:
  // Lines waiting at most.
  static constexpr std::size_t kCapacity = 8192;

  // A writer with its thread running.
  static std::shared_ptr<LineWriter> start();

  // Queues a copy of `line` (without its newline) for `target`; returns false (and keeps
  // nothing) when the queue is full. Throws std::bad_alloc, having queued nothing, when memory
  // runs out.
  bool push(const std::shared_ptr<const LineTarget>& target, std::string_view line);

  // Queues a flush of `target`, after the lines queued for it, and lets it go: for a target that
  // has been replaced. Always taken, whatever the queue holds.
  void retire(std::shared_ptr<const LineTarget> target);

  // Waits until everything queued before the call has been handled.
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
  std::atomic<std::uint64_t> failed{0};  // lines, and flushes after lines, the destination refused

 private:
  // Lines back to back in one buffer, with one owner per run of entries for one target, so that
  // queueing a line allocates nothing once the buffers have grown, and frees nothing on another
  // thread. The thread swaps the whole queue with a batch of its own and hands the buffers back
  // emptied, so the two keep their capacity.
  struct Queue {
    struct Item {
      const LineTarget* target;
      std::size_t end;  // the line is text[previous item's end, end)
      bool flushOnly;   // no line: flush the target
    };
    std::string text;
    std::vector<Item> items;
    std::vector<std::shared_ptr<const LineTarget>> owners;  // keeps every target of items alive

    void add(const std::shared_ptr<const LineTarget>& target, std::string_view line, bool flushOnly);
    void clear();
  };

  void run();
  void release(std::unique_ptr<const LineTarget> target);

  std::mutex mutex_;
  std::condition_variable wake_;  // something was queued or released, or stopping_ was set
  std::condition_variable idle_;  // handled_ grew
  Queue queue_;                   // guarded by mutex_
  std::size_t lines_ = 0;         // guarded by mutex_; lines in queue_
  std::uint64_t queued_ = 0;      // guarded by mutex_; items queued so far
  std::uint64_t handled_ = 0;     // guarded by mutex_; items written, failed or flushed so far
  bool stopping_ = false;         // guarded by mutex_
  bool sleeping_ = false;         // guarded by mutex_; the thread waits on wake_ until woken
  unsigned flushing_ = 0;         // guarded by mutex_; threads waiting in flush()
  // Guarded by mutex_; targets let go by their last owner, for the thread to destroy.
  std::vector<std::unique_ptr<const LineTarget>> released_;
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
