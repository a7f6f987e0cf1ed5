// The diagnostics helpers: readable type names (demangled once per type, then cached for every
// thread) and StreamNumberFormat, whose numbers written off to the side must be byte for byte
// what the stream itself writes in every format it claims to reproduce; the formats it cannot
// reproduce must be refused rather than approximated.
#include <cmath>
#include <limits>
#include <locale>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "foundation/core/diag/Demangle.h"
#include "foundation/core/diag/StreamNumberFormat.h"

namespace a {
struct Ping {};
}  // namespace a

namespace {

using foundation::core::diag::readable_type_name;
using foundation::core::diag::StreamNumberFormat;
using foundation::core::diag::detail::demangle_typeid_name;
using F = std::ios_base;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// Runtime names become the names written in code; anything else comes back as it was, unless
// strict, which names the refused text. A null name is refused either way.
TEST(Demangle, RuntimeNamesBecomeTheNamesWrittenInCodeAndOthersComeBackUnlessStrict) {
  EXPECT_EQ(demangle_typeid_name(typeid(std::pair<a::Ping, unsigned>).name(), true),
            "std::pair<a::Ping, unsigned int>");
  EXPECT_EQ(demangle_typeid_name("not a type!", false), "not a type!");
  EXPECT_THAT([] { demangle_typeid_name("not a type!", true); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("\"not a type!\"")));
  EXPECT_THROW(demangle_typeid_name(nullptr, false), std::invalid_argument);
}

template <std::size_t... N>
std::vector<const std::type_info*> manyTypes(std::index_sequence<N...>) {
  return {&typeid(std::integral_constant<std::size_t, N>)...};
}

// More types than the lock-free table holds, so the overflow list is used too. Threads race for
// the first lookup of each type; all must receive the one cached string.
TEST(ReadableTypeName, EveryThreadGetsTheSameCachedDemangledTextForAType) {
  const std::vector<const std::type_info*> types = manyTypes(std::make_index_sequence<1500>());
  std::vector<const std::string*> seen[4];
  std::vector<std::thread> threads;
  for (auto& mine : seen) {
    threads.emplace_back([&types, &mine] {
      for (const std::type_info* type : types) {
        mine.push_back(&readable_type_name(*type));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (std::size_t i = 0; i < types.size(); ++i) {
    for (const auto& mine : seen) {
      ASSERT_EQ(mine[i], seen[0][i]) << i;
    }
    ASSERT_EQ(*seen[0][i], demangle_typeid_name(types[i]->name(), false));
  }
  EXPECT_EQ(std::set<const std::string*>(seen[0].begin(), seen[0].end()).size(), types.size());
}

struct CommaDecimalPoint : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};
struct ThousandsGrouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\3"; }
};
struct OwnNumPut : std::num_put<char> {};

// Signed zeros, extremes, infinities and NaN; random timestamps and magnitudes; and halves at the
// sixth digit, exact or nearly, where the rounding is decided.
std::vector<double> sampleValues() {
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
  return values;
}

TEST(StreamNumberFormat, WritesWhatTheStreamWritesOrRefusesTheFormat) {
  struct Format {
    F::fmtflags flags;
    std::streamsize precision;
    std::locale locale = std::locale::classic();
  };
  const std::locale comma(std::locale::classic(), new CommaDecimalPoint);
  const std::vector<Format> reproduced = {{F::skipws | F::dec, 6},
                                          {F::dec, 0},
                                          {F::dec, 17},
                                          {F::dec, 50},
                                          {F::dec, -3},
                                          {F::fixed, 2},
                                          {F::uppercase | F::showpos, 6},
                                          {F::uppercase | F::scientific, 6},
                                          {F::uppercase | F::fixed, 6},
                                          {F::fixed | F::showpos, 6, comma}};
  const std::vector<Format> refused = {
      {F::showpoint, 6},
      {F::fixed | F::scientific, 6},
      {F::hex, 6},
      {F::oct, 6},
      {F::dec, 51},
      {F::dec, 6, std::locale(std::locale::classic(), new ThousandsGrouping)},
      {F::dec, 6, std::locale(std::locale::classic(), new OwnNumPut)}};
  const std::vector<double> values = sampleValues();
  for (std::size_t i = 0; i < reproduced.size() + refused.size(); ++i) {
    const Format& f = i < reproduced.size() ? reproduced[i] : refused[i - reproduced.size()];
    SCOPED_TRACE(::testing::Message()
                 << "format " << i << ": flags " << f.flags << ", precision " << f.precision);
    std::ostringstream stream;
    stream.flags(f.flags);
    stream.precision(f.precision);
    stream.imbue(f.locale);
    const std::optional<StreamNumberFormat> format = StreamNumberFormat::of(stream);
    ASSERT_EQ(format.has_value(), i < reproduced.size());
    char text[StreamNumberFormat::kMaxText];
    const auto mismatch = [&](auto value) {
      stream.str("");
      stream << value;
      const std::string ours(text, format->write(text, value));
      return ours == stream.str() ? std::string() : ours + " where the stream writes " + stream.str();
    };
    for (std::size_t v = 0; format && v < values.size(); ++v) {
      ASSERT_EQ(mismatch(values[v]), "");
    }
    for (unsigned long whole : {0UL, 7UL, 4294967295UL, 18446744073709551615UL}) {
      ASSERT_EQ(format ? mismatch(whole) : "", "");
    }
  }
}

}  // namespace
