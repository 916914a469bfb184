// Matching of the "@range(x,y)" key-path fragment (internal to the legacy model).
//
// The grammar is "@range(" digits "," digits ")", "@range" in any letter case,
// no whitespace. It is matched by hand rather than with a regular-expression
// engine: the grammar is tiny, the code sits on every request, and a
// hand-written scan is linear in the fragment whatever its length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace brivet::internal {

struct RangeFragmentMatch {
  std::string_view from;  // the digits of the first bound
  std::string_view to;    // the digits of the second bound
};

// The first match in `text`; with `anchored`, only a match that starts at the
// first character counts (the rest of the text may follow it).
std::optional<RangeFragmentMatch> matchRangeFragment(std::string_view text, bool anchored);

// The plain, case-sensitive "@range" substring test that decides everywhere
// whether a key path is read directly or expanded.
inline bool containsRangeMarker(std::string_view text) { return text.find("@range") != std::string_view::npos; }

// Decimal digits read as a 32-bit integer, saturating at INT32_MAX (as the
// platform's string-to-int conversion does).
std::int32_t parseInt32Saturating(std::string_view digits);

}  // namespace brivet::internal
