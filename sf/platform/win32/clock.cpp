// Clocks and time texts on Windows.
#include "sf/platform/clock.h"

#include <windows.h>

namespace sf {
namespace platform {

std::uint32_t tick_count_ms() {
  return static_cast<std::uint32_t>(GetTickCount64());
}

void time_of_day(std::int64_t* seconds, std::int32_t* micros) {
  // 100-nanosecond intervals since 1601-01-01.
  const std::uint64_t kEpochOffset = 116444736000000000ull;
  FILETIME ft;
  GetSystemTimePreciseAsFileTime(&ft);
  std::uint64_t t = (static_cast<std::uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  std::uint64_t sinceEpoch = t - kEpochOffset;
  *seconds = static_cast<std::int64_t>(sinceEpoch / 10000000u);
  *micros = static_cast<std::int32_t>((sinceEpoch % 10000000u) / 10u);
}

std::string local_time_text(std::time_t t, const char* format) {
  struct tm parts;
  if (localtime_s(&parts, &t) != 0) return std::string();
  char buf[128];
  size_t n = strftime(buf, sizeof buf, format, &parts);
  return std::string(buf, n);
}

std::string ctime_text(std::time_t t) {
  char buf[64];
  if (ctime_s(buf, sizeof buf, &t) != 0) return "\n";
  return buf;
}

}  // namespace platform
}  // namespace sf
