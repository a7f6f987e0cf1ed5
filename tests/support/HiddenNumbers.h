// Texts with their varying numbers hidden, for comparing lines that carry times and durations
// with a literal expectation (std::regex would do, but GCC 12 warns inside <regex> when
// optimising with sanitizers).
#pragma once

#include <cctype>
#include <string>

namespace connector {
namespace test_support {

// Each run of digits becomes one '#': "took 125 us" gives "took # us".
inline std::string hideNumbers(const std::string& text) {
  std::string hidden;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
      hidden += text[i];
    } else if (i == 0 || std::isdigit(static_cast<unsigned char>(text[i - 1])) == 0) {
      hidden += '#';
    }
  }
  return hidden;
}

}  // namespace test_support
}  // namespace connector
