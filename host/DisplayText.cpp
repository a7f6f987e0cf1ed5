#include "host/DisplayText.h"

#include <cstdio>
#include <sstream>
#include <type_traits>
#include <utility>

#include <boost/variant/apply_visitor.hpp>

namespace connector {
namespace host {

namespace {

bool isControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

void appendHex(std::string& out, unsigned char byte) {
  char escaped[5];
  std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
  out += escaped;
}

std::string utf16Text(const std::u16string& text) {
  std::string shown = "u\"";
  for (char16_t unit : text) {
    if (unit >= 0x20 && unit < 0x7f && unit != u'"' && unit != u'\\') {
      shown += static_cast<char>(unit);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(unit));
      shown += escaped;
    }
  }
  return shown + '"';
}

// A value as an operator reads it, and the name of its type.
template <typename T>
std::pair<std::string, std::string> shown(const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return {value ? "true" : "false", "bool"};
  } else if constexpr (std::is_same_v<T, int>) {
    return {std::to_string(value), "int"};
  } else if constexpr (std::is_same_v<T, unsigned int>) {
    return {std::to_string(value), "unsigned"};
  } else if constexpr (std::is_same_v<T, double>) {
    std::ostringstream text;
    text << value;
    return {text.str(), "double"};
  } else if constexpr (std::is_same_v<T, std::string>) {
    return {quoted(value), "string"};
  } else if constexpr (std::is_same_v<T, std::u16string>) {
    return {utf16Text(value), "utf-16 string"};
  } else {
    std::string text = "[";
    for (std::size_t i = 0; i < value.size(); ++i) {
      text += (i == 0 ? "" : ", ") + shown(static_cast<typename T::value_type>(value[i])).first;
    }
    return {text + "]", "list of " + shown(typename T::value_type()).second};
  }
}

std::pair<std::string, std::string> shown(const configuration::ConfigValue& value) {
  return boost::apply_visitor([](const auto& alternative) { return shown(alternative); }, value);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isControl(byte) && c != '\n' && c != '\t') {
      appendHex(out, byte);
    } else {
      out += c;
    }
  }
  return out;
}

std::string quoted(std::string_view text, std::size_t limit) {
  std::size_t shownBytes = text.size();
  if (shownBytes > limit) {
    shownBytes = limit;
    // Back up over UTF-8 continuation bytes so that no character is cut in half.
    while (shownBytes > 0 && (static_cast<unsigned char>(text[shownBytes]) & 0xc0) == 0x80) {
      --shownBytes;
    }
  }
  std::string out = "\"";
  for (char c : text.substr(0, shownBytes)) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (isControl(byte)) {
      appendHex(out, byte);
    } else {
      out += c;
    }
  }
  if (shownBytes < text.size()) {
    return out + "...\" (" + std::to_string(text.size()) + " bytes)";
  }
  return out + '"';
}

std::string describeValue(const configuration::ConfigValue& value) {
  return shown(value).first;
}

std::string describeType(const configuration::ConfigValue& value) {
  return shown(value).second;
}

}  // namespace host
}  // namespace connector
