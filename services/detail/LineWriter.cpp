#include "services/detail/LineWriter.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace connector {
namespace common_services {
namespace detail {

namespace {

// How long the thread waits for more lines after a batch before it sleeps until woken: the most
// a line queued meanwhile waits for the thread.
constexpr std::chrono::milliseconds kLinger{1};

// The writers alive, for the exit handler. Never destroyed, so that it outlives every writer
// whatever the order of static destruction.
struct LiveWriters {
  std::mutex mutex;
  std::vector<std::weak_ptr<LineWriter>> writers;  // guarded by mutex
};

LiveWriters& liveWriters() {
  static LiveWriters* const writers = new LiveWriters;
  return *writers;
}

void writeOutAtExit() {
  std::vector<std::weak_ptr<LineWriter>> writers;
  {
    std::lock_guard<std::mutex> lock(liveWriters().mutex);
    writers = liveWriters().writers;
  }
  for (const std::weak_ptr<LineWriter>& entry : writers) {
    if (const std::shared_ptr<LineWriter> writer = entry.lock()) {
      writer->flush();
    }
  }
}

}  // namespace

std::shared_ptr<LineWriter> LineWriter::start() {
  static std::once_flag atExit;
  std::call_once(atExit, [] { std::atexit(writeOutAtExit); });
  auto writer = std::make_shared<LineWriter>();
  {
    std::lock_guard<std::mutex> lock(liveWriters().mutex);
    auto& writers = liveWriters().writers;
    writers.erase(std::remove_if(writers.begin(), writers.end(), [](const auto& w) { return w.expired(); }),
                  writers.end());
    writers.push_back(writer);
  }
  std::thread([writer] { writer->run(); }).detach();
  return writer;
}

void LineWriter::Queue::add(const std::shared_ptr<const LineTarget>& target, std::string_view line,
                            bool flushOnly) {
  // Should an allocation fail, the queue's lines still match their items: an extra owner only
  // keeps its target a little longer.
  if (owners.empty() || owners.back() != target) {
    owners.push_back(target);
  }
  items.push_back(Item{target.get(), text.size() + line.size(), flushOnly});
  try {
    text.append(line);
  } catch (...) {
    items.pop_back();
    throw;
  }
}

void LineWriter::Queue::clear() {
  text.clear();
  items.clear();
  owners.clear();
}

bool LineWriter::push(const std::shared_ptr<const LineTarget>& target, std::string_view line) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lines_ >= kCapacity) {
      return false;
    }
    queue_.add(target, line, false);
    ++lines_;
    ++queued_;
    // Only a sleeping writer needs the (system) call; a busy or lingering one finds the line.
    if (!sleeping_) {
      return true;
    }
    sleeping_ = false;
  }
  wake_.notify_one();
  return true;
}

void LineWriter::retire(std::shared_ptr<const LineTarget> target) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.add(target, std::string_view(), true);
    ++queued_;
    sleeping_ = false;
  }
  wake_.notify_one();
}

void LineWriter::flush() {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::uint64_t target = queued_;
  ++flushing_;
  wake_.notify_one();  // a lingering writer need not wait out its linger
  idle_.wait(lock, [&] { return handled_ >= target; });
  --flushing_;
}

void LineWriter::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
}

void LineWriter::release(std::unique_ptr<const LineTarget> target) {
  std::lock_guard<std::mutex> lock(mutex_);
  released_.push_back(std::move(target));
  wake_.notify_one();
}

void LineWriter::run() {
  Queue batch;
  std::vector<std::unique_ptr<const LineTarget>> released;
  std::size_t done = 0;
  for (;;) {
    // Outside the lock: the last owners of replaced targets hand them to released_, and the
    // files of targets let go are closed.
    batch.clear();
    released.clear();
    {
      std::unique_lock<std::mutex> lock(mutex_);
      handled_ += done;
      if (flushing_ > 0) {
        idle_.notify_all();
      }
      // After a batch the thread lingers once, unannounced, before it sleeps: lines queued
      // meanwhile are found when the linger ends, so a steady stream of requests makes no
      // wake-up calls at all, and only the first line after a quiet spell makes one.
      bool linger = done > 0;
      while (!stopping_ && queue_.items.empty() && released_.empty()) {
        if (linger) {
          linger = false;
          wake_.wait_for(lock, kLinger);
          continue;
        }
        sleeping_ = true;
        wake_.wait(lock);
      }
      sleeping_ = false;
      if (queue_.items.empty() && released_.empty()) {
        return;
      }
      std::swap(batch, queue_);
      lines_ = 0;
      released.swap(released_);
    }
    // A target is flushed once per run of its lines rather than once per line: the lines reach
    // the file as soon, and a file keeps up with many more requests.
    std::size_t begin = 0;
    for (std::size_t i = 0; i < batch.items.size(); ++i) {
      const Queue::Item& item = batch.items[i];
      foundation::log::line_destination& sink = *item.target->sink;
      const std::string_view line(batch.text.data() + begin, item.end - begin);
      begin = item.end;
      const bool runEnds = i + 1 == batch.items.size() || batch.items[i + 1].target != item.target;
      try {
        if (!item.flushOnly) {
          sink.write(line);
          written.fetch_add(1, std::memory_order_relaxed);
        }
        if (item.flushOnly || (runEnds && item.target->flushAfterLines)) {
          sink.flush();
        }
      } catch (...) {
        failed.fetch_add(1, std::memory_order_relaxed);
      }
    }
    done = batch.items.size();
  }
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector
