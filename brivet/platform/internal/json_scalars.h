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

struct JSONNumber {
  enum class Kind : std::uint8_t { Signed, Unsigned, Double };
  Kind kind = Kind::Signed;
  union {
    std::int64_t i;
    std::uint64_t u;
    double d;
  } value{};
};

enum class JSONNumberFault : std::uint8_t {
  None,
  MissingIntegerDigit,  // no digit after the minus sign (or where the number should start)
  MissingFraction,      // a decimal point without a digit after it
  MissingExponent,      // an exponent mark without a digit after it (and its sign)
  OutOfRange,           // the value lies beyond the largest double
};

struct JSONNumberRead {
  JSONNumberFault fault = JSONNumberFault::None;
  // Without a fault: the bytes the number takes. With one: the offset of the
  // fault from the number's start (its start itself for OutOfRange).
  std::size_t length = 0;
  JSONNumber number;
};

// Reads the number at the start of [p, end): -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
// It stops after the longest such prefix; what follows is for the caller to judge.
JSONNumberRead readJSONNumberInGeneral(const char* p, const char* end);
// The same, with the integers of up to 18 digits that make most of JSON read inline.
inline JSONNumberRead readJSONNumber(const char* p, const char* end) {
  const char* q = p;
  const bool negative = q < end && *q == '-';
  if (negative) ++q;
  const char* const digits = q;
  std::uint64_t v = 0;
  while (q < end && q - digits < 18 && *q >= '0' && *q <= '9') v = v * 10 + static_cast<unsigned>(*q++ - '0');
  const bool leadingZero = q - digits > 1 && *digits == '0';
  if (q == digits || leadingZero || q - digits == 18 ||
      (q < end && (*q == '.' || *q == 'e' || *q == 'E' || (*q >= '0' && *q <= '9')))) {
    return readJSONNumberInGeneral(p, end);
  }
  JSONNumberRead r;
  r.length = static_cast<std::size_t>(q - p);
  r.number.kind = JSONNumber::Kind::Signed;
  r.number.value.i = negative ? -static_cast<std::int64_t>(v) : static_cast<std::int64_t>(v);
  return r;
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
