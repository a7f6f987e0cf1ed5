#include "services/StatisticsServiceProvider.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <map>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <typeinfo>
#include <utility>

#include "foundation/core/detail/ThreadIndex.h"
#include "foundation/core/detail/TickClock.h"
#include "services/detail/AnswerObserver.h"
#include "services/detail/InFlightTable.h"
#include "services/detail/LatencyHistogram.h"
#include "services/detail/MessageTypeTable.h"
#include "services/detail/SlowestRequests.h"

namespace connector {
namespace common_services {

namespace {

using administration::Command;
using detail::Outcome;
using foundation::core::detail::tick_clock;
using Arguments = std::vector<std::string>;
using MessagePtr = std::unique_ptr<Message>;

constexpr const char* kStatisticsSuffix = ".statistics";
constexpr const char* kResetSuffix = ".statistics.reset";
constexpr const char* kInFlightSuffix = ".inflight";
constexpr const char* kSlowestSuffix = ".slowest";

constexpr const char* kStatisticsDescription =
    "List per message type the requests completed, failed and in flight, and their latency percentiles "
    "(optionally only the types that start with a prefix).";
constexpr const char* kResetDescription = "Zero the request counts, latency histograms and the slowest list.";
constexpr const char* kInFlightDescription = "List the requests in flight with their age, oldest first.";
constexpr const char* kSlowestDescription =
    "List the slowest requests since the last reset, slowest first (default 10, at most 32).";

constexpr std::string_view kOk = "ok";

// Counters are spread over stripes, one per thread, so that no two threads write one cache line
// and a thread's own counters need no locked instruction: the first kOwnedStripes threads of the
// process (by foundation's thread index, never reused) each own a stripe that only they write,
// with a plain load and store; later threads share the last stripe and use atomic
// read-modify-writes.
constexpr std::size_t kOwnedStripes = 64;
constexpr std::size_t kStripes = kOwnedStripes + 1;
constexpr std::size_t kSharedStripe = kOwnedStripes;
constexpr std::size_t kSlowestKept = 32;
constexpr std::size_t kSlowestDefault = 10;

// The stripe of the calling thread.
std::size_t currentStripe() {
  return std::min<std::size_t>(foundation::core::detail::thread_index(), kSharedStripe);
}

// Adds one and answers the value before: by its only writer with a plain load and store, else
// atomically.
std::uint64_t increment(std::atomic<std::uint64_t>& counter, bool owned) {
  if (owned) {
    const std::uint64_t value = counter.load(std::memory_order_relaxed);
    counter.store(value + 1, std::memory_order_relaxed);
    return value;
  }
  return counter.fetch_add(1, std::memory_order_relaxed);
}

std::uint64_t microseconds(std::int64_t nanoseconds) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0)) / 1000;
}

// What is counted for one message type, per stripe. A reset does not touch the stripes (their
// owners write them without a lock): it moves the provider's epoch on, a stripe whose epoch is
// behind counts as empty, and its writer zeroes it before it next counts.
struct TypeStats {
  struct alignas(64) Stripe {
    std::atomic<std::uint64_t> epoch{0};  // the reset epoch the counts belong to
    std::array<std::atomic<std::uint64_t>, detail::kLatencyBuckets> buckets{};
    std::atomic<std::uint64_t> failed{0};
    std::atomic<std::int64_t> maxNanoseconds{0};
  };

  explicit TypeStats(std::string_view typeName) : name(typeName) {}

  const std::string_view name;  // cached for the process
  std::array<Stripe, kStripes> stripes;

  void record(std::size_t stripe, std::uint64_t epoch, std::int64_t elapsed, bool failed) {
    Stripe& s = stripes[stripe];
    const bool owned = stripe != kSharedStripe;
    if (s.epoch.load(std::memory_order_relaxed) != epoch) {
      // On the shared stripe two threads may both get here; a count of a request completing
      // while a reset is under way may then be lost, which a reset allows anyway.
      for (auto& bucket : s.buckets) {
        bucket.store(0, std::memory_order_relaxed);
      }
      s.failed.store(0, std::memory_order_relaxed);
      s.maxNanoseconds.store(0, std::memory_order_relaxed);
      s.epoch.store(epoch, std::memory_order_release);
    }
    increment(s.buckets[detail::latencyBucket(microseconds(elapsed))], owned);
    if (failed) {
      increment(s.failed, owned);
    }
    std::int64_t max = s.maxNanoseconds.load(std::memory_order_relaxed);
    while (elapsed > max &&
           !s.maxNanoseconds.compare_exchange_weak(max, elapsed, std::memory_order_relaxed)) {
    }
  }
};

using InFlightTable = detail::InFlightTable<TypeStats, kOwnedStripes>;

// The next request number of a stripe; written like the counters.
struct alignas(64) Sequence {
  std::atomic<std::uint64_t> next{0};
};

std::uint64_t parseCount(const std::string& command, const std::string& text) {
  const bool digits = !text.empty() && text.size() <= 2 &&
                      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  const std::uint64_t count = digits ? std::stoull(text) : 0;
  if (count < 1 || count > kSlowestKept) {
    throw std::invalid_argument(command + " takes a count from 1 to " + std::to_string(kSlowestKept) +
                                ", but was given \"" + text + "\"");
  }
  return count;
}

}  // namespace

struct StatisticsServiceProvider::State {
  detail::MessageTypeTable<TypeStats> types;
  InFlightTable inFlight;
  detail::SlowestRequests slowest{kSlowestKept};
  std::array<Sequence, kStripes> sequences;
  std::atomic<std::uint64_t> epoch{0};  // moved on by each reset

  void finish(InFlightTable::Ticket ticket, TypeStats& type, std::uint64_t number,
              tick_clock::time_point start, const Outcome& outcome) noexcept {
    const std::int64_t elapsed = std::max<std::int64_t>((tick_clock::now() - start).count(), 0);
    inFlight.leave(ticket, number);
    type.record(currentStripe(), epoch.load(std::memory_order_acquire), elapsed, !outcome.ok());
    try {
      slowest.offer({number, type.name, elapsed, outcome.ok() ? kOk : outcome.exceptionType});
    } catch (...) {
      // Only a failed allocation of the list, at most once per free place: the request is counted.
    }
  }

  std::string statistics(const Arguments& arguments) const {
    const std::string_view prefix =
        arguments.empty() ? std::string_view() : std::string_view(arguments.front());
    std::map<const TypeStats*, std::uint64_t> inFlightByType;
    for (const InFlightTable::Request& request : inFlight.list()) {
      ++inFlightByType[request.type];
    }
    std::string text;
    const std::uint64_t current = epoch.load(std::memory_order_acquire);
    for (const TypeStats* type : types.all()) {
      if (type->name.substr(0, prefix.size()) != prefix) {
        continue;
      }
      detail::LatencyCounts counts{};
      std::uint64_t failed = 0;
      std::int64_t max = 0;
      for (const TypeStats::Stripe& stripe : type->stripes) {
        if (stripe.epoch.load(std::memory_order_acquire) != current) {
          continue;  // counted before the last reset
        }
        for (std::size_t i = 0; i < counts.size(); ++i) {
          counts[i] += stripe.buckets[i].load(std::memory_order_relaxed);
        }
        failed += stripe.failed.load(std::memory_order_relaxed);
        max = std::max(max, stripe.maxNanoseconds.load(std::memory_order_relaxed));
      }
      const detail::LatencySummary summary = detail::summarizeLatencies(counts, microseconds(max));
      const auto found = inFlightByType.find(type);
      const std::uint64_t inFlightCount = found == inFlightByType.end() ? 0 : found->second;
      if (summary.count == 0 && inFlightCount == 0) {
        continue;
      }
      text += std::string(type->name) + " count=" + std::to_string(summary.count) +
              " failed=" + std::to_string(failed) + " inflight=" + std::to_string(inFlightCount) +
              " p50_us=" + std::to_string(summary.p50) + " p90_us=" + std::to_string(summary.p90) +
              " p99_us=" + std::to_string(summary.p99) + " max_us=" + std::to_string(summary.max) + "\n";
    }
    return text;
  }

  void reset() {
    epoch.fetch_add(1, std::memory_order_acq_rel);
    slowest.clear();
  }

  std::string listInFlight() const {
    std::vector<InFlightTable::Request> requests = inFlight.list();
    std::sort(requests.begin(), requests.end(), [](const auto& a, const auto& b) {
      return std::tie(a.startNanoseconds, a.number) < std::tie(b.startNanoseconds, b.number);
    });
    const std::int64_t now = tick_clock::now().time_since_epoch().count();
    std::string text;
    for (const InFlightTable::Request& request : requests) {
      text += std::to_string(request.number) + " " + std::string(request.type->name) +
              " age_us=" + std::to_string(microseconds(now - request.startNanoseconds)) + "\n";
    }
    return text;
  }

  std::string listSlowest(std::size_t count) const {
    std::string text;
    for (const detail::SlowestRequests::Entry& entry : slowest.slowest(count)) {
      text += std::to_string(entry.number) + " " + std::string(entry.type) +
              " elapsed_us=" + std::to_string(microseconds(entry.elapsedNanoseconds)) + " " +
              std::string(entry.outcome) + "\n";
    }
    return text;
  }
};

StatisticsServiceProvider::StatisticsServiceProvider(
    std::shared_ptr<administration::Administration> administration, const std::string& name)
    : state_(std::make_shared<State>()), commands_(administration) {
  if (!administration) {
    return;
  }
  // Each handler holds the state, never the provider: the registry may call it after we are gone.
  const auto add = [&](const char* suffix, const char* description, std::uint8_t least, std::uint8_t most,
                       auto run) {
    const std::string command = name + suffix;
    commands_.add(Command{
        command, description,
        [state = state_, command, run](Arguments&& arguments) { return run(*state, command, arguments); },
        least, most});
  };
  add(kStatisticsSuffix, kStatisticsDescription, 0, 1,
      [](const State& state, const std::string&, const Arguments& arguments) {
        return state.statistics(arguments);
      });
  add(kResetSuffix, kResetDescription, 0, 0, [](State& state, const std::string&, const Arguments&) {
    state.reset();
    return std::string();
  });
  add(kInFlightSuffix, kInFlightDescription, 0, 0,
      [](const State& state, const std::string&, const Arguments&) { return state.listInFlight(); });
  add(kSlowestSuffix, kSlowestDescription, 0, 1,
      [](const State& state, const std::string& command, const Arguments& arguments) {
        return state.listSlowest(arguments.empty() ? kSlowestDefault
                                                   : parseCount(command, arguments.front()));
      });
}

StatisticsServiceProvider::~StatisticsServiceProvider() = default;

Future<MessagePtr> StatisticsServiceProvider::deliver(MessagePtr&& message, Address&& address,
                                                      std::shared_ptr<Context>&& context) {
  if (!message) {
    throw std::bad_typeid();
  }
  State* const state = state_.get();
  const Message& object = *message;
  TypeStats& type = state->types.find(typeid(object));
  const std::size_t stripe = currentStripe();
  const std::uint64_t number =
      increment(state->sequences[stripe].next, stripe != kSharedStripe) * kStripes + stripe;
  const tick_clock::time_point start = tick_clock::now();
  const InFlightTable::Ticket ticket =
      state->inFlight.enter(stripe, InFlightTable::Request{number, &type, start.time_since_epoch().count()});
  // One named future, returned at the only return below, so that it is built in the caller's
  // place and an answer that is already Resolved goes back without a single move.
  Future<MessagePtr> answer = [&] {
    try {
      return context->forward(std::move(message), std::move(address));
    } catch (...) {
      state->finish(ticket, type, number, start, detail::currentFailure());
      throw;
    }
  }();
  detail::observeAnswer(
      answer,
      [state, ticket, &type, number, start](const Outcome& outcome) {
        state->finish(ticket, type, number, start, outcome);
      },
      [this] { return state_; });
  return answer;
}

}  // namespace common_services
}  // namespace connector
