// The administration server's command pool: a fixed set of threads that run jobs in the order
// submitted. Its state is shared with the threads, so that one left running past a stop's
// deadline (detached) never touches freed memory. A job must not throw.
//
// Threads: submit() from any thread; construct, shutdown() and destroy from one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace connector {
namespace host {
namespace detail {

class CommandPool {
 public:
  // Throws std::runtime_error when the threads cannot all be made (a thread limit, little memory);
  // the threads made so far are ended first, so the failure never takes the process down.
  explicit CommandPool(std::size_t threads) : state_(std::make_shared<State>()) {
    try {
      for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back([state = state_] { work(*state); });
      }
    } catch (const std::exception& error) {
      const std::size_t made = threads_.size();
      shutdown(std::chrono::steady_clock::now() + std::chrono::hours(1));
      throw std::runtime_error("the administration server could make only " + std::to_string(made) +
                               " of its " + std::to_string(threads) + " command threads (" + error.what() +
                               "); lower maxConnections or raise the process's thread limit");
    }
  }

  // Idle threads end at once; a job still running is waited for.
  ~CommandPool() { shutdown(std::chrono::steady_clock::now() + std::chrono::hours(24 * 365)); }

  void submit(std::function<void()> job) {
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->jobs.push_back(std::move(job));
    }
    state_->wake.notify_one();
  }

  // Lets the queued and running jobs finish until `deadline`, joins the threads that ended and
  // detaches the others.
  void shutdown(std::chrono::steady_clock::time_point deadline) {
    if (threads_.empty()) {
      return;
    }
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    state_->wake.notify_all();
    const bool allEnded =
        state_->ended.wait_until(lock, deadline, [this] { return state_->endedThreads == threads_.size(); });
    lock.unlock();
    for (std::thread& thread : threads_) {
      if (allEnded) {
        thread.join();
      } else {
        thread.detach();
      }
    }
    threads_.clear();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;            // jobs were queued, or stopping was set
    std::condition_variable ended;           // a thread ended
    std::deque<std::function<void()>> jobs;  // guarded by mutex
    bool stopping = false;                   // guarded by mutex
    std::size_t endedThreads = 0;            // guarded by mutex
  };

  static void work(State& state) {
    std::unique_lock<std::mutex> lock(state.mutex);
    for (;;) {
      state.wake.wait(lock, [&] { return state.stopping || !state.jobs.empty(); });
      if (state.jobs.empty()) {
        break;
      }
      std::function<void()> job = std::move(state.jobs.front());
      state.jobs.pop_front();
      lock.unlock();
      job();          // never throws: run() catches whatever the command's execution throws
      job = nullptr;  // whatever the job holds goes before the lock is taken again
      lock.lock();
    }
    ++state.endedThreads;
    state.ended.notify_all();
  }

  std::shared_ptr<State> state_;
  std::vector<std::thread> threads_;
};

}  // namespace detail
}  // namespace host
}  // namespace connector
