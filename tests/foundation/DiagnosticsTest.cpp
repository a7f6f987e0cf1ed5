// The diagnostics helpers: readable type names (demangled once per type, then cached for every
// thread) and StreamNumberFormat, whose numbers written off to the side must be byte for byte
// what the stream itself writes in every format it claims to reproduce; the formats it cannot
// reproduce must be refused rather than approximated.
#include <cmath>
#include <cstddef>
#include <future>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/core/diag/Demangle.h"
#include "foundation/core/diag/StreamNumberFormat.h"

namespace {

using foundation::core::diag::readable_type_name;
using foundation::core::diag::StreamNumberFormat;
using foundation::core::diag::detail::demangle_typeid_name;
using F = std::ios_base;

// Runtime names become the names written in code; anything else comes back as it was, unless
// strict, which names the refused text. A null name is refused either way.
TEST(Demangle, RuntimeNamesBecomeTheNamesWrittenInCodeAndOthersComeBackUnlessStrict) {
  EXPECT_EQ(demangle_typeid_name(typeid(std::pair<std::byte, unsigned>).name(), true),
            "std::pair<std::byte, unsigned int>");
  EXPECT_EQ(demangle_typeid_name("not a type!", false), "not a type!");
  EXPECT_THAT([] { demangle_typeid_name("not a type!", true); },
              ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr("\"not a type!\"")));
  EXPECT_THROW(demangle_typeid_name(nullptr, false), std::invalid_argument);
}

template <std::size_t... N>
std::vector<const std::type_info*> manyTypes(std::index_sequence<N...>) {
  return {&typeid(std::integral_constant<std::size_t, N>)...};
}

// More types than the lock-free table holds, so the overflow list is used too. Two threads race
// for the first lookup of each type; both must receive the one cached string.
TEST(ReadableTypeName, EveryThreadGetsTheSameCachedDemangledTextForAType) {
  const std::vector<const std::type_info*> types = manyTypes(std::make_index_sequence<1500>());
  const auto lookUp = [&types] {
    std::vector<const std::string*> seen;
    for (const std::type_info* type : types) {
      seen.push_back(&readable_type_name(*type));
    }
    return seen;
  };
  std::future<std::vector<const std::string*>> other = std::async(std::launch::async, lookUp);
  const std::vector<const std::string*> seen = lookUp();
  EXPECT_EQ(other.get(), seen);
  for (std::size_t i = 0; i < types.size(); ++i) {
    ASSERT_EQ(*seen[i], demangle_typeid_name(types[i]->name(), false));
  }
}

struct CommaDecimalPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};
struct ThousandsGrouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};
struct OwnNumPut : std::num_put<char> {};

// A stream that writes numbers in the given format.
std::ostringstream streamWith(F::fmtflags flags, std::streamsize precision, const std::locale& locale) {
  std::ostringstream stream;
  stream.flags(flags);
  stream.precision(precision);
  stream.imbue(locale);
  return stream;
}

// Every notation, with and without showpos and uppercase, at precisions from none to the largest
// reproduced (and a negative one), writes every sample value and whole number byte for byte as
// the stream does; so does a locale with its own decimal point. The other formats are refused.
TEST(StreamNumberFormat, WritesWhatTheStreamWritesOrRefusesTheFormat) {
  const std::locale classic = std::locale::classic(), comma(classic, new CommaDecimalPoint);
  // Signed zeros, extremes, infinities and NaN; random timestamps and magnitudes; and halves at the
  // sixth digit, exact or nearly, where the rounding is decided.
  const double inf = std::numeric_limits<double>::infinity();
  std::vector<double> values = {
      0.0,  -0.0,     0.5,         523.4721, 2.5e6, 999999.5,       9999995., 0.0001,
      1e-5, 99999.95, 1.0 / 3,     -42.125,  1e16,  123456789012.0, 5e-324,   1.7976931348623157e308,
      inf,  -inf,     std::nan("")};
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> exponent(-30, 30);
  for (int i = 0; i < 3000; ++i) {
    values.push_back(static_cast<double>(random() >> 14) / 1000000.0);
    values.push_back(std::pow(10.0, exponent(random)));
  }
  for (int i = 0; i < 200; ++i) {
    values.insert(values.end(),
                  {(100000 + i + 0.4999) / 1000, (100000 + i + 0.50000001) / 1000,
                   (100000 + i + 0.49999999) * 1000, (2 * i + 1) * 0.5, 100000.5 + i, 1.0000005 + i});
  }
  for (const std::locale& locale : {classic, comma}) {
    for (const F::fmtflags flags :
         {F::dec, F::fixed, F::scientific, F::dec | F::uppercase | F::showpos,
          F::fixed | F::uppercase | F::showpos, F::scientific | F::uppercase | F::showpos}) {
      for (const std::streamsize precision : {0, 2, 6, 17, 50, -3}) {
        std::ostringstream stream = streamWith(flags, precision, locale);
        const std::optional<StreamNumberFormat> format = StreamNumberFormat::of(stream);
        ASSERT_TRUE(format) << "flags " << flags << ", precision " << precision;
        char text[StreamNumberFormat::kMaxText];
        const auto mismatch = [&](auto value) {
          stream.str("");
          stream << value;
          const std::string ours(text, format->write(text, value));
          return ours == stream.str() ? std::string() : ours + " where the stream writes " + stream.str();
        };
        for (const double value : values) {
          ASSERT_EQ(mismatch(value), "") << "flags " << flags << ", precision " << precision;
        }
        for (const unsigned long whole : {0UL, 7UL, 4294967295UL, 18446744073709551615UL}) {
          ASSERT_EQ(mismatch(whole), "") << "flags " << flags << ", precision " << precision;
        }
      }
    }
  }
  for (const F::fmtflags flags : {F::showpoint, F::fixed | F::scientific, F::hex, F::oct}) {
    EXPECT_FALSE(StreamNumberFormat::of(streamWith(flags, 6, classic))) << flags;
  }
  EXPECT_FALSE(StreamNumberFormat::of(streamWith(F::dec, 51, classic)));
  EXPECT_FALSE(StreamNumberFormat::of(streamWith(F::dec, 6, std::locale(classic, new ThousandsGrouping))));
  EXPECT_FALSE(StreamNumberFormat::of(streamWith(F::dec, 6, std::locale(classic, new OwnNumPut))));
}

}  // namespace
