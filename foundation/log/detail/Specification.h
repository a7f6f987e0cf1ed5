// Parsing and evaluation of the process log's specification texts ("warn,connector.*=debug").
//
// Internal to connector_common_services (not installed). A parsed specification is a plain
// value: immutable once returned, so any thread may read it.
#pragma once

#include <string>
#include <vector>

#include <spdlog/common.h>

namespace foundation {
namespace log {
namespace detail {

struct level_override {
  std::string pattern;  // shell-style, matched with fnmatch(3) without flags
  spdlog::level::level_enum level;
};

struct specification {
  spdlog::level::level_enum default_level = spdlog::level::info;
  std::vector<level_override> overrides;  // in the order written; the last match wins

  spdlog::level::level_enum level_for(const std::string& channel) const;
};

// Parses `text` (see foundation/log/Log.h for the syntax). Throws std::invalid_argument naming
// the offending item and what would be accepted.
specification parse_specification(const std::string& text);

// The spdlog level of a level name ("warn"), or throws std::invalid_argument quoting `context`.
spdlog::level::level_enum parse_level(const std::string& context, const std::string& word);

}  // namespace detail
}  // namespace log
}  // namespace foundation
