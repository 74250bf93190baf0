// Time sources.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace sf {
namespace platform {

// Milliseconds of a monotonic clock, truncated to 32 bits: it wraps after
// about 49.7 days, as callers comparing tick counts expect.
std::uint32_t tick_count_ms();

// Wall-clock time of day as seconds and microseconds since the epoch.
void time_of_day(std::int64_t* seconds, std::int32_t* micros);

// strftime of t in local time, thread-safe.
std::string local_time_text(std::time_t t, const char* format);

// The C library's fixed-form text of t ("Sun Nov 22 10:00:00 2026\n"),
// thread-safe.
std::string ctime_text(std::time_t t);

}  // namespace platform
}  // namespace sf
