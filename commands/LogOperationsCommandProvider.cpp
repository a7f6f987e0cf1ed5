#include "commands/LogOperationsCommandProvider.h"

#include <chrono>
#include <iterator>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/log/Log.h"

namespace connector {
namespace common_services {

namespace {

using administration::Command;
using Arguments = std::vector<std::string>;

constexpr const char* kReopen = "connector.log.reopen";
constexpr const char* kSetSpecificationFor = "connector.log.setSpecificationFor";
constexpr const char* kGetStatistics = "connector.log.getStatistics";

constexpr const char* kReopenDescription = "Reopen the file of the fl::log destination by its name.";
constexpr const char* kSetSpecificationForDescription =
    "Update the fl::log specification for SECONDS seconds, then restore the one in force before the "
    "window; re-issuing replaces the window, connector.log.setSpecification ends it.";
constexpr const char* kGetStatisticsDescription =
    "Get the fl::log record counts (in all, dropped, queued; rotations and reopens of its file; by "
    "level), destination and pending restore.";

constexpr const char* kSetSpecificationForUsage =
    "connector.log.setSpecificationFor needs SECONDS (1 to 86400) and a SPECIFICATION, e.g. 600 "
    "\"info,connector.*=debug\"";

std::string reopen(Arguments&&) {
  foundation::log::reopen();
  return {};
}

std::string setSpecificationFor(Arguments&& arguments) {
  if (arguments.size() < 2) {
    throw std::invalid_argument(kSetSpecificationForUsage);
  }
  const std::string& seconds = arguments[0];
  // Six digits cover the longest duration; the process log checks the range.
  if (seconds.empty() || seconds.size() > 6 || seconds.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument("connector.log.setSpecificationFor: SECONDS \"" + seconds +
                                "\" is not a whole number of seconds from 1 to 86400");
  }
  foundation::log::set_specification_for(std::chrono::seconds(std::stol(seconds)), arguments[1]);
  return {};
}

std::string getStatistics(Arguments&&) {
  const foundation::log::statistics_snapshot snapshot = foundation::log::statistics();
  static constexpr const char* kLevels[] = {"trace", "debug", "info", "warn", "error", "critical"};
  static_assert(std::size(kLevels) == std::tuple_size<decltype(snapshot.records_by_level)>::value);
  std::string text =
      "records=" + std::to_string(snapshot.records) + " dropped=" + std::to_string(snapshot.dropped) +
      " queued=" + std::to_string(snapshot.queued) + " rotations=" + std::to_string(snapshot.rotations) +
      " reopens=" + std::to_string(snapshot.reopens) + '\n';
  for (std::size_t i = 0; i < std::size(kLevels); ++i) {
    text += std::string(i == 0 ? "" : " ") + kLevels[i] + '=' + std::to_string(snapshot.records_by_level[i]);
  }
  text += "\ndestination=" + snapshot.destination + '\n';
  if (snapshot.pending_restore) {
    text += "restore=" + snapshot.pending_restore->specification +
            " in_s=" + std::to_string(snapshot.pending_restore->remaining.count()) + '\n';
  }
  return text;
}

}  // namespace

LogOperationsCommandProvider::LogOperationsCommandProvider(
    std::shared_ptr<connector::administration::Administration> administration)
    : commands_(std::move(administration)) {
  commands_.add(Command{kReopen, kReopenDescription, &reopen, 0, 0});
  commands_.add(Command{kSetSpecificationFor, kSetSpecificationForDescription, &setSpecificationFor, 2, 2});
  commands_.add(Command{kGetStatistics, kGetStatisticsDescription, &getStatistics, 0, 0});
}

LogOperationsCommandProvider::~LogOperationsCommandProvider() = default;

}  // namespace common_services
}  // namespace connector
