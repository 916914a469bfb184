#include "brivet/platform/date.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace brivet {

Date dateNow() { return std::chrono::system_clock::now(); }

double timeIntervalSince1970(Date date) {
  return std::chrono::duration<double>(date.time_since_epoch()).count();
}

Date dateWithTimeIntervalSince1970(double seconds) {
  using Ticks = Date::duration;
  if (std::isnan(seconds)) return Date();
  const double ticksPerSecond = static_cast<double>(Ticks::period::den) / static_cast<double>(Ticks::period::num);
  const double ticks = seconds * ticksPerSecond;
  // Keep clear of the representable edge: converting a double at or beyond it is undefined.
  constexpr double kLimit = 9.2e18;
  if (ticks >= kLimit) return Date(Ticks(static_cast<Ticks::rep>(kLimit)));
  if (ticks <= -kLimit) return Date(Ticks(static_cast<Ticks::rep>(-kLimit)));
  return Date(Ticks(static_cast<Ticks::rep>(std::llround(ticks))));
}

std::string dateDescription(Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
  const auto t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d %02d:%02d:%02d +0000", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buffer;
}

}  // namespace brivet
