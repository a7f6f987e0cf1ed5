// Texts that came from users or from configuration, made fit to be shown to an operator: control
// bytes are escaped so that a value cannot clear or recolour a terminal, quotes inside quoted
// texts are escaped so that the quoted text reads back unambiguously, and echoes of input can be
// cut short so that a 20,000-character mistake does not come back in full.
//
// Plain functions of their arguments; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "framework/Configuration.h"

namespace connector {
namespace host {

// The longest part of an echoed input that error texts show.
inline constexpr std::size_t kEchoLimit = 60;

// `text` with every control byte except line feed and tab written as \xHH, so that it can be
// printed to a terminal as it is.
std::string printable(std::string_view text);

// `text` in double quotes, with \" and \\ for quotes and backslashes, \n, \t and \r for those
// bytes and \xHH for the other control bytes. A text longer than `limit` bytes is cut at a
// character boundary within the limit and followed by its length: "abc..." (20000 bytes).
std::string quoted(std::string_view text, std::size_t limit = std::string_view::npos);

// How a configuration value reads ("true", "42", "\"app::Ping\"", "[1, 2]") and the name of its
// alternative ("bool", "int", "string", "list of int").
std::string describeValue(const configuration::ConfigValue& value);
std::string describeType(const configuration::ConfigValue& value);

}  // namespace host
}  // namespace connector
