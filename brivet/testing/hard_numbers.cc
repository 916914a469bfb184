#include "brivet/testing/hard_numbers.h"

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace brivet::testing {
namespace {

// The exact decimal expansion of a long double (which holds the midpoint of
// two neighbouring doubles exactly), trailing zeros of the mantissa removed.
std::string exactDecimal(long double v) {
  std::vector<char> buffer(1200);
  const int n = std::snprintf(buffer.data(), buffer.size(), "%.1100Le", v);
  std::string text(buffer.data(), static_cast<std::size_t>(n));
  const std::size_t e = text.find('e');
  std::string mantissa = text.substr(0, e);
  const std::string exponent = text.substr(e);
  while (mantissa.size() > 1 && mantissa.back() == '0') mantissa.pop_back();
  if (mantissa.back() == '.') mantissa.pop_back();
  return mantissa + exponent;
}

std::string shortest(double d) {
  char buffer[40];
  const int n = std::snprintf(buffer, sizeof buffer, "%.17g", d);
  return std::string(buffer, static_cast<std::size_t>(n));  // finite values only: always a JSON number
}

std::string digits(std::mt19937_64& random, std::size_t count, bool leadingNonZero) {
  std::string s;
  for (std::size_t i = 0; i < count; ++i) {
    char c = static_cast<char>('0' + random() % 10);
    if (i == 0 && leadingNonZero && c == '0') c = '1';
    s += c;
  }
  return s;
}

double randomDouble(std::mt19937_64& random) {
  for (;;) {
    const std::uint64_t bits = random();
    double d;
    static_assert(sizeof d == sizeof bits);
    __builtin_memcpy(&d, &bits, sizeof d);
    if (std::isfinite(d)) return d;
  }
}

// The texts around the midpoint of d and the next double away from zero.
void halfwayCases(double d, std::vector<std::string>& out) {
  const double next = std::nextafter(d, d < 0 ? -INFINITY : INFINITY);
  if (!std::isfinite(next)) return;
  const long double mid = (static_cast<long double>(d) + static_cast<long double>(next)) / 2;
  out.push_back(exactDecimal(mid));
  out.push_back(exactDecimal(std::nextafter(mid, static_cast<long double>(d))));
  out.push_back(exactDecimal(std::nextafter(mid, static_cast<long double>(next))));
  // The midpoint with a 1 far beyond its last digit: just past halfway.
  std::string exact = exactDecimal(mid);
  const std::size_t e = exact.find('e');
  std::string mantissa = exact.substr(0, e);
  if (mantissa.find('.') == std::string::npos) mantissa += '.';
  out.push_back(mantissa + std::string(300, '0') + "1" + exact.substr(e));
}

}  // namespace

std::vector<std::string> hardNumberTexts(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<std::string> out;

  // Fixed cases: the edges of the double and integer ranges, and zeros.
  const char* fixed[] = {
      "0", "-0", "0.0", "-0.0", "0e0", "0E40", "0e93", "-0E-400", "0e99999999999999999999",
      "1e-324", "2e-324", "2.4703282292062327e-324", "2.4703282292062328e-324", "4.9406564584124654e-324",
      "2.2250738585072011e-308", "2.2250738585072012e-308", "2.2250738585072014e-308",
      "1.7976931348623157e308", "1.7976931348623158e308", "1.7976931348623159e308", "1e308", "1e309",
      "1.00e310", "-1e400", "1e99999999999999999999", "1.00000000000000001e-334", "9007199254740993",
      "9223372036854775807", "9223372036854775808", "-9223372036854775808", "-9223372036854775809",
      "18446744073709551615", "18446744073709551616", "-18446744073709551616", "99999999999999999999",
  };
  for (const char* f : fixed) out.emplace_back(f);
  out.push_back("0." + std::string(50, '0'));
  out.push_back("0." + std::string(700, '0') + "e400");
  out.push_back("-0." + std::string(400, '0') + "1e400");
  out.push_back("0." + std::string(400, '0') + "1e330");
  out.push_back("1" + std::string(400, '0') + "e-390");
  out.push_back("1" + std::string(309, '0'));
  out.push_back("17976931348623158" + std::string(292, '0'));
  out.push_back("1." + std::string(40, '0') + "1e-330");

  // Integers of every length around the 64-bit limits and far beyond.
  for (std::size_t n = 17; n <= 45; ++n) {
    for (int k = 0; k < 6; ++k) {
      const std::string d = digits(random, n, true);
      out.push_back(d);
      out.push_back("-" + d);
    }
  }
  for (int k = 0; k < 200; ++k) {
    const std::uint64_t v = (std::uint64_t{1} << 63) - 100 + random() % 200;
    out.push_back(std::to_string(v));
    out.push_back("-" + std::to_string(v));
    out.push_back(std::to_string(UINT64_MAX - random() % 200));
  }

  // Long mantissas with exponents that put them anywhere in (and beyond) the range.
  for (int k = 0; k < 3000; ++k) {
    const std::size_t length = 18 + random() % 780;
    const std::string d = digits(random, length, true);
    const std::size_t point = random() % length;
    const int exponent = static_cast<int>(random() % 700) - 350 - static_cast<int>(point);
    std::string text = (random() % 2 ? "-" : "") + d.substr(0, point + 1);
    if (point + 1 < length) text += "." + d.substr(point + 1);
    text += "e" + std::to_string(exponent);
    out.push_back(text);
  }

  // Short decimals without an exponent (the common case readers take a fast road for),
  // up to and past the fifteen digits a double holds exactly.
  for (int k = 0; k < 3000; ++k) {
    const std::size_t length = 2 + random() % 18;
    const std::string d = digits(random, length, false);
    const std::size_t point = 1 + random() % (length - 1);
    std::string integer = d.substr(0, point);
    if (integer.size() > 1 && integer[0] == '0') integer[0] = '1';
    out.push_back((random() % 2 ? "-" : "") + integer + "." + d.substr(point));
  }

  // Exponents near the ends of the range, short and long mantissas.
  for (int exponent = -345; exponent <= -300; ++exponent) {
    for (int k = 0; k < 30; ++k) out.push_back(digits(random, 1 + random() % 25, true) + "e" + std::to_string(exponent));
  }
  for (int exponent = 280; exponent <= 312; ++exponent) {
    for (int k = 0; k < 30; ++k) {
      const std::string d = digits(random, 1 + random() % 25, true);
      out.push_back(d.substr(0, 1) + (d.size() > 1 ? "." + d.substr(1) : "") + "E+" + std::to_string(exponent));
    }
  }

  // Halfway points and their neighbours: random doubles, subnormals, powers of two.
  for (int k = 0; k < 1500; ++k) halfwayCases(randomDouble(random), out);
  for (int k = 0; k < 600; ++k) {
    std::uint64_t bits = random() & ((std::uint64_t{1} << 52) - 1);  // a subnormal
    double d;
    __builtin_memcpy(&d, &bits, sizeof d);
    halfwayCases(d, out);
    out.push_back(shortest(d));
  }
  for (int e = -1074; e <= 1023; e += 7) halfwayCases(std::ldexp(1.0, e), out);

  // Zeros with long fractions and large exponents, and tiny values that round to zero.
  for (int k = 0; k < 300; ++k) {
    const std::string zeros(1 + random() % 900, '0');
    out.push_back("0." + zeros + "e" + std::to_string(static_cast<int>(random() % 2000) - 1000));
    out.push_back("-0." + zeros + "1e" + std::to_string(static_cast<int>(random() % 1400) - 100));
  }
  return out;
}

ReferenceNumber referenceValue(const std::string& text) {
  ReferenceNumber r{ReferenceNumber::Kind::Double};
  const bool integral = text.find_first_of(".eE") == std::string::npos;
  if (integral) {
    errno = 0;
    char* end = nullptr;
    if (text[0] == '-') {
      const long long v = std::strtoll(text.c_str(), &end, 10);
      if (errno == 0 && *end == '\0') {
        r.kind = ReferenceNumber::Kind::Signed;
        r.i = v;
        return r;
      }
    } else {
      const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
      if (errno == 0 && *end == '\0') {
        if (v <= static_cast<unsigned long long>(INT64_MAX)) {
          r.kind = ReferenceNumber::Kind::Signed;
          r.i = static_cast<std::int64_t>(v);
        } else {
          r.kind = ReferenceNumber::Kind::Unsigned;
          r.u = v;
        }
        return r;
      }
    }
  }
  errno = 0;
  r.d = std::strtod(text.c_str(), nullptr);
  if (std::isinf(r.d)) r.kind = ReferenceNumber::Kind::OutOfRange;
  return r;
}

}  // namespace brivet::testing
