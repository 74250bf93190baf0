// Clocks and time texts.
#include "sf/platform/clock.h"

#include <sys/time.h>
#include <time.h>

namespace sf {
namespace platform {

std::uint32_t tick_count_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  std::uint64_t ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u + ts.tv_nsec / 1000000;
  return static_cast<std::uint32_t>(ms);
}

void time_of_day(std::int64_t* seconds, std::int32_t* micros) {
  timeval tv;
  gettimeofday(&tv, nullptr);
  *seconds = tv.tv_sec;
  *micros = static_cast<std::int32_t>(tv.tv_usec);
}

std::string local_time_text(std::time_t t, const char* format) {
  struct tm parts;
  localtime_r(&t, &parts);
  char buf[128];
  size_t n = strftime(buf, sizeof buf, format, &parts);
  return std::string(buf, n);
}

std::string ctime_text(std::time_t t) {
  char buf[64];
  if (!ctime_r(&t, buf)) return "\n";
  return buf;
}

}  // namespace platform
}  // namespace sf
