// Dates: points in time on the system clock.
//
// Conversions to and from seconds since 1 January 1970 UTC clamp values that
// lie outside the clock's range (and map NaN to the epoch), so a number read
// from a server can never overflow a conversion.
#pragma once

#include <chrono>
#include <string>

namespace brivet {

using Date = std::chrono::system_clock::time_point;

Date dateNow();
double timeIntervalSince1970(Date date);
Date dateWithTimeIntervalSince1970(double seconds);
// "2026-11-22 03:17:00 +0000"
std::string dateDescription(Date date);

}  // namespace brivet
