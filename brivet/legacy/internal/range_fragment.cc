#include "brivet/legacy/internal/range_fragment.h"

#include <cstdint>

namespace brivet::internal {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// "@range(" in any letter case at `at`.
bool opensRange(std::string_view text, std::size_t at) {
  static constexpr std::string_view kOpen = "@range(";
  if (text.size() - at < kOpen.size()) return false;
  for (std::size_t i = 0; i < kOpen.size(); ++i) {
    if (lower(text[at + i]) != kOpen[i]) return false;
  }
  return true;
}

// One or more digits from `at`; answers the end of the run (== at when none).
std::size_t digitsEnd(std::string_view text, std::size_t at) {
  while (at < text.size() && isDigit(text[at])) ++at;
  return at;
}

std::optional<RangeFragmentMatch> matchAt(std::string_view text, std::size_t at) {
  if (!opensRange(text, at)) return std::nullopt;
  const std::size_t fromBegin = at + 7;
  const std::size_t fromEnd = digitsEnd(text, fromBegin);
  if (fromEnd == fromBegin || fromEnd >= text.size() || text[fromEnd] != ',') return std::nullopt;
  const std::size_t toBegin = fromEnd + 1;
  const std::size_t toEnd = digitsEnd(text, toBegin);
  if (toEnd == toBegin || toEnd >= text.size() || text[toEnd] != ')') return std::nullopt;
  return RangeFragmentMatch{text.substr(fromBegin, fromEnd - fromBegin), text.substr(toBegin, toEnd - toBegin)};
}

}  // namespace

std::optional<RangeFragmentMatch> matchRangeFragment(std::string_view text, bool anchored) {
  if (anchored) return matchAt(text, 0);
  for (std::size_t at = text.find('@'); at != std::string_view::npos; at = text.find('@', at + 1)) {
    if (auto match = matchAt(text, at)) return match;
  }
  return std::nullopt;
}

std::int32_t parseInt32Saturating(std::string_view digits) {
  std::int64_t value = 0;
  for (char c : digits) {
    if (!isDigit(c)) break;
    value = value * 10 + (c - '0');
    if (value > INT32_MAX) return INT32_MAX;
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace brivet::internal
