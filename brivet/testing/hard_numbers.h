// Number texts that are hard to convert, for the tests of every JSON reader.
//
// `hardNumberTexts` generates, from a seed, JSON number texts of the kinds
// that correctly rounding conversion gets wrong when done by hand: mantissas
// of hundreds of digits, exponents near and past the double range, the exact
// halfway points between neighbouring doubles (and the values just beside
// them), subnormals, zeros written with long fractions and huge exponents, and
// integers at and beyond 2^63 and 2^64. Every text follows the JSON number
// grammar. `referenceValue` is an independent conversion of such a text to
// compare against: the C library's strtod, correctly rounding in glibc, read
// in the "C" locale.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace brivet::testing {

std::vector<std::string> hardNumberTexts(std::uint64_t seed);

struct ReferenceNumber {
  enum class Kind { Signed, Unsigned, Double, OutOfRange };
  Kind kind;
  std::int64_t i = 0;
  std::uint64_t u = 0;
  double d = 0;
};
// What a reader must make of the text: an exact integer when the text is an
// integer that fits 64 bits, the correctly rounded double otherwise, or
// OutOfRange when that double would be infinite.
ReferenceNumber referenceValue(const std::string& text);

}  // namespace brivet::testing
