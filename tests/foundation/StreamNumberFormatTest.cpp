// Numbers written off to the side must be byte for byte what the stream itself writes, in every
// format that StreamNumberFormat claims to reproduce, and the formats it cannot reproduce must be
// refused rather than approximated.
#include <cmath>
#include <functional>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/core/diag/StreamNumberFormat.h"

namespace {

using foundation::core::diag::StreamNumberFormat;

struct CommaDecimalPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};
struct ThousandsGrouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};
struct OwnNumPut : std::num_put<char> {};

using FormatStream = std::function<void(std::ostream&)>;

std::vector<double> sampleValues() {
  std::vector<double> values = {0.0,
                                -0.0,
                                1.0,
                                0.5,
                                523.4721,
                                525.972,
                                2.5,
                                2.5e6,
                                999999.5,
                                9999995.,
                                0.0001,
                                0.00001234,
                                1e-5,
                                99999.95,
                                0.1,
                                1.0 / 3,
                                -42.125,
                                1e15,
                                1e16,
                                123456789012.0,
                                1e-300,
                                5e-324,
                                1.7976931348623157e308,
                                std::numeric_limits<double>::infinity(),
                                -std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN()};
  std::mt19937_64 random(20240611);
  std::uniform_int_distribution<std::int64_t> nanoseconds(0, std::int64_t{1} << 50);
  std::uniform_real_distribution<double> exponent(-30, 30);
  for (int i = 0; i < 3000; ++i) {
    values.push_back(static_cast<double>(nanoseconds(random)) / 1000000.0);  // timestamps
    values.push_back(std::pow(10.0, exponent(random)));
  }
  // Halves at the sixth digit, exact or nearly, where the rounding is decided.
  for (int i = 0; i < 200; ++i) {
    values.push_back((100000 + i + 0.4999) / 1000);
    values.push_back((100000 + i + 0.50000001) / 1000);
    values.push_back((100000 + i + 0.49999999) * 1000);
    values.push_back((2 * i + 1) * 0.5);
    values.push_back(100000.5 + i);
    values.push_back(1.0000005 + i);
  }
  return values;
}

TEST(StreamNumberFormat, WritesWhatTheStreamWritesInEveryFormatItReproduces) {
  const std::vector<std::pair<const char*, FormatStream>> formats = {
      {"initial", [](std::ostream&) {}},
      {"precision 0", [](std::ostream& s) { s.precision(0); }},
      {"precision 1", [](std::ostream& s) { s.precision(1); }},
      {"precision 3", [](std::ostream& s) { s.precision(3); }},
      {"precision 10", [](std::ostream& s) { s.precision(10); }},
      {"precision 15", [](std::ostream& s) { s.precision(15); }},
      {"precision 17", [](std::ostream& s) { s.precision(17); }},
      {"precision 50", [](std::ostream& s) { s.precision(50); }},
      {"negative precision", [](std::ostream& s) { s.precision(-3); }},
      {"fixed", [](std::ostream& s) { s << std::fixed; }},
      {"fixed precision 2",
       [](std::ostream& s) {
         s << std::fixed;
         s.precision(2);
       }},
      {"scientific", [](std::ostream& s) { s << std::scientific; }},
      {"scientific precision 0",
       [](std::ostream& s) {
         s << std::scientific;
         s.precision(0);
       }},
      {"showpos", [](std::ostream& s) { s << std::showpos; }},
      {"uppercase", [](std::ostream& s) { s << std::uppercase; }},
      {"uppercase scientific", [](std::ostream& s) { s << std::uppercase << std::scientific; }},
      {"uppercase fixed", [](std::ostream& s) { s << std::uppercase << std::fixed; }},
      {"comma", [](std::ostream& s) { s.imbue(std::locale(std::locale::classic(), new CommaDecimalPoint)); }},
      {"comma fixed showpos",
       [](std::ostream& s) {
         s.imbue(std::locale(std::locale::classic(), new CommaDecimalPoint));
         s << std::fixed << std::showpos;
       }},
  };
  const std::vector<double> values = sampleValues();
  for (const auto& [name, setup] : formats) {
    std::ostringstream stream;
    setup(stream);
    const std::optional<StreamNumberFormat> format = StreamNumberFormat::of(stream);
    ASSERT_TRUE(format) << name;
    char text[StreamNumberFormat::kMaxText];
    for (double value : values) {
      stream.str("");
      stream << value;
      ASSERT_EQ(std::string(text, format->write(text, value)), stream.str()) << name << ", value " << value;
    }
    for (unsigned long value : {0UL, 7UL, 4294967295UL, 18446744073709551615UL}) {
      stream.str("");
      stream << value;
      ASSERT_EQ(std::string(text, format->write(text, value)), stream.str()) << name << ", value " << value;
    }
  }
}

TEST(StreamNumberFormat, RefusesFormatsItDoesNotReproduce) {
  const std::vector<std::pair<const char*, FormatStream>> formats = {
      {"showpoint", [](std::ostream& s) { s << std::showpoint; }},
      {"hexfloat", [](std::ostream& s) { s << std::hexfloat; }},
      {"hex", [](std::ostream& s) { s << std::hex; }},
      {"oct", [](std::ostream& s) { s << std::oct; }},
      {"precision 51", [](std::ostream& s) { s.precision(51); }},
      {"grouping",
       [](std::ostream& s) { s.imbue(std::locale(std::locale::classic(), new ThousandsGrouping)); }},
      {"own num_put", [](std::ostream& s) { s.imbue(std::locale(std::locale::classic(), new OwnNumPut)); }},
  };
  for (const auto& [name, setup] : formats) {
    std::ostringstream stream;
    setup(stream);
    EXPECT_FALSE(StreamNumberFormat::of(stream)) << name;
  }
}

// A width pads only the next insertion, so text made off to the side cannot honour it; neither
// can it follow flags or a precision changed after it was captured.
TEST(StreamNumberFormat, MatchesOnlyTheFormatItWasTakenFromWithNoWidthPending) {
  std::ostringstream stream;
  const StreamNumberFormat format = *StreamNumberFormat::of(stream);
  EXPECT_TRUE(format.matches(stream));
  stream.width(8);
  EXPECT_FALSE(format.matches(stream));
  stream.width(0);
  stream.precision(3);
  EXPECT_FALSE(format.matches(stream));
  stream.precision(6);
  stream << std::fixed;
  EXPECT_FALSE(format.matches(stream));
}

}  // namespace
