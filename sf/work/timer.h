// Timers that post messages to queues.
//
// One timer thread serves the process. It keeps the pending timers sorted by
// expiry and posts each due message to its queue, where ordinary workers take
// it. A one-shot timer posts once. A periodic timer posts the same message
// object once per interval: at each firing it sets the message's keep flag
// (so workers do not delete it) and re-arms itself under a new id, measured
// from the firing, so rmTimeout with the first id cancels it only before its
// first firing. Because the same object is posted again while a worker may
// still hold it, a periodic message must be treated as read-only by workers
// (enQ and deQ stamp its times).
//
// Times are (seconds, microseconds) of the monotonic uptime clock. Delays are
// added field by field with no carry of microseconds into seconds; the
// comparisons are field by field too, so ordering stays consistent.
//
// When a queue refuses a due message (full, quiescing, or no queue at all),
// the timer thread logs it at level 1; a one-shot message is then deleted, a
// periodic one stays with its re-armed timer and is offered again next time.
#pragma once

#include <cstdint>

namespace sf {

class MessageQ;
struct Message;

struct TimeoutId {
  std::uint32_t id;  // 0: no timer

  TimeoutId() : id(0) {}
  explicit TimeoutId(std::uint32_t id_) : id(id_) {}
  TimeoutId(const TimeoutId&) = default;
  TimeoutId& operator=(const TimeoutId&) = default;
  virtual ~TimeoutId() = default;

  bool isNull() const { return id == 0; }
  // True when the id names a timer (one that mkTimeout_rel or mkTimeout_per
  // made, pending or not).
  bool isSet() const { return id != 0; }
  // The same as isSet(), despite reading as its negation: hosts written
  // against this reading rely on it, so it stays. New code says isSet().
  bool operator!() const { return isSet(); }
};

// The two kinds of timer; _rel is relative (one-shot), _per periodic.
// Posts m to q once, after the delay. The timer owns m until then.
TimeoutId mkTimeout_rel(unsigned seconds, unsigned microseconds, MessageQ* q, Message* m);
// Posts m to q every interval, first after one interval.
TimeoutId mkTimeout_per(unsigned seconds, unsigned microseconds, MessageQ* q, Message* m);
// Cancels a pending timer and deletes its message. An id that is not pending
// (it fired already, or never existed) is logged at level 2 and ignored.
void rmTimeout(const TimeoutId& id);

// Starts the timer thread and registers the script commands sf_mkTmr and
// sf_rmTmr. The host calls it once, after sf::init. Later calls do nothing.
void initTimer();

}  // namespace sf
