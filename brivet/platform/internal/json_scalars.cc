#include "brivet/platform/internal/json_scalars.h"

#include <fast_float/fast_float.h>

#include <cmath>
#include <system_error>

#include "brivet/platform/internal/utf8.h"

namespace brivet::internal {
namespace {

bool isDigit(const char* p, const char* end) { return p < end && *p >= '0' && *p <= '9'; }

JSONNumberRead numberFault(JSONNumberFault fault, std::size_t offset) { return JSONNumberRead::withFault(fault, offset); }

// The integer value of a run of decimal digits, when it fits 64 bits.
bool exactInteger(const char* p, const char* end, std::uint64_t* out) {
  std::uint64_t v = 0;
  for (; p < end; ++p) {
    if (__builtin_mul_overflow(v, 10u, &v) || __builtin_add_overflow(v, static_cast<unsigned>(*p - '0'), &v)) {
      return false;
    }
  }
  *out = v;
  return true;
}

unsigned hexValue(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
  return 16;
}

// The code unit of the "\uXXXX" escape at `i` (which holds the backslash), or
// a value past 0xFFFF when it is not one.
unsigned escapeUnit(std::string_view text, std::size_t i) {
  if (i + 6 > text.size() || text[i] != '\\' || text[i + 1] != 'u') return 0x10000;
  unsigned unit = 0;
  for (std::size_t k = i + 2; k < i + 6; ++k) {
    const unsigned h = hexValue(text[k]);
    if (h > 15) return 0x10000;
    unit = unit * 16 + h;
  }
  return unit;
}

}  // namespace

JSONNumberRead readJSONNumberInGeneral(const char* p, const char* end) {
  const char* const start = p;
  const bool negative = p < end && *p == '-';
  if (negative) ++p;
  if (!isDigit(p, end)) return numberFault(JSONNumberFault::MissingIntegerDigit, static_cast<std::size_t>(p - start));
  const char* const digits = p;
  if (*p == '0') {
    ++p;  // a leading zero stands alone; a digit after it is not part of this number
  } else {
    while (isDigit(p, end)) ++p;
  }
  const char* const digitsEnd = p;
  bool integral = true;
  if (p < end && *p == '.') {
    ++p;
    if (!isDigit(p, end)) return numberFault(JSONNumberFault::MissingFraction, static_cast<std::size_t>(p - start));
    while (isDigit(p, end)) ++p;
    integral = false;
  }
  if (p < end && (*p == 'e' || *p == 'E')) {
    ++p;
    if (p < end && (*p == '+' || *p == '-')) ++p;
    if (!isDigit(p, end)) return numberFault(JSONNumberFault::MissingExponent, static_cast<std::size_t>(p - start));
    while (isDigit(p, end)) ++p;
    integral = false;
  }

  const std::size_t length = static_cast<std::size_t>(p - start);
  std::uint64_t magnitude = 0;
  if (integral && exactInteger(digits, digitsEnd, &magnitude)) {
    constexpr std::uint64_t kSignedLimit = std::uint64_t{1} << 63;
    if (!negative) {
      return magnitude < kSignedLimit ? JSONNumberRead::signedInteger(static_cast<std::int64_t>(magnitude), length)
                                      : JSONNumberRead::unsignedInteger(magnitude, length);
    }
    // Two's complement negation: -2^63 is exactly representable.
    if (magnitude <= kSignedLimit) return JSONNumberRead::signedInteger(static_cast<std::int64_t>(0 - magnitude), length);
  }
  // Everything else, integers past 64 bits included, is the correctly rounded double.
  double d = 0;
  const auto converted = fast_float::from_chars(start, p, d);
  if (converted.ec != std::errc() || converted.ptr != p || std::isinf(d) || std::isnan(d)) {
    return numberFault(JSONNumberFault::OutOfRange, 0);
  }
  return JSONNumberRead::real(d, length);
}

JSONTextFault findJSONTextFault(std::string_view text) {
  const auto* const begin = reinterpret_cast<const unsigned char*>(text.data());
  const auto* p = begin;
  const auto* const end = p + text.size();
  auto fault = [&](JSONTextFaultKind kind) { return JSONTextFault{kind, static_cast<std::size_t>(p - begin)}; };
  while (p < end) {
    if (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      // Eight ASCII bytes none of which lies below 0x20 pass at once.
      constexpr std::uint64_t kHigh = 0x8080808080808080ULL;
      constexpr std::uint64_t kSpaces = 0x2020202020202020ULL;
      if ((word & kHigh) == 0 && ((word - kSpaces) & ~word & kHigh) == 0) {
        p += 8;
        continue;
      }
    }
    const unsigned c = *p;
    if (c < 0x20) {
      if (c != '\t' && c != '\n' && c != '\r') return fault(JSONTextFaultKind::ControlCharacter);
      ++p;
      continue;
    }
    if (c < 0x80) {
      ++p;
      continue;
    }
    const std::size_t length = utf8SequenceLength(p, end);
    if (length == 0) return fault(JSONTextFaultKind::InvalidUTF8);
    p += length;
  }
  return {};
}

bool mayHoldSurrogateEscape(std::string_view text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  while (end - p >= 4) {
    const void* found = std::memchr(p, '\\', static_cast<std::size_t>(end - p - 3));
    if (found == nullptr) return false;
    p = static_cast<const char*>(found);
    const unsigned third = static_cast<unsigned char>(p[3]) | 0x20;  // lower case
    if (p[1] == 'u' && (p[2] | 0x20) == 'd' && ((third >= '8' && third <= '9') || (third >= 'a' && third <= 'f'))) {
      return true;
    }
    p += 2;  // the escaped character is never the start of another escape
  }
  return false;
}

std::size_t findUnpairedSurrogateEscape(std::string_view text, std::size_t stringEnd) {
  if (stringEnd == 0 || stringEnd > text.size()) return stringEnd;
  // The opening quote: the last quote before the closing one that is not
  // escaped (preceded by an even run of backslashes).
  std::size_t open = stringEnd - 1;
  while (open > 0) {
    --open;
    if (text[open] != '"') continue;
    std::size_t backslashes = 0;
    while (backslashes < open && text[open - 1 - backslashes] == '\\') ++backslashes;
    if (backslashes % 2 == 0) break;
  }
  for (std::size_t i = open + 1; i + 1 < stringEnd; ++i) {
    if (text[i] != '\\') continue;
    const unsigned unit = escapeUnit(text, i);
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      const unsigned low = escapeUnit(text, i + 6);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        i += 11;  // the pair, less the loop's step
        continue;
      }
      return i;
    }
    if (unit >= 0xDC00 && unit <= 0xDFFF) return i;
    ++i;  // the escaped character, whatever it is, is not the start of an escape
  }
  return stringEnd;
}

const char* describeJSONTextFault(JSONTextFaultKind kind) {
  switch (kind) {
    case JSONTextFaultKind::None: return "";
    case JSONTextFaultKind::InvalidUTF8: return "the text is not valid UTF-8.";
    case JSONTextFaultKind::ControlCharacter: return "a control character (U+0000 to U+001F) that is not escaped.";
  }
  return "";
}

}  // namespace brivet::internal
