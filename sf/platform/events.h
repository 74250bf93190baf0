// Readiness of many descriptors at once, at a cost per wait in proportion to
// the descriptors that are ready, and a wake-up that another thread can kick
// a waiting thread with.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sf {
namespace platform {

// A set of descriptors watched for readability (a peer's close or an error
// counts as readable). Each descriptor is added with a key that wait()
// reports back. No limit on the number or value of descriptors.
class EventSet {
 public:
  // How a descriptor is watched.
  enum Mode {
    Level,      // reported by every wait while it stays readable
    Edge,       // reported when bytes arrive; after a report, reported again
                // only for bytes that arrive once the owner has read it empty
                // and said so with drained()
    Exclusive,  // as Level, but of several sets watching it only one is woken
                // (a listening socket that several threads accept on)
  };

  EventSet();
  ~EventSet();
  EventSet(const EventSet&) = delete;
  EventSet& operator=(const EventSet&) = delete;

  // 0 on success, -1 with last_error() set.
  int add(std::uint64_t s, std::uint64_t key, Mode mode);
  // Says that a descriptor added with Edge was read until it had nothing
  // more: bytes that arrive from now on are reported.
  int drained(std::uint64_t s, std::uint64_t key);
  int remove(std::uint64_t s);
  // With on, s (added with mode) is also reported when it can be written
  // (Ready::writable): a connect begun without waiting has then ended, one
  // way or the other. Without, it is reported for reading only again.
  int watchWrite(std::uint64_t s, std::uint64_t key, Mode mode, bool on);

  // A ready descriptor.
  struct Ready {
    std::uint64_t key;
    // The peer has closed its side, or the connection failed: an Edge
    // descriptor will not be reported again for that, so a short read from
    // it does not mean that it has nothing more (the close is still to come).
    bool hangup;
    bool writable;  // asked for with watchWrite
  };

  // Waits at most timeout_ms (0: just look, -1: for ever) and stores up to
  // max ready descriptors. Returns their number, 0 on time-out or interrupt,
  // -1 on error.
  int wait(Ready* ready, int max, int timeout_ms);

 private:
  struct State;  // the system's watch list
  State* state_;
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
  std::uint64_t fd_;
};

}  // namespace platform
}  // namespace sf
