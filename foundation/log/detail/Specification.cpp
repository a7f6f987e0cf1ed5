#include "foundation/log/detail/Specification.h"

#include <fnmatch.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "foundation/log/Log.h"

namespace foundation {
namespace log {
namespace detail {

namespace {

constexpr const char* kLevelNames = "trace, debug, info, warn, error, critical or off";

constexpr std::array<std::pair<const char*, spdlog::level::level_enum>, 7> kLevels{{
    {"trace", spdlog::level::trace},
    {"debug", spdlog::level::debug},
    {"info", spdlog::level::info},
    {"warn", spdlog::level::warn},
    {"error", spdlog::level::err},
    {"critical", spdlog::level::critical},
    {"off", spdlog::level::off},
}};

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// fnmatch(3) quietly treats a malformed pattern as one that never matches, so an override such as
// "[=debug" would be accepted and do nothing. Returns what is wrong, or nothing.
std::string patternProblem(const std::string& pattern) {
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '\\') {
      if (++i == pattern.size()) {
        return "it ends in a lone \"\\\" (write \\\\ for a backslash)";
      }
    } else if (pattern[i] == '[') {
      std::size_t j = i + 1;
      if (j < pattern.size() && (pattern[j] == '!' || pattern[j] == '^')) {
        ++j;
      }
      if (j < pattern.size() && pattern[j] == ']') {
        ++j;  // a "]" first in a bracket expression stands for itself
      }
      const auto close = pattern.find(']', j);
      if (close == std::string::npos) {
        return "its \"[\" is never closed (write [abc] for a set of characters, or \\[ for a bracket)";
      }
      i = close;
    }
  }
  return {};
}

}  // namespace

spdlog::level::level_enum specification::level_for(const std::string& channel) const {
  if (channel == audit_channel_name) {
    // The audit trail answers only to an override that names it.
    for (auto it = overrides.rbegin(); it != overrides.rend(); ++it) {
      if (it->pattern == channel) {
        return it->level;
      }
    }
    return spdlog::level::info;
  }
  for (auto it = overrides.rbegin(); it != overrides.rend(); ++it) {
    if (::fnmatch(it->pattern.c_str(), channel.c_str(), 0) == 0) {
      return it->level;
    }
  }
  return default_level;
}

spdlog::level::level_enum parse_level(const std::string& context, const std::string& word) {
  for (const auto& entry : kLevels) {
    if (word == entry.first) {
      return entry.second;
    }
  }
  throw std::invalid_argument("log specification " + inQuotes(context) + ": unknown level " + inQuotes(word) +
                              " (use " + kLevelNames + ")");
}

specification parse_specification(const std::string& text) {
  if (trimmed(text).empty()) {
    throw std::invalid_argument(
        "log specification is empty: give a default level such as \"info\", optionally followed by "
        "overrides such as \",connector.*=debug\"");
  }
  specification result;
  bool haveDefault = false;
  std::string defaultWord;
  std::size_t start = 0;
  for (std::size_t position = 1;; ++position) {
    const auto comma = text.find(',', start);
    const std::string item = trimmed(text.substr(start, comma == std::string::npos ? comma : comma - start));
    if (item.empty()) {
      throw std::invalid_argument("log specification " + inQuotes(text) + ": item " +
                                  std::to_string(position) +
                                  " is empty (separate items with single commas, no comma at either end)");
    }
    const auto equals = item.find('=');
    if (equals == std::string::npos) {
      if (haveDefault) {
        throw std::invalid_argument("log specification " + inQuotes(text) + " has two default levels (" +
                                    inQuotes(defaultWord) + " and " + inQuotes(item) +
                                    "): give at most one, and PATTERN=LEVEL for the others");
      }
      result.default_level = parse_level(text, item);
      haveDefault = true;
      defaultWord = item;
    } else {
      if (item.find('=', equals + 1) != std::string::npos) {
        throw std::invalid_argument("log specification " + inQuotes(text) + ": item " + inQuotes(item) +
                                    " has more than one \"=\" (write PATTERN=LEVEL)");
      }
      const std::string pattern = trimmed(item.substr(0, equals));
      if (pattern.empty()) {
        throw std::invalid_argument("log specification " + inQuotes(text) + ": item " + inQuotes(item) +
                                    " has no channel pattern before \"=\" (write PATTERN=LEVEL)");
      }
      const std::string problem = patternProblem(pattern);
      if (!problem.empty()) {
        throw std::invalid_argument("log specification " + inQuotes(text) + ": the channel pattern " +
                                    inQuotes(pattern) + " is not valid: " + problem);
      }
      result.overrides.push_back(
          level_override{pattern, parse_level(text, trimmed(item.substr(equals + 1)))});
    }
    if (comma == std::string::npos) {
      return result;
    }
    start = comma + 1;
  }
}

}  // namespace detail
}  // namespace log
}  // namespace foundation
