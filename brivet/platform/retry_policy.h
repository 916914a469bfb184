// RetryPolicy: how long a model waits before repeating a request that failed
// for a passing reason, and parsing the server's Retry-After.
//
// How many times a request is repeated is the model's own setting
// (`maxRetries`); this policy says how long to wait before each repeat:
//  * Without a Retry-After, retry n (1-based) waits the exponential backoff
//    d = min(maxDelay, baseDelay * 2^(n-1)), less a random share of it:
//    d * (1 - jitter * u) with u uniform in [0, 1), so that many clients
//    failing together do not come back together.
//  * With a usable Retry-After of R seconds (a 429 or 503 answer), the wait is
//    exactly R when R <= maxRetryAfter; a longer one is not waited for at all:
//    the failure is reported at once (the server has said a retry now is
//    pointless, and nobody wants an operation that hangs for an hour).
// Out-of-range settings are read as the nearest sensible value (negative
// delays as 0, jitter clamped to [0, 1], a `random` answer outside [0, 1) or
// NaN as 0). `timer` and `random` are seams for tests; empty means the
// process-wide steady-clock timer and a process-wide generator.
//
// Retry-After values come from outside (server headers, an application's own
// HTTP client): `parseRetryAfter` accepts a non-negative whole number of
// seconds (the header's text, surrounded by optional blanks, or a number) and
// ignores everything else, answering nothing; numbers beyond a year are capped
// there, so no later arithmetic can overflow.
//
// Thread safety: a value; read it from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "brivet/platform/object.h"
#include "brivet/platform/timer.h"

namespace brivet {

struct RetryPolicy {
  std::chrono::milliseconds baseDelay{200};
  std::chrono::milliseconds maxDelay{30000};
  std::chrono::milliseconds maxRetryAfter{60000};
  double jitter = 0.5;
  std::shared_ptr<Timer> timer;     // empty: Timer::system()
  std::function<double()> random;  // in [0, 1); empty: a process-wide generator

  // The wait before retry `retry` (1-based), or nothing when the server's
  // Retry-After asks for more than this policy waits.
  std::optional<std::chrono::milliseconds> delayBefore(std::int64_t retry,
                                                       std::optional<std::chrono::seconds> retryAfter) const;
  const std::shared_ptr<Timer>& timerOrSystem() const { return timer != nullptr ? timer : Timer::system(); }
};

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view text);
// A string as above, or a finite non-negative number of seconds (a fraction rounds up).
std::optional<std::chrono::seconds> parseRetryAfter(const Object& value);

}  // namespace brivet
