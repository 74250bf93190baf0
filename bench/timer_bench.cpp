// Timer lateness: 1000 one-shot timers with delays spread over one second,
// all posting to one queue; a consumer takes each message as it arrives and
// records when it arrived against when it was due. Lateness is what a worker
// sees: the timer's tick resolution (expiry must be strictly passed), the
// timer thread's wake-up and the queue hand-off.
//
//   build/bin/timer_bench
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

#include "sf/sflib.h"

namespace {

const int kTimers = 1000;

std::int64_t nowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

double percentile(std::vector<std::int64_t> v, double p) {
  size_t k = static_cast<size_t>(p * static_cast<double>(v.size() - 1));
  std::nth_element(v.begin(), v.begin() + k, v.end());
  return static_cast<double>(v[k]);
}

void BM_TimerLateness(benchmark::State& state) {
  sf::initTimer();
  sf::MessageQ q(kTimers + 1, "timers");
  std::vector<std::int64_t> lateness;  // over all iterations
  for (auto _ : state) {
    for (int i = 0; i < kTimers; ++i) {
      // Spread over [0, 1 s) in steps of 997 us, so due times do not line up
      // with tick boundaries.
      unsigned delayUs = static_cast<unsigned>((i * 997) % 1000000);
      sf::Message* m = new sf::Message;
      m->createdAt = nowUs() + delayUs;  // due time
      sf::mkTimeout_rel(delayUs / 1000000, delayUs % 1000000, &q, m);
    }
    for (int i = 0; i < kTimers; ++i) {
      sf::Message* m = q.deQ();
      lateness.push_back(nowUs() - m->createdAt);
      delete m;
    }
  }
  // Delays are added without carrying microseconds into seconds, so a timer
  // whose microsecond sum passes one second fires at the next second
  // boundary, before its due time. Count those apart.
  std::vector<std::int64_t> onTime;
  int early = 0;
  for (std::int64_t l : lateness) {
    if (l < -1000)
      ++early;
    else
      onTime.push_back(l);
  }
  state.counters["early"] = early / static_cast<double>(state.iterations());
  if (!onTime.empty()) {
    state.counters["ontime_p50_ms"] = percentile(onTime, 0.50) / 1000.0;
    state.counters["ontime_p99_ms"] = percentile(onTime, 0.99) / 1000.0;
  }
  state.counters["p50_ms"] = percentile(lateness, 0.50) / 1000.0;
  state.counters["p99_ms"] = percentile(lateness, 0.99) / 1000.0;
  state.counters["max_ms"] = percentile(lateness, 1.0) / 1000.0;
  state.counters["min_ms"] = percentile(lateness, 0.0) / 1000.0;
}

BENCHMARK(BM_TimerLateness)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
