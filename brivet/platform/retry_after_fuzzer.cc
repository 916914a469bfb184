// Fuzzes the reading of a server's Retry-After (header text, or whatever an
// application's HTTP client put under "retryAfter") and the wait it leads to.
//
// Input: the text, read as it is and, when it is JSON, as the value it holds.
// Properties:
//   - text is accepted exactly when it is blanks, decimal digits, blanks; the
//     answer is its value capped at a year, never negative;
//   - a JSON value is accepted only as such a string or a non-negative number,
//     and also never answers more than a year;
//   - the wait a policy derives from any accepted value is never negative and
//     never longer than the policy's `maxRetryAfter`; backoff waits stay within
//     `maxDelay` for any retry number.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "brivet/platform/json.h"
#include "brivet/platform/retry_policy.h"

namespace {

constexpr std::int64_t kYear = 365LL * 24 * 3600;

void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "property failed: %s\n", what);
  std::abort();
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The decimal value of a well-formed text, capped at a year; nothing otherwise.
std::optional<std::int64_t> expected(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && isBlank(text[i])) ++i;
  const std::size_t start = i;
  std::int64_t value = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    value = value >= kYear ? kYear : value * 10 + (text[i] - '0');
    ++i;
  }
  if (i == start) return std::nullopt;
  while (i < text.size() && isBlank(text[i])) ++i;
  if (i != text.size()) return std::nullopt;
  return value > kYear ? kYear : value;
}

void checkWait(const std::optional<std::chrono::seconds>& retryAfter, std::int64_t retry) {
  brivet::RetryPolicy policy;
  policy.random = [] { return 0.25; };
  const std::optional<std::chrono::milliseconds> wait = policy.delayBefore(retry, retryAfter);
  if (retryAfter) {
    check(!wait || (wait->count() >= 0 && *wait <= policy.maxRetryAfter), "a Retry-After wait is out of bounds");
  } else {
    check(wait && wait->count() >= 0 && *wait <= policy.maxDelay, "a backoff wait is out of bounds");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::optional<std::chrono::seconds> parsed = brivet::parseRetryAfter(text);
  const std::optional<std::int64_t> want = expected(text);
  check(parsed.has_value() == want.has_value(), "accepted a malformed text or refused a good one");
  if (parsed) check(parsed->count() == *want, "read the wrong number of seconds");

  std::int64_t retry = 1;
  for (std::size_t i = 0; i < size && i < 8; ++i) retry = retry * 31 + data[i];
  checkWait(parsed, retry < 0 ? -retry : retry);

  brivet::Result<brivet::Object> json = brivet::parseJSON(text, brivet::JSONReadingOptions::FragmentsAllowed);
  if (json.ok()) {
    const std::optional<std::chrono::seconds> fromValue = brivet::parseRetryAfter(json.value());
    if (fromValue) {
      check(fromValue->count() >= 0 && fromValue->count() <= kYear, "a value's seconds are out of range");
      check(json.value().isString() || json.value().asNumber() != nullptr, "accepted a value of the wrong kind");
    }
    checkWait(fromValue, 1);
  }
  return 0;
}
