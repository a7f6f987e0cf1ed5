// The message types a provider has seen, each with a Stats object of the provider's own, found
// by the runtime name of the type as the demangler finds it: by its address, then by its text,
// so that a type of a library unloaded since is never taken for one loaded at its address.
// Two runtime names of one readable name (one type in two shared objects) share one Stats.
//
// Finding a type seen before takes no lock: a few loads in a fixed table, then, for a type that
// found no free place there, a list that only grows. The first sight of a type takes a lock.
// Stats objects live as long as the table, at fixed addresses.
//
// Internal to connector_common_services. Safe from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "services/detail/MessageTypeName.h"

namespace connector {
namespace common_services {
namespace detail {

// Stats is built from the readable name, a view valid for the life of the process.
template <typename Stats>
class MessageTypeTable {
 public:
  Stats& find(const std::type_info& type) {
    return find(type.name(), [&type] { return messageTypeName(type); });
  }

  // `readableName()` gives the readable name of `runtimeName`; called on its first sight only.
  template <typename ReadableName>
  Stats& find(const char* runtimeName, ReadableName readableName) {
    std::size_t index = home(runtimeName);
    for (std::size_t step = 0; step < kProbes; ++step, index = (index + 1) % kSlots) {
      const Entry* entry = slots_[index].load(std::memory_order_acquire);
      if (entry == nullptr) {
        return add(runtimeName, readableName);
      }
      if (entry->matches(runtimeName)) {
        return *entry->stats;
      }
    }
    for (const Entry* entry = spilled_.load(std::memory_order_acquire); entry != nullptr;
         entry = entry->next) {
      if (entry->matches(runtimeName)) {
        return *entry->stats;
      }
    }
    return add(runtimeName, readableName);
  }

  // Every type, sorted by readable name.
  std::vector<Stats*> all() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Stats*> types;
    for (const auto& named : byName_) {
      types.push_back(named.second);
    }
    return types;
  }

 private:
  static constexpr std::size_t kSlots = 256;
  static constexpr std::size_t kProbes = 16;

  struct Entry {
    const char* runtimeName;
    std::string runtimeCopy;  // the text at runtimeName when it was first seen
    Stats* stats;
    const Entry* next = nullptr;  // in spilled_; set before the entry is published

    bool matches(const char* name) const noexcept {
      return runtimeName == name && std::strcmp(runtimeCopy.c_str(), name) == 0;
    }
  };

  static std::size_t home(const char* name) {
    const auto bits = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(name));
    return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15ULL) >> 56) % kSlots;
  }

  template <typename ReadableName>
  Stats& add(const char* runtimeName, ReadableName& readableName) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& entry : entries_) {
      if (entry.matches(runtimeName)) {
        return *entry.stats;  // added by another thread meanwhile
      }
    }
    const std::string_view name = readableName();
    Stats*& stats = byName_[name];
    if (stats == nullptr) {
      stats = &types_.emplace_back(name);
    }
    Entry& entry = entries_.emplace_back(Entry{runtimeName, runtimeName, stats});
    std::size_t index = home(runtimeName);
    for (std::size_t step = 0; step < kProbes; ++step, index = (index + 1) % kSlots) {
      const Entry* empty = nullptr;
      if (slots_[index].compare_exchange_strong(empty, &entry, std::memory_order_acq_rel)) {
        return *stats;
      }
    }
    entry.next = spilled_.load(std::memory_order_relaxed);
    spilled_.store(&entry, std::memory_order_release);
    return *stats;
  }

  std::array<std::atomic<const Entry*>, kSlots> slots_{};  // written under mutex_, read without it
  std::atomic<const Entry*> spilled_{nullptr};             // written under mutex_, read without it
  mutable std::mutex mutex_;
  std::deque<Stats> types_;                    // guarded by mutex_; never shrinks
  std::deque<Entry> entries_;                  // guarded by mutex_; never shrinks
  std::map<std::string_view, Stats*> byName_;  // guarded by mutex_
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
