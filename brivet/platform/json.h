// JSON text to objects and back.
//
// `parseJSON` reads UTF-8 JSON text straight into an object tree (no
// intermediate document): objects become dictionaries (insertion order kept,
// a repeated key keeps its last value), arrays arrays, strings strings, `true` /
// `false` boolean numbers, `null` the null singleton. A number without fraction
// or exponent that fits 64 bits stays an exact integer (signed, or unsigned
// when it only fits unsigned); every other number becomes the correctly rounded
// double (so writing it back gives the same double), a number too small for a
// double a zero. Options: `MutableContainers` makes every dictionary and array
// mutable; `FragmentsAllowed` accepts a top-level value that is not an array or
// object. Any malformed input gives an `Error` in `kJSONErrorDomain` whose
// message says what was wrong and at which byte offset: truncated text, invalid
// UTF-8, a raw control character (U+0000 to U+001F) inside a string or a stray
// one outside, a bad escape or an unpaired surrogate (high or low), a number
// beyond the double range, trailing data, nesting deeper than
// `kMaxJSONNestingDepth`. Parsing never recurses, so no input can exhaust the
// stack; whatever it accepts, `writeJSON` can write and reads back equal.
//
// `writeJSON` writes an object tree as compact or pretty-printed (two-space
// indent) UTF-8 text; `SortedKeys` orders dictionary keys by byte value,
// otherwise they are written in the dictionary's order. Slashes are not
// escaped; control characters always are. Only trees that pass `isValidJSONObject` can be written: the top
// level is an array or a dictionary (any valid value with `FragmentsAllowed`),
// every node is a dictionary with string keys, an array, a string, a finite
// number or null, and the nesting is at most `kMaxJSONNestingDepth` deep.
//
// All functions are pure and safe to call from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "brivet/platform/error.h"
#include "brivet/platform/object.h"
#include "brivet/platform/result.h"

namespace brivet {

enum class JSONReadingOptions : unsigned {
  None = 0,
  MutableContainers = 1,
  MutableLeaves = 2,  // accepted for compatibility; strings are immutable here
  FragmentsAllowed = 4,
};
enum class JSONWritingOptions : unsigned {
  None = 0,
  PrettyPrinted = 1,
  SortedKeys = 2,
  FragmentsAllowed = 4,
};
constexpr JSONReadingOptions operator|(JSONReadingOptions a, JSONReadingOptions b) {
  return static_cast<JSONReadingOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool operator&(JSONReadingOptions a, JSONReadingOptions b) {
  return (static_cast<unsigned>(a) & static_cast<unsigned>(b)) != 0;
}
constexpr JSONWritingOptions operator|(JSONWritingOptions a, JSONWritingOptions b) {
  return static_cast<JSONWritingOptions>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool operator&(JSONWritingOptions a, JSONWritingOptions b) {
  return (static_cast<unsigned>(a) & static_cast<unsigned>(b)) != 0;
}

inline constexpr std::size_t kMaxJSONNestingDepth = 512;
inline constexpr std::string_view kJSONErrorDomain = "BrivetJSONErrorDomain";

enum class JSONErrorCode : std::int64_t {
  InvalidText = 1,        // the text is not JSON (the message names the fault)
  NestingTooDeep = 2,     // more than kMaxJSONNestingDepth nested containers
  FragmentNotAllowed = 3, // a top-level scalar without FragmentsAllowed
  InvalidObject = 4,      // writeJSON given a tree that isValidJSONObject rejects
};

[[nodiscard]] Result<Object> parseJSON(std::string_view text,
                                       JSONReadingOptions options = JSONReadingOptions::None);
[[nodiscard]] bool isValidJSONObject(const Object& object,
                                     JSONWritingOptions options = JSONWritingOptions::None);
[[nodiscard]] Result<std::string> writeJSON(const Object& object,
                                            JSONWritingOptions options = JSONWritingOptions::None);

}  // namespace brivet
