// The requests in flight of a provider, each with its number, its type and its start time, for a
// listing that any thread may take while requests come and go.
//
// Each of the first kOwners stripes (one per thread, see the statistics provider) has kOwnedSlots
// slots that only its thread claims, with a plain store; every thread may claim one of the
// kCommonSlots common slots with a compare-and-swap, starting where it last found one free. So
// up to kOwners threads with up to kCommonSlots requests in flight between them (and kOwnedSlots
// more each) take no lock; only a request that finds every slot taken waits in a map under a lock.
//
// A slot is free while its `number` is 0 and held by the request whose number plus one it holds.
// The holder claims it by that number, then writes the start and, last, the type; it clears the
// type before it lets the number go (any thread may: the one that completes the request). So a
// reader that finds a type, and the same number before and after reading, has read the values of
// one request.
//
// Internal to connector_common_services. Safe from any thread; enter() takes the caller's stripe.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace connector {
namespace common_services {
namespace detail {

template <typename Type, std::size_t kOwners>
class InFlightTable {
 public:
  static constexpr std::size_t kOwnedSlots = 8;
  static constexpr std::size_t kCommonSlots = 2048;

  struct Request {
    std::uint64_t number;
    const Type* type;
    std::int64_t startNanoseconds;
  };

  // Where a request was put: its slot, or nullptr for the map.
  using Ticket = void*;

  // `stripe` is the caller's own (below kOwners) or any other value for a thread that owns none.
  Ticket enter(std::size_t stripe, const Request& request) {
    const std::uint64_t held = request.number + 1;
    if (stripe < kOwners) {
      for (std::size_t i = 0; i < kOwnedSlots; ++i) {
        Slot& slot = owned_[stripe * kOwnedSlots + i];
        if (slot.number.load(std::memory_order_acquire) == 0) {
          slot.number.store(held, std::memory_order_release);
          return publish(slot, request);
        }
      }
    }
    // A hint only: any start finds a free slot if there is one.
    thread_local std::size_t cursor = stripe * kOwnedSlots;
    for (std::size_t step = 0; step < kCommonSlots; ++step) {
      Slot& slot = common_[cursor++ % kCommonSlots];
      std::uint64_t free = 0;
      if (slot.number.load(std::memory_order_relaxed) == 0 &&
          slot.number.compare_exchange_strong(free, held, std::memory_order_acq_rel)) {
        return publish(slot, request);
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    overflow_[request.number] = request;
    return nullptr;
  }

  // Any thread may let the request go, given what enter() answered.
  void leave(Ticket ticket, std::uint64_t number) {
    if (ticket != nullptr) {
      Slot& slot = *static_cast<Slot*>(ticket);
      slot.type.store(nullptr, std::memory_order_relaxed);
      slot.number.store(0, std::memory_order_release);
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    overflow_.erase(number);
  }

  std::vector<Request> list() const {
    std::vector<Request> requests;
    collect(owned_.data(), owned_.size(), requests);
    collect(common_.data(), common_.size(), requests);
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : overflow_) {
      requests.push_back(entry.second);
    }
    return requests;
  }

 private:
  struct alignas(64) Slot {
    std::atomic<std::uint64_t> number{0};
    std::atomic<std::int64_t> startNanoseconds{0};
    std::atomic<const Type*> type{nullptr};
  };

  static Ticket publish(Slot& slot, const Request& request) {
    slot.startNanoseconds.store(request.startNanoseconds, std::memory_order_relaxed);
    slot.type.store(request.type, std::memory_order_release);
    return &slot;
  }

  static void collect(const Slot* slots, std::size_t count, std::vector<Request>& requests) {
    for (std::size_t i = 0; i < count; ++i) {
      const Slot& slot = slots[i];
      const std::uint64_t before = slot.number.load(std::memory_order_acquire);
      if (before == 0) {
        continue;
      }
      const Type* type = slot.type.load(std::memory_order_acquire);
      const std::int64_t start = slot.startNanoseconds.load(std::memory_order_relaxed);
      if (type != nullptr && slot.number.load(std::memory_order_acquire) == before) {
        requests.push_back(Request{before - 1, type, start});
      }
    }
  }

  std::array<Slot, kOwners * kOwnedSlots> owned_{};
  std::array<Slot, kCommonSlots> common_{};
  mutable std::mutex mutex_;
  std::map<std::uint64_t, Request> overflow_;  // guarded by mutex_
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
