// Queue hand-off: sf::MessageQ against a plain std::mutex +
// std::condition_variable + std::deque queue, 1 producer/1 consumer and
// 4 producers/4 consumers, in one run.
//
// Both queues are bounded the same way (1023 messages) and refuse instead of
// blocking when full; producers then yield and offer the message again, so
// the two run the same producer loop. Each message carries the steady-clock
// time at which it was offered; consumers record offer-to-take latency.
//
//   build/bin/msgq_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "sf/sflib.h"

namespace {

const int kCapacity = 1024;          // ring slots: 1023 messages
const int kMessagesPerRun = 200000;  // split across the producers

std::int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The baseline: what one would write with the standard library.
class StdQueue {
 public:
  bool tryPush(sf::Message* m) {
    {
      std::lock_guard<std::mutex> g(mx_);
      if (items_.size() >= kCapacity - 1) return false;
      items_.push_back(m);
    }
    cv_.notify_one();
    return true;
  }
  sf::Message* pop() {
    std::unique_lock<std::mutex> g(mx_);
    cv_.wait(g, [this] { return !items_.empty(); });
    sf::Message* m = items_.front();
    items_.pop_front();
    return m;
  }

 private:
  std::mutex mx_;
  std::condition_variable cv_;
  std::deque<sf::Message*> items_;
};

class SfQueue {
 public:
  SfQueue() : q_(kCapacity, "bench") {}
  bool tryPush(sf::Message* m) {
    try {
      q_.enQ(m);
      return true;
    } catch (const sf::Xstate&) {
      return false;
    }
  }
  sf::Message* pop() { return q_.deQ(); }

 private:
  sf::MessageQ q_;
};

double percentile(std::vector<std::int64_t>& v, double p) {
  if (v.empty()) return 0;
  size_t k = static_cast<size_t>(p * static_cast<double>(v.size() - 1));
  std::nth_element(v.begin(), v.begin() + k, v.end());
  return static_cast<double>(v[k]);
}

template <class Queue>
void BM_Handoff(benchmark::State& state) {
  const int producers = static_cast<int>(state.range(0));
  const int consumers = static_cast<int>(state.range(1));
  const int perProducer = kMessagesPerRun / producers;
  const int total = perProducer * producers;
  std::vector<sf::Message> messages(total + consumers);
  std::vector<std::int64_t> latencies;
  latencies.reserve(static_cast<size_t>(total) * 4);
  std::mutex latencyLock;

  for (auto _ : state) {
    Queue q;
    std::vector<std::thread> threads;
    for (int c = 0; c < consumers; ++c) {
      threads.emplace_back([&] {
        std::vector<std::int64_t> mine;
        mine.reserve(total / consumers + 1);
        for (;;) {
          sf::Message* m = q.pop();
          if (m->keep) break;  // stop token
          mine.push_back(nowNs() - m->createdAt);
        }
        std::lock_guard<std::mutex> g(latencyLock);
        latencies.insert(latencies.end(), mine.begin(), mine.end());
      });
    }
    std::vector<std::thread> makers;
    for (int p = 0; p < producers; ++p) {
      makers.emplace_back([&, p] {
        for (int i = 0; i < perProducer; ++i) {
          sf::Message* m = &messages[p * perProducer + i];
          m->keep = false;
          m->createdAt = nowNs();
          while (!q.tryPush(m)) std::this_thread::yield();
        }
      });
    }
    for (auto& t : makers) t.join();
    for (int c = 0; c < consumers; ++c) {
      sf::Message* stop = &messages[total + c];
      stop->keep = true;
      while (!q.tryPush(stop)) std::this_thread::yield();
    }
    for (auto& t : threads) t.join();
  }
  state.SetItemsProcessed(state.iterations() * total);
  state.counters["p50_us"] = percentile(latencies, 0.50) / 1000.0;
  state.counters["p99_us"] = percentile(latencies, 0.99) / 1000.0;
}

BENCHMARK_TEMPLATE(BM_Handoff, SfQueue)
    ->Args({1, 1})
    ->Args({4, 4})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_Handoff, StdQueue)
    ->Args({1, 1})
    ->Args({4, 4})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
