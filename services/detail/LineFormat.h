// Building access-log lines by plain appends into a buffer: numbers, JSON strings, the bare or
// quoted name fields of the text format, and UTC times. A format string parsed for every line
// cost more than the rest of the line together.
//
// Internal to connector_common_services. Free functions with no state: safe from any thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include <spdlog/fmt/fmt.h>  // fmt::memory_buffer and fmt::format_int
#include <nlohmann/json.hpp>

namespace connector {
namespace common_services {
namespace detail {

using Line = fmt::memory_buffer;

inline void append(Line& line, std::string_view text) {
  line.append(text.data(), text.data() + text.size());
}

// A JSON string, quotes included. Type names and most exception texts are plain ASCII and are
// copied as they are; anything else goes through nlohmann's serializer, which escapes control
// characters and replaces bytes that are not UTF-8 with U+FFFD.
inline void appendJsonString(Line& line, std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
  });
  if (plain) {
    line.push_back('"');
    append(line, text);
    line.push_back('"');
    return;
  }
  append(line,
         nlohmann::json(std::string(text)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

// A name field of a text line: as it is when it has a byte and no blank, control character or
// quote, otherwise as a JSON string, so that a line splits back into its fields whatever the name.
inline void appendToken(Line& line, std::string_view text) {
  const bool bare = !text.empty() && std::none_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f || c == '"';
  });
  if (bare) {
    append(line, text);
  } else {
    appendJsonString(line, text);
  }
}

inline void appendNumber(Line& line, std::uint64_t number) {
  const fmt::format_int digits(number);
  line.append(digits.data(), digits.data() + digits.size());
}

// `value` (at least 0) in exactly `width` digits, zeros in front.
inline void appendDigits(Line& line, std::int64_t value, int width) {
  char digits[8] = {};
  for (int i = width - 1; i >= 0; --i, value /= 10) {
    digits[i] = static_cast<char>('0' + value % 10);
  }
  line.append(digits, digits + width);
}

// UTC, ISO 8601 with microseconds: 2026-11-23T08:40:00.123456Z. The calendar date comes from the
// day count by Howard Hinnant's civil_from_days, which needs neither the C library's time zone
// lock nor a buffer of its own.
inline void appendUtcTime(Line& line, std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const std::int64_t micros = duration_cast<microseconds>(time.time_since_epoch()).count();
  std::int64_t days = micros / 86400000000LL;
  std::int64_t ofDay = micros % 86400000000LL;
  if (ofDay < 0) {
    ofDay += 86400000000LL;
    --days;
  }
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthIndex = (5 * dayOfYear + 2) / 153;
  const std::int64_t day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
  const std::int64_t month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
  const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  appendDigits(line, year, 4);
  line.push_back('-');
  appendDigits(line, month, 2);
  line.push_back('-');
  appendDigits(line, day, 2);
  line.push_back('T');
  appendDigits(line, ofDay / 3600000000LL, 2);
  line.push_back(':');
  appendDigits(line, ofDay / 60000000LL % 60, 2);
  line.push_back(':');
  appendDigits(line, ofDay / 1000000LL % 60, 2);
  line.push_back('.');
  appendDigits(line, ofDay % 1000000LL, 6);
  line.push_back('Z');
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector
