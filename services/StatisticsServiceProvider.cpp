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

#include "foundation/core/detail/TickClock.h"
#include "services/detail/AnswerObserver.h"
#include "services/detail/InFlightTable.h"
#include "services/detail/LatencyHistogram.h"
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
using detail::microseconds;
using detail::Outcome;
using detail::Sequence;
using detail::TypeStats;
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
      const TypeStats::Totals totals = type->total(current);
      const detail::LatencySummary summary =
          detail::summarizeLatencies(totals.counts, microseconds(totals.maxNanoseconds));
      const auto found = inFlightByType.find(type);
      const std::uint64_t inFlightCount = found == inFlightByType.end() ? 0 : found->second;
      if (summary.count == 0 && inFlightCount == 0) {
        continue;
      }
      text += std::string(type->name) + " count=" + std::to_string(summary.count) +
              " failed=" + std::to_string(totals.failed) + " inflight=" + std::to_string(inFlightCount) +
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

// Placeholder until the counters move to the log-linear histogram: no type yet.
std::vector<StatisticsServiceProvider::TypeSnapshot> StatisticsServiceProvider::snapshot() const {
  return {};
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
