#include "brivet/platform/retry_policy.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "brivet/platform/mutex.h"

namespace brivet {

namespace {

constexpr std::int64_t kLongestRetryAfterSeconds = 365LL * 24 * 3600;

double processRandom() {
  static Mutex* mu = new Mutex;
  static std::mt19937_64* engine = new std::mt19937_64(std::random_device{}());
  MutexLock lock(*mu);
  return std::uniform_real_distribution<double>(0.0, 1.0)(*engine);
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

std::optional<std::chrono::milliseconds> RetryPolicy::delayBefore(std::int64_t retry,
                                                                  std::optional<std::chrono::seconds> retryAfter) const {
  using std::chrono::milliseconds;
  const milliseconds zero(0);
  if (retryAfter) {
    const milliseconds wanted = std::chrono::duration_cast<milliseconds>(*retryAfter);
    if (wanted > std::max(maxRetryAfter, zero)) return std::nullopt;
    return std::max(wanted, zero);
  }
  const milliseconds cap = std::max(maxDelay, zero);
  milliseconds d = std::min(std::max(baseDelay, zero), cap);
  // Doubling stops at the cap, so no retry count can overflow it.
  for (std::int64_t n = 1; n < retry && d < cap; ++n) d = d > cap / 2 ? cap : d * 2;
  double u = random ? random() : processRandom();
  if (!(u >= 0.0 && u < 1.0)) u = 0.0;
  const double share = std::clamp(std::isnan(jitter) ? 0.0 : jitter, 0.0, 1.0) * u;
  const double waited = static_cast<double>(d.count()) * (1.0 - share);
  return milliseconds(static_cast<milliseconds::rep>(waited));
}

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && isBlank(text[i])) ++i;
  const std::size_t digits = i;
  std::int64_t seconds = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    seconds = std::min(seconds * 10 + (text[i] - '0'), kLongestRetryAfterSeconds);
  }
  if (i == digits) return std::nullopt;
  while (i < text.size() && isBlank(text[i])) ++i;
  if (i != text.size()) return std::nullopt;  // a date, a sign, a fraction or anything else: not understood
  return std::chrono::seconds(seconds);
}

std::optional<std::chrono::seconds> parseRetryAfter(const Object& value) {
  if (value.isString()) return parseRetryAfter(value.stringValue());
  const Number* number = value.asNumber();
  if (number == nullptr || number->isBoolean()) return std::nullopt;
  const double seconds = number->doubleValue();
  if (!(seconds >= 0.0)) return std::nullopt;  // negative or NaN
  return std::chrono::seconds(static_cast<std::int64_t>(std::ceil(std::min(seconds, double(kLongestRetryAfterSeconds)))));
}

}  // namespace brivet
