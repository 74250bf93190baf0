// Readiness of many sockets at once, and a wake-up a waiting thread can be
// kicked with from another thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sf {
namespace platform {

// A set of descriptors waited on for readability. No limit on their number
// or value.
class PollSet {
 public:
  PollSet();
  ~PollSet();
  PollSet(const PollSet&) = delete;
  PollSet& operator=(const PollSet&) = delete;

  void clear();
  // Adds s unless it is already there; returns its slot.
  size_t add(std::uint64_t s);
  bool contains(std::uint64_t s) const;
  size_t size() const;
  // Waits at most timeout_ms (0: just look, -1: for ever). Returns the number
  // of ready descriptors, 0 on time-out, -1 on error (interrupts count as 0).
  int wait(int timeout_ms);
  // Readable (or closed, or in error) after the last wait.
  bool ready(std::uint64_t s) const;
  bool readySlot(size_t slot) const;
  // Forgets the readiness of s (it has been dealt with).
  void consume(std::uint64_t s);
  // Number of descriptors still ready and not consumed since the last wait.
  size_t readyLeft() const;

 private:
  struct Impl;
  Impl* impl_;
};

// A wake-up channel: notify() from any thread makes the descriptor readable
// until drain() is called by the waiting thread. Cheap to notify repeatedly.
class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  std::uint64_t fd() const;
  void notify();
  void drain();

 private:
  int fd_;
};

}  // namespace platform
}  // namespace sf
