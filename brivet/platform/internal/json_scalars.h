// The numbers and strings of JSON text: one set of checks and conversions that
// every reader of JSON text in the library calls (the platform's object reader
// and the graph's own reader today), so that all of them accept exactly the
// same text and read it to exactly the same values, whichever reader a later
// change puts underneath.
//
// Numbers: `readJSONNumber` checks the JSON number grammar and converts the
// text. An integer (no fraction, no exponent) that fits 64 bits stays exact: a
// signed integer, or an unsigned one when it only fits unsigned; any other
// number becomes the correctly rounded double (the conversion is done by a
// library made for it, correct for every length of mantissa and exponent).
// Numbers below the smallest subnormal round to a zero of their sign; numbers
// beyond the largest double are refused (`JSONNumberFault::OutOfRange`), so a
// reader never produces an infinity or a NaN.
//
// Strings: JSON text may not hold raw control characters (U+0000 to U+001F)
// inside strings, and outside strings only the whitespace among them (tab,
// line feed, carriage return). `findJSONTextFault` finds the first byte that
// is not allowed anywhere: one that is not UTF-8 (surrogates included) or a
// control character other than that whitespace. A reader that has decoded a
// string checks it with `hasEncodedSurrogate` (when `mayHoldSurrogateEscape`
// says the text has such escapes at all): a "\udc00" escape standing alone
// decodes to a surrogate, which is not text; `findUnpairedSurrogateEscape`
// then names the escape's offset for the error.
//
// All functions are pure and thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace brivet::internal {

enum class JSONNumberFault : std::uint8_t {
  None,
  MissingIntegerDigit,  // no digit after the minus sign (or where the number should start)
  MissingFraction,      // a decimal point without a digit after it
  MissingExponent,      // an exponent mark without a digit after it (and its sign)
  OutOfRange,           // the value lies beyond the largest double
};

// What a number read gave: its value and the bytes it takes, or a fault and its
// offset from the number's start (the start itself for OutOfRange). Sixteen
// bytes, so that it is returned in registers.
class JSONNumberRead {
 public:
  enum class Kind : std::uint8_t { Signed, Unsigned, Double };

  static JSONNumberRead signedInteger(std::int64_t v, std::size_t length) {
    JSONNumberRead r(length, Kind::Signed, JSONNumberFault::None);
    r.value_.i = v;
    return r;
  }
  static JSONNumberRead unsignedInteger(std::uint64_t v, std::size_t length) {
    JSONNumberRead r(length, Kind::Unsigned, JSONNumberFault::None);
    r.value_.u = v;
    return r;
  }
  static JSONNumberRead real(double v, std::size_t length) {
    JSONNumberRead r(length, Kind::Double, JSONNumberFault::None);
    r.value_.d = v;
    return r;
  }
  static JSONNumberRead withFault(JSONNumberFault fault, std::size_t offset) {
    return JSONNumberRead(offset, Kind::Signed, fault);
  }

  JSONNumberFault fault() const { return static_cast<JSONNumberFault>((bits_ >> 60) & 7u); }
  Kind kind() const { return static_cast<Kind>((bits_ >> 56) & 3u); }
  std::size_t length() const { return static_cast<std::size_t>(bits_ & kLengthMask); }
  std::int64_t signedValue() const { return value_.i; }
  std::uint64_t unsignedValue() const { return value_.u; }
  double doubleValue() const { return value_.d; }

 private:
  static constexpr std::uint64_t kLengthMask = (std::uint64_t{1} << 56) - 1;  // no text is 64 PB long
  JSONNumberRead(std::size_t length, Kind kind, JSONNumberFault fault)
      : bits_((static_cast<std::uint64_t>(length) & kLengthMask) | (static_cast<std::uint64_t>(kind) << 56) |
              (static_cast<std::uint64_t>(fault) << 60)) {}
  union {
    std::int64_t i;
    std::uint64_t u;
    double d;
  } value_{};
  std::uint64_t bits_;  // the length in bits 0-55, the kind in 56-57, the fault in 60-62
};

// Reads the number at the start of [p, end): -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
// It stops after the longest such prefix; what follows is for the caller to judge.
JSONNumberRead readJSONNumberInGeneral(const char* p, const char* end);
// The same, with the short numbers that make most of JSON read inline: integers
// of up to 17 digits, and decimals of up to 15 digits without an exponent, which
// one division of two exactly represented doubles rounds correctly.
inline JSONNumberRead readJSONNumber(const char* p, const char* end) {
  static constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                            1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  auto digitAt = [end](const char* at) { return at < end && *at >= '0' && *at <= '9'; };
  const char* q = p;
  const bool negative = q < end && *q == '-';
  if (negative) ++q;
  const char* const digits = q;
  std::uint64_t v = 0;
  while (q - digits < 18 && digitAt(q)) v = v * 10 + static_cast<unsigned>(*q++ - '0');
  const std::ptrdiff_t integerDigits = q - digits;
  if (integerDigits == 0 || integerDigits == 18 || (integerDigits > 1 && *digits == '0')) {
    return readJSONNumberInGeneral(p, end);
  }
  if (q == end || (*q != '.' && *q != 'e' && *q != 'E' && !digitAt(q))) {
    return JSONNumberRead::signedInteger(negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v),
                                         static_cast<std::size_t>(q - p));
  }
  if (*q == '.' && integerDigits < 15) {
    const char* const fraction = ++q;
    while (integerDigits + (q - fraction) < 15 && digitAt(q)) v = v * 10 + static_cast<unsigned>(*q++ - '0');
    const std::ptrdiff_t fractionDigits = q - fraction;
    if (fractionDigits > 0 && !digitAt(q) && (q == end || (*q != 'e' && *q != 'E'))) {
      const double d = static_cast<double>(v) / kPowersOfTen[fractionDigits];
      return JSONNumberRead::real(negative ? -d : d, static_cast<std::size_t>(q - p));
    }
  }
  return readJSONNumberInGeneral(p, end);
}

enum class JSONTextFaultKind : std::uint8_t { None, InvalidUTF8, ControlCharacter };
struct JSONTextFault {
  JSONTextFaultKind kind = JSONTextFaultKind::None;
  std::size_t offset = 0;  // the first offending byte
  explicit operator bool() const { return kind != JSONTextFaultKind::None; }
};

// The first byte of `text` that may not appear in JSON text at all, if any.
JSONTextFault findJSONTextFault(std::string_view text);

// Whether a decoded string holds a UTF-16 surrogate (U+D800 to U+DFFF) encoded
// as three bytes, which is what decoding an unpaired surrogate escape gives.
inline bool hasEncodedSurrogate(std::string_view decoded) {
  const char* p = decoded.data();
  const char* end = p + decoded.size();
  while (p < end) {
    const void* found = std::memchr(p, 0xED, static_cast<std::size_t>(end - p));
    if (found == nullptr) return false;
    p = static_cast<const char*>(found) + 1;
    if (p < end && static_cast<unsigned char>(*p) >= 0xA0) return true;
  }
  return false;
}

// Whether `text` may hold a surrogate escape ("\uD800" to "\uDFFF", either
// case). When it does not, no string decoded from it can hold a surrogate and
// readers skip `hasEncodedSurrogate`.
bool mayHoldSurrogateEscape(std::string_view text);

// For a string of `text` that ends just before `stringEnd` (the offset past its
// closing quote), the offset of the first "\u" escape in it that is an
// unpaired surrogate; `stringEnd` when there is none.
std::size_t findUnpairedSurrogateEscape(std::string_view text, std::size_t stringEnd);

// A short English text for the faults above, for error messages.
inline constexpr const char* kUnpairedSurrogateText = "a \\u escape is an unpaired UTF-16 surrogate.";
const char* describeJSONTextFault(JSONTextFaultKind kind);

}  // namespace brivet::internal
