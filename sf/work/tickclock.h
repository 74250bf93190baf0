// The library's clocks: the timer's (the system's 32-bit millisecond tick,
// extended to 64 bits so that it never wraps in the life of a process), and
// the monotonic milliseconds the event loops keep their deadlines in.
#pragma once

#include <chrono>
#include <cstdint>

namespace sf {

inline std::int64_t monotonicMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Feed it every tick reading, in order and at least once per wrap period
// (about 49.7 days); a reading below the previous one means the counter
// wrapped. Not locked: the owner serialises the calls.
struct TickExtender {
  std::uint32_t last = 0;
  std::uint64_t high = 0;

  std::uint64_t extend(std::uint32_t tick) {
    if (tick < last) high += std::uint64_t(1) << 32;
    last = tick;
    return high + tick;
  }
};

}  // namespace sf
