// Numbers as an output stream would write them, without the stream: for code that builds a line
// of text off to the side and then writes it to the stream in one piece.
//
// StreamNumberFormat captures a stream's number format (flags, precision, locale) and turns
// unsigned integers and doubles into the very bytes that the stream's own insertion would produce
// with that format, using std::to_chars. It covers the formats met in practice; for any other,
// of() says so and the caller inserts into the stream itself.
//
// Threads: a StreamNumberFormat is an immutable value, usable from any thread. of() and matches()
// read the stream's format, so they must not run while another thread changes that format.
#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ios>
#include <locale>
#include <optional>
#include <ostream>
#include <typeinfo>

namespace foundation {
namespace core {
namespace diag {

class StreamNumberFormat {
 public:
  // The largest precision reproduced; streams asking for more are left to themselves.
  static constexpr std::streamsize kMaxPrecision = 50;
  // Room that write() needs: a sign, 309 integer digits of the largest double, the point and
  // kMaxPrecision decimals, with some to spare.
  static constexpr std::size_t kMaxText = 400;

  // The format of `stream`, if this class reproduces it: integers in decimal; doubles in
  // general, fixed or scientific notation with a precision of at most kMaxPrecision (a negative
  // precision counts as 6, as the stream takes it), with or without showpos and uppercase; a
  // locale with the standard num_put and ctype facets and no digit grouping (any decimal
  // point). std::nullopt for anything else: showpoint, hexfloat, octal or hexadecimal integers,
  // grouping, or facets of one's own. Padding is not reproduced: see matches().
  static std::optional<StreamNumberFormat> of(const std::ostream& stream) {
    StreamNumberFormat format;
    format.flags_ = stream.flags();
    format.precision_ = stream.precision() < 0 ? 6 : stream.precision();
    const std::ios_base::fmtflags floatfield = format.flags_ & std::ios_base::floatfield;
    const std::ios_base::fmtflags basefield = format.flags_ & std::ios_base::basefield;
    if ((format.flags_ & std::ios_base::showpoint) || floatfield == std::ios_base::floatfield ||
        basefield == std::ios_base::oct || basefield == std::ios_base::hex ||
        format.precision_ > kMaxPrecision) {
      return std::nullopt;
    }
    format.notation_ = floatfield == std::ios_base::fixed        ? std::chars_format::fixed
                       : floatfield == std::ios_base::scientific ? std::chars_format::scientific
                                                                 : std::chars_format::general;
    const std::locale locale = stream.getloc();
    if (!(locale == std::locale::classic())) {
      // Other locales keep the standard facets unless someone installed their own; the only
      // thing such a locale may change here is the decimal point.
      const auto& put = std::use_facet<std::num_put<char>>(locale);
      const auto& ctype = std::use_facet<std::ctype<char>>(locale);
      const auto& punct = std::use_facet<std::numpunct<char>>(locale);
      if (typeid(put) != typeid(std::num_put<char>) ||
          (typeid(ctype) != typeid(std::ctype<char>) && typeid(ctype) != typeid(std::ctype_byname<char>)) ||
          !punct.grouping().empty()) {
        return std::nullopt;
      }
      format.decimalPoint_ = punct.decimal_point();
    }
    return format;
  }

  // Whether `stream` would still write exactly what this format writes: the same flags and
  // precision, and no width pending (a width pads the next insertion only, so text built off to
  // the side cannot carry it). The locale is not compared again.
  bool matches(const std::ostream& stream) const {
    const std::streamsize precision = stream.precision() < 0 ? 6 : stream.precision();
    return stream.flags() == flags_ && precision == precision_ && stream.width() == 0;
  }

  // Writes the text of `value` from `out` on and returns its end. `out` must have room for
  // kMaxText characters.
  char* write(char* out, unsigned long value) const { return std::to_chars(out, out + kMaxText, value).ptr; }
  char* write(char* out, double value) const {
    char* first = out;
    if ((flags_ & std::ios_base::showpos) && !std::signbit(value)) {
      *out++ = '+';
    }
    char* last = nullptr;
    if (notation_ == std::chars_format::general) {
      last = writeGeneralQuickly(out, value, precision_ == 0 ? 1 : static_cast<int>(precision_));
    }
    if (last == nullptr) {
      last = std::to_chars(out, first + kMaxText, value, notation_, static_cast<int>(precision_)).ptr;
    }
    for (char* c = out; c != last; ++c) {
      if (*c == '.') {
        *c = decimalPoint_;
      } else if (*c >= 'a' && *c <= 'z' && (flags_ & std::ios_base::uppercase) &&
                 notation_ != std::chars_format::fixed) {
        // The stream asks for %E or %G then, which capitalise the exponent, "inf" and "nan".
        *c = static_cast<char>(*c - 'a' + 'A');
      }
    }
    return last;
  }

 private:
  StreamNumberFormat() = default;

  static constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                            1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

  // %.*g (what the stream asks for in general notation) by scaling to a p-digit integer, several
  // times faster than std::to_chars with a precision. Returns nullptr, having written nothing
  // that counts, where it cannot be sure of the rounding (the scaled value lies within its own
  // rounding error of a half) or the value is outside its range; std::to_chars decides then.
  static char* writeGeneralQuickly(char* out, double value, int precision) {
    if (precision > 15 || !std::isnormal(value)) {
      return nullptr;
    }
    const bool negative = value < 0;
    const double magnitude = negative ? -value : value;
    const auto limit = static_cast<std::uint64_t>(kPowersOfTen[precision]);
    // floor(log10(magnitude)), or one less: magnitude lies in [2^e, 2^(e+1)), and 78913 / 2^18
    // approximates log10(2) closely enough that floor(e * log10(2)) comes out exact for every
    // exponent of a normal double. The bias keeps the shift on non-negative numbers.
    std::uint64_t bits = 0;
    std::memcpy(&bits, &magnitude, sizeof bits);
    const int exponent2 = static_cast<int>(bits >> 52) - 1023;
    constexpr std::int64_t kBias = 400;
    int exponent10 = static_cast<int>(
        static_cast<std::int64_t>((static_cast<std::uint64_t>(exponent2 * 78913 + (kBias << 18))) >> 18) -
        kBias);
    std::uint64_t digits = 0;
    for (;;) {
      const int scale = precision - 1 - exponent10;
      if (scale > 22 || scale < -22) {
        return nullptr;
      }
      // One rounding each: the powers of ten up to 1e22 are exact doubles.
      const double scaled = scale >= 0 ? magnitude * kPowersOfTen[scale] : magnitude / kPowersOfTen[-scale];
      if (scaled >= static_cast<double>(limit)) {
        ++exponent10;  // the estimate was one low
        continue;
      }
      const double whole = std::floor(scaled);
      const double fraction = scaled - whole;
      if (std::fabs(fraction - 0.5) <= scaled * 0x1p-51) {
        return nullptr;
      }
      digits = static_cast<std::uint64_t>(whole) + (fraction > 0.5 ? 1 : 0);
      if (digits < limit / 10) {
        return nullptr;  // not reached while the estimate is never high; kept as a guard
      }
      if (digits == limit) {  // rounded up to the next power of ten
        digits /= 10;
        ++exponent10;
      }
      break;
    }

    char text[20];
    const int count = static_cast<int>(std::to_chars(text, text + sizeof text, digits).ptr - text);
    int significant = count;
    while (significant > 1 && text[significant - 1] == '0') {
      --significant;
    }
    if (negative) {
      *out++ = '-';
    }
    if (exponent10 < -4 || exponent10 >= precision) {
      *out++ = text[0];
      if (significant > 1) {
        *out++ = '.';
        out = std::copy(text + 1, text + significant, out);
      }
      *out++ = 'e';
      *out++ = exponent10 < 0 ? '-' : '+';
      const int shown = exponent10 < 0 ? -exponent10 : exponent10;
      if (shown < 10) {
        *out++ = '0';
      }
      return std::to_chars(out, out + 4, shown).ptr;
    }
    if (exponent10 >= 0) {
      out = std::copy(text, text + exponent10 + 1, out);
      if (significant > exponent10 + 1) {
        *out++ = '.';
        out = std::copy(text + exponent10 + 1, text + significant, out);
      }
      return out;
    }
    *out++ = '0';
    *out++ = '.';
    out = std::fill_n(out, -exponent10 - 1, '0');
    return std::copy(text, text + significant, out);
  }

  std::ios_base::fmtflags flags_{};
  std::streamsize precision_ = 6;
  std::chars_format notation_ = std::chars_format::general;
  char decimalPoint_ = '.';
};

}  // namespace diag
}  // namespace core
}  // namespace foundation
