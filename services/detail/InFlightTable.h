// The requests in flight of a provider, each with its number, its type and its start time, for a
// listing that any thread may take while requests come and go.
//
// Each of the first kOwners stripes (one per thread, see the statistics provider) has kOwnedSlots
// slots that only its thread claims and frees, with plain stores: they hold the requests whose
// deliver() runs on that thread (one, or a few when deliveries nest), so the common case, a
// request answered before deliver() returns, finds its stripe's first slot free. A request still
// pending when deliver() returns moves, by detach(), to one of the kCommonSlots common slots,
// which any thread claims with a compare-and-swap (starting where its stripe last found one free)
// and any thread frees. So up to kOwners threads with up to kCommonSlots requests pending between
// them take no lock; only a request that finds every slot taken waits in a map under a lock.
//
// A slot is free while its `number` is 0 and held by the request whose number plus one it holds.
// The holder claims it by that number, then writes the start and, last, the type; it clears the
// type before it lets the number go. So a reader that finds a type, and the same number before
// and after reading, has read the values of one request. A request being moved may be found in
// both its slots; list() reports it once.
//
// Internal to connector_common_services. Safe from any thread; enter() takes the caller's stripe.
#pragma once

#include <algorithm>
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

  // Stripes start apart, so that threads beyond their own slots seldom try the same ones.
  InFlightTable() {
    for (std::size_t stripe = 0; stripe <= kOwners; ++stripe) {
      cursors_[stripe].next.store(stripe * kOwnedSlots % kCommonSlots, std::memory_order_relaxed);
    }
  }

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
    return enterCommon(stripe, request);
  }

  // By the thread that entered `request` as `ticket`, when the request stays in flight after its
  // deliver() returns: its place from then on, to be given to leave() (by any thread).
  Ticket detach(std::size_t stripe, Ticket ticket, const Request& request) {
    if (!isOwned(ticket)) {
      return ticket;
    }
    const Ticket moved = enterCommon(stripe, request);
    leave(ticket, request.number);
    return moved;
  }

  // Lets the request go, given what enter() or detach() answered: an owned slot by its thread,
  // any other place by any thread.
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
    std::sort(requests.begin(), requests.end(),
              [](const Request& a, const Request& b) { return a.number < b.number; });
    requests.erase(std::unique(requests.begin(), requests.end(),
                               [](const Request& a, const Request& b) { return a.number == b.number; }),
                   requests.end());
    return requests;
  }

 private:
  Ticket enterCommon(std::size_t stripe, const Request& request) {
    const std::uint64_t held = request.number + 1;
    // Where to start is a hint only (any start finds a free slot if there is one), kept per
    // stripe rather than per thread, which in a shared library would cost a TLS lookup call. It stays on the
    // slot just claimed: a request answered before the next one starts has freed it again by then.
    std::atomic<std::size_t>& cursor = cursors_[std::min(stripe, kOwners)].next;
    const std::size_t first = cursor.load(std::memory_order_relaxed);
    for (std::size_t step = 0; step < kCommonSlots; ++step) {
      const std::size_t index = (first + step) % kCommonSlots;
      Slot& slot = common_[index];
      std::uint64_t free = 0;
      if (slot.number.load(std::memory_order_relaxed) == 0 &&
          slot.number.compare_exchange_strong(free, held, std::memory_order_acq_rel)) {
        cursor.store(index, std::memory_order_relaxed);
        return publish(slot, request);
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    overflow_[request.number] = request;
    return nullptr;
  }

  struct alignas(64) Slot {
    std::atomic<std::uint64_t> number{0};
    std::atomic<std::int64_t> startNanoseconds{0};
    std::atomic<const Type*> type{nullptr};
  };

  bool isOwned(Ticket ticket) const {
    const auto address = reinterpret_cast<std::uintptr_t>(ticket);
    const auto first = reinterpret_cast<std::uintptr_t>(owned_.data());
    return address >= first && address < first + sizeof(owned_);
  }

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

  // Where a stripe starts looking among the common slots; the shared stripe's threads race on it.
  struct alignas(64) Cursor {
    std::atomic<std::size_t> next{0};
  };

  std::array<Slot, kOwners * kOwnedSlots> owned_{};
  std::array<Cursor, kOwners + 1> cursors_{};
  std::array<Slot, kCommonSlots> common_{};
  mutable std::mutex mutex_;
  std::map<std::uint64_t, Request> overflow_;  // guarded by mutex_
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
