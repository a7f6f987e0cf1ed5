#include "services/StatisticsServiceProvider.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <typeinfo>
#include <utility>

#include "foundation/core/detail/TickClock.h"
#include "services/detail/AnswerObserver.h"
#include "services/detail/InFlightTable.h"
#include "services/detail/LogLinearHistogram.h"
#include "services/detail/MessageTypeTable.h"
#include "services/detail/SlowestRequests.h"
#include "services/detail/StripedCounters.h"

namespace connector {
namespace common_services {

namespace {

using administration::Command;
using detail::currentStripe;
using detail::increment;
using detail::kOwnedStripes;
using detail::kSharedStripe;
using detail::kStripes;
using detail::Outcome;
using detail::Sequence;
using detail::TypeBlock;
using detail::TypeStats;
using foundation::core::detail::tick_clock;
using Arguments = std::vector<std::string>;
using MessagePtr = std::unique_ptr<Message>;
using InFlightRequest = StatisticsServiceProvider::InFlightRequest;
using SlowRequest = StatisticsServiceProvider::SlowRequest;

constexpr const char* kStatisticsSuffix = ".statistics";
constexpr const char* kResetSuffix = ".statistics.reset";
constexpr const char* kInFlightSuffix = ".inflight";
constexpr const char* kSlowestSuffix = ".slowest";

constexpr const char* kStatisticsDescription =
    "List per message type (optionally only the types that start with a prefix), since the last reset: "
    "count = requests completed, failures included; failed = those that completed with an exception; "
    "inflight = delivered and not yet completed; p50_us, p90_us, p99_us = latency percentiles and max_us, "
    "mean_us = the longest and the mean latency, in microseconds to three significant digits; since_s = "
    "the seconds these figures cover (since the provider started or was last reset).";
constexpr const char* kResetDescription =
    "Start the figures of NAME.statistics and the slowest list afresh (exporters' totals go on).";
constexpr const char* kInFlightDescription =
    "List the requests in flight, oldest first: thread = the delivering thread's number in the process "
    "(64 for all threads after the first 64), request = that thread's count of requests to this provider, "
    "then the message type and age_us, the time since delivery in microseconds.";
constexpr const char* kSlowestDescription =
    "List the slowest requests since the last reset, slowest first (default 10, at most 32): thread and "
    "request as in NAME.inflight, then the message type, elapsed_us (its latency in microseconds) and "
    "ok or the type of the exception it failed with.";

constexpr std::string_view kOk = "ok";

constexpr std::size_t kSlowestKept = 32;
constexpr std::size_t kSlowestDefault = 10;

using InFlightTable = detail::InFlightTable<TypeStats, kOwnedStripes>;

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

// "thread=T request=R". A request's number is its place in its thread's sequence (from 0) times
// kStripes, plus the thread's stripe.
std::string requestLabel(std::uint64_t thread, std::uint64_t request) {
  return "thread=" + std::to_string(thread) + " request=" + std::to_string(request);
}

}  // namespace

struct StatisticsServiceProvider::State {
  using Figures = std::vector<std::pair<const TypeStats*, TypeSnapshot>>;

  detail::MessageTypeTable<TypeStats> types;
  InFlightTable inFlight;
  detail::SlowestRequests slowest{kSlowestKept};
  std::array<Sequence, kStripes> sequences;
  std::atomic<std::uint64_t> epoch{0};  // moved on by each reset
  // What the commands subtract: the figures at the last reset, by type name.
  mutable std::mutex baselineMutex;
  std::map<std::string, TypeSnapshot> baseline;                                    // guarded by baselineMutex
  std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();  // guarded by baselineMutex

  // Called on the thread that completes the request, whose stripe is `stripe`. `failure` is the
  // exception's type name, empty for an answer.
  void finish(InFlightTable::Ticket ticket, TypeStats& type, std::size_t stripe, std::uint64_t number,
              tick_clock::time_point start, std::string_view failure) noexcept {
    // A clock that went backwards (another core's reading) counts as 0 ns.
    const std::int64_t elapsed = std::max<std::int64_t>((tick_clock::now() - start).count(), 0);
    inFlight.leave(ticket, number);
    type.record(stripe, epoch.load(std::memory_order_acquire), elapsed, !failure.empty());
    try {
      slowest.offer({number, type.name, elapsed, failure.empty() ? kOk : failure});
    } catch (...) {
      // Only a failed allocation of the list, at most once per free place: the request is counted.
    }
  }

  // Every type's cumulative figures, sorted by name. A request's failure is published after its
  // latency, and read before, so `failed` never exceeds the latencies counted.
  Figures figures() const {
    std::map<const TypeStats*, std::uint64_t> inFlightByType;
    for (const InFlightTable::Request& request : inFlight.list()) {
      ++inFlightByType[request.type];
    }
    Figures all;
    for (const TypeStats* type : types.all()) {
      detail::LatencyMerge merge;  // made afresh, not assigned: it writes only its touched lines
      TypeSnapshot figures;
      figures.type = std::string(type->name);
      for (const auto& slot : type->blocks) {
        if (const TypeBlock* block = slot.load(std::memory_order_acquire)) {
          figures.failed += block->failed.load(std::memory_order_acquire);
          merge.add(block->latency);
        }
      }
      figures.latency = merge.snapshot();
      figures.succeeded = figures.latency.count - std::min(figures.failed, figures.latency.count);
      const auto found = inFlightByType.find(type);
      figures.inflight = found == inFlightByType.end() ? 0 : found->second;
      all.emplace_back(type, std::move(figures));
    }
    return all;
  }

  std::string statistics(const Arguments& arguments) const {
    const std::string_view prefix =
        arguments.empty() ? std::string_view() : std::string_view(arguments.front());
    const Figures now = figures();
    const std::uint64_t current = epoch.load(std::memory_order_acquire);
    std::string text;
    std::lock_guard<std::mutex> lock(baselineMutex);
    const std::string seconds = std::to_string(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - since).count());
    for (const auto& [type, cumulative] : now) {
      if (type->name.substr(0, prefix.size()) != prefix) {
        continue;
      }
      const auto found = baseline.find(cumulative.type);
      const TypeSnapshot none;
      const TypeSnapshot& before = found == baseline.end() ? none : found->second;
      const LatencySnapshot latency =
          detail::latenciesSince(cumulative.latency, before.latency, type->maxSince(current));
      if (latency.count == 0 && cumulative.inflight == 0) {
        continue;
      }
      const auto us = [&](double percent) {
        return detail::formatMicroseconds(latency.percentileNanoseconds(percent));
      };
      text += cumulative.type + " count=" + std::to_string(latency.count) +
              " failed=" + std::to_string(cumulative.failed - std::min(cumulative.failed, before.failed)) +
              " inflight=" + std::to_string(cumulative.inflight) + " p50_us=" + us(50) + " p90_us=" + us(90) +
              " p99_us=" + us(99) + " max_us=" + detail::formatMicroseconds(latency.maxNanoseconds) +
              " mean_us=" + detail::formatMicroseconds(latency.meanNanoseconds()) + " since_s=" + seconds +
              "\n";
    }
    return text;
  }

  // The commands' figures start afresh; the cumulative ones (snapshot()) go on.
  void reset() {
    epoch.fetch_add(1, std::memory_order_acq_rel);
    Figures now = figures();
    {
      std::lock_guard<std::mutex> lock(baselineMutex);
      baseline.clear();
      for (auto& entry : now) {
        baseline[entry.second.type] = std::move(entry.second);
      }
      since = std::chrono::steady_clock::now();
    }
    slowest.clear();
  }

  std::vector<InFlightRequest> inflight() const {
    std::vector<InFlightTable::Request> requests = inFlight.list();
    std::sort(requests.begin(), requests.end(), [](const auto& a, const auto& b) {
      return std::tie(a.startNanoseconds, a.number) < std::tie(b.startNanoseconds, b.number);
    });
    const std::int64_t now = tick_clock::now().time_since_epoch().count();
    std::vector<InFlightRequest> listed;
    listed.reserve(requests.size());
    for (const InFlightTable::Request& request : requests) {
      listed.push_back({request.number % kStripes, request.number / kStripes + 1,
                        std::string(request.type->name),
                        detail::nonNegativeNanoseconds(now - request.startNanoseconds)});
    }
    return listed;
  }

  std::vector<SlowRequest> slowestRequests(std::size_t count) const {
    std::vector<SlowRequest> listed;
    for (const detail::SlowestRequests::Entry& entry : slowest.slowest(count)) {
      listed.push_back({entry.number % kStripes, entry.number / kStripes + 1, std::string(entry.type),
                        detail::nonNegativeNanoseconds(entry.elapsedNanoseconds),
                        std::string(entry.outcome)});
    }
    return listed;
  }

  std::string listInFlight() const {
    std::string text;
    for (const InFlightRequest& request : inflight()) {
      text += requestLabel(request.thread, request.request) + " " + request.type +
              " age_us=" + detail::formatMicroseconds(request.ageNanoseconds) + "\n";
    }
    return text;
  }

  std::string listSlowest(std::size_t count) const {
    std::string text;
    for (const SlowRequest& request : slowestRequests(count)) {
      text += requestLabel(request.thread, request.request) + " " + request.type +
              " elapsed_us=" + detail::formatMicroseconds(request.elapsedNanoseconds) + " " +
              request.outcome + "\n";
    }
    return text;
  }
};

StatisticsServiceProvider::StatisticsServiceProvider(
    std::shared_ptr<administration::Administration> administration, const std::string& name)
    : name_(name), state_(std::make_shared<State>()), commands_(administration) {
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

const std::string& StatisticsServiceProvider::name() const noexcept {
  return name_;
}

std::vector<StatisticsServiceProvider::TypeSnapshot> StatisticsServiceProvider::snapshot() const {
  State::Figures figures = state_->figures();
  std::vector<TypeSnapshot> types;
  types.reserve(figures.size());
  for (auto& entry : figures) {
    types.push_back(std::move(entry.second));
  }
  return types;
}

std::vector<StatisticsServiceProvider::SlowRequest> StatisticsServiceProvider::slowest(
    std::size_t count) const {
  return state_->slowestRequests(count);
}

std::vector<StatisticsServiceProvider::InFlightRequest> StatisticsServiceProvider::inflight() const {
  return state_->inflight();
}

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
  // One named future, returned at both returns below, so that it is built in the caller's
  // place and an answer that is already Resolved goes back without a single move.
  Future<MessagePtr> answer = [&] {
    try {
      return context->forward(std::move(message), std::move(address));
    } catch (...) {
      state->finish(ticket, type, stripe, number, start, detail::currentFailure().exceptionType);
      throw;
    }
  }();
  // The common case, an answer already there, completes here on the delivering thread; any other
  // completes on the thread that settles the answer, maybe another.
  if (answer.status() == connector::detail::Status::Resolved) {
    state->finish(ticket, type, stripe, number, start, {});
    return answer;
  }
  // Still pending, or failed: the request leaves this thread's own slots.
  const InFlightTable::Ticket detached = state->inFlight.detach(
      stripe, ticket, InFlightTable::Request{number, &type, start.time_since_epoch().count()});
  detail::observeAnswer(
      answer,
      [state, ticket = detached, &type, number, start](const Outcome& outcome) {
        state->finish(ticket, type, currentStripe(), number, start, outcome.exceptionType);
      },
      [this] { return state_; });
  return answer;
}

}  // namespace common_services
}  // namespace connector
