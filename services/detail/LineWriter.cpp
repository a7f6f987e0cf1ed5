#include "services/detail/LineWriter.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace connector {
namespace common_services {
namespace detail {

namespace {

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

bool LineWriter::push(Entry&& entry) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.size() >= kCapacity && !entry.line.empty()) {
      return false;
    }
    queue_.push_back(std::move(entry));
    ++queued_;
    // Only a sleeping writer needs the (system) call; a busy one finds the line anyway.
    if (!sleeping_) {
      return true;
    }
    sleeping_ = false;
  }
  wake_.notify_one();
  return true;
}

void LineWriter::flush() {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::uint64_t target = queued_;
  ++flushing_;
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
  std::deque<Entry> batch;
  std::vector<std::unique_ptr<const LineTarget>> released;
  std::size_t done = 0;
  for (;;) {
    released.clear();  // outside the lock: closes the files of targets let go
    {
      std::unique_lock<std::mutex> lock(mutex_);
      handled_ += done;
      if (flushing_ > 0) {
        idle_.notify_all();
      }
      while (!stopping_ && queue_.empty() && released_.empty()) {
        sleeping_ = true;
        wake_.wait(lock);
      }
      sleeping_ = false;
      if (queue_.empty() && released_.empty()) {
        return;
      }
      batch.swap(queue_);
      released.swap(released_);
    }
    for (Entry& entry : batch) {
      foundation::log::line_destination& sink = *entry.target->sink;
      try {
        if (entry.line.empty()) {
          sink.flush();
          continue;
        }
        sink.write(entry.line);
        if (entry.target->flushEachLine) {
          sink.flush();
        }
        written.fetch_add(1, std::memory_order_relaxed);
      } catch (...) {
        if (!entry.line.empty()) {
          failed.fetch_add(1, std::memory_order_relaxed);
        }
      }
    }
    done = batch.size();
    batch.clear();  // hands the targets this thread held last to released_
  }
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector
