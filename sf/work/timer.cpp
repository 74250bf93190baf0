// The timer list and the timer thread.
#include "sf/work/timer.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "sf/base/buffer.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/platform/clock.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/tickclock.h"
#include "sf/work/worker.h"

namespace sf {

namespace {

struct TimeVal {
  std::uint32_t sec;
  std::uint32_t usec;  // may exceed 999999: additions do not carry
};

// a strictly earlier than b, field by field.
bool earlier(const TimeVal& a, const TimeVal& b) {
  return a.sec < b.sec || (a.sec == b.sec && a.usec < b.usec);
}

struct Entry {
  TimeoutId id;
  TimeVal expiry;
  TimeVal period;  // (0, 0): one-shot
  MessageQ* queue;
  Message* message;  // owned until posted
};

struct TimerState {
  Mx mx;
  std::list<Entry> pending SF_GUARDED_BY(mx);   // sorted by expiry; equal expiries in making order
  std::uint32_t counter SF_GUARDED_BY(mx) = 0;  // last id given out
  Event wake;
  // The expiry the thread sleeps until; (0, 0) while it is awake, when it
  // looks at the list again before it sleeps.
  TimeVal sleepUntil SF_GUARDED_BY(mx){0, 0};
  // The system tick count is 32 bits of milliseconds and wraps after about
  // 49.7 days. The timer extends it to 64 bits (the thread looks at it at
  // least every 10 seconds), so that seconds stay monotonic for far longer
  // than any process lives and pending timers survive the wrap.
  TickExtender clock SF_GUARDED_BY(mx);
};

TimerState* g_timer = nullptr;
std::once_flag g_timerOnce;
std::once_flag g_threadOnce;

TimerState& timer() {
  std::call_once(g_timerOnce, [] { g_timer = new TimerState; });
  return *g_timer;
}

// Now, from the tick count.
TimeVal now(TimerState& t) SF_REQUIRES(t.mx) {
  std::uint64_t ms = t.clock.extend(platform::tick_count_ms());
  return TimeVal{static_cast<std::uint32_t>(ms / 1000),
                 static_cast<std::uint32_t>((ms % 1000) * 1000)};
}

// Enters a one-shot or periodic timer (mkTimeout_rel, mkTimeout_per, and
// the re-arming of a periodic one). Its level-4 line keeps the text
// "mkTimeout_gen(): inserted ..." that log readers know.
TimeoutId addTimer(unsigned seconds, unsigned microseconds, MessageQ* q, Message* m,
                   bool periodic) {
  TimerState& t = timer();
  std::uint32_t id;
  bool appended, wake;
  {
    MxLock guard(t.mx);
    id = ++t.counter;
    // Written only when it changes: a periodic message is being re-armed
    // while a worker may still be reading the copy posted last time.
    if (m && !m->isTimeout) m->isTimeout = true;
    Entry e;
    e.id = TimeoutId(id);
    e.period = periodic ? TimeVal{seconds, microseconds} : TimeVal{0, 0};
    TimeVal n = now(t);
    e.expiry = TimeVal{n.sec + seconds, n.usec + microseconds};
    e.queue = q;
    e.message = m;
    // Searched from the back: a new timer is usually the latest (a watchdog
    // or an idle timer re-armed for every message).
    auto it = t.pending.end();
    while (it != t.pending.begin() && earlier(e.expiry, std::prev(it)->expiry)) --it;
    appended = it == t.pending.end();
    wake = it == t.pending.begin() && earlier(e.expiry, t.sleepUntil);
    t.pending.insert(it, e);
  }
  // Logged outside the lock, which a script command may be waiting for while
  // it holds the interpreter lock that logging can need.
  if (appended)
    SF_LOG(4, "appended timeout %d to queue", static_cast<int>(id));
  else
    SF_LOG(4, "mkTimeout_gen(): inserted timeout %d into queue", static_cast<int>(id));
  // Only a timer due before the thread's planned wake-up needs it awake
  // earlier. Waking it for every timer would cost two thread switches for
  // each message a worker handles under its watchdog.
  if (wake) {
    SF_LOG(8, "signalling timeout queue");
    t.wake.notify();
  }
  return TimeoutId(id);
}

// Hands a due message to its queue. A refusal is not the producer's business
// (nobody waits for a timer's result), so it ends here: logged, and the
// one-shot message deleted. A periodic message belongs to its re-armed timer.
void post(const Entry& e) {
  bool periodic = e.period.sec != 0 || e.period.usec != 0;
  try {
    if (!e.queue) {
      SF_LOG(1, "timer %d has no queue, message dropped", static_cast<int>(e.id.id));
    } else {
      e.queue->enQ(e.message);
      return;
    }
  } catch (const X& x) {
    SF_LOG(1, "timer %d: queue %s refused message - %s", static_cast<int>(e.id.id), e.queue->name(),
           x.str().c_str());
  }
  if (!periodic) delete e.message;
}

void timerThread(void*) {
  TimerState& t = timer();
  // Level-8 lines noted while the timer lock is held are written once it is
  // released: logging may take the interpreter lock, and a script making a
  // timer holds that one while it waits for the timer lock.
  std::vector<std::string> chatter;
  auto note = [&](std::string line) {
    if (sfi_on(8)) chatter.push_back(std::move(line));
  };
  auto unlock = [&]() SF_RELEASE(t.mx) {
    t.mx.unlock();
    for (const std::string& line : chatter) SF_LOG(8, "%s", line.c_str());
    chatter.clear();
  };
  for (;;) {
    SF_LOG(8, "locking timer queue");
    t.mx.lock();
    TimeVal n = now(t);
    TimeVal next;
    if (!t.pending.empty()) {
      note("pending queue non-empty");
      next = t.pending.front().expiry;
    } else {
      note("pending queue empty");
      next = TimeVal{n.sec + 10, n.usec};
    }
    if (earlier(n, next)) {
      if (sfi_on(8))  // formatting costs more than the rest of a wake-up
        note(sfi_fmtlog("now %d.%d < next %d.%d, waiting for event/sleeping",
                        static_cast<int>(n.sec), static_cast<int>(n.usec),
                        static_cast<int>(next.sec), static_cast<int>(next.usec)));
      t.sleepUntil = next;
      unlock();
      // Whole seconds in milliseconds plus the microsecond difference,
      // borrowing a second when next's microseconds are below now's. Worked
      // out in 64 bits and capped, so a delay of more than 49 days does not
      // wrap into a short wait; the thread simply waits again.
      std::uint64_t ms;
      if (next.usec < n.usec)
        ms = (std::uint64_t(next.sec) - n.sec - 1) * 1000 + (next.usec + 1000000 - n.usec) / 1000;
      else
        ms = (std::uint64_t(next.sec) - n.sec) * 1000 + (next.usec - n.usec) / 1000;
      if (ms > 0xfffffffe) ms = 0xfffffffe;
      // The clock moves in whole milliseconds: a shorter wait would only
      // spin until the next tick.
      if (ms == 0) ms = 1;
      SF_LOG(8, "unlocking and waiting %d", static_cast<int>(ms));
      bool signalled = t.wake.wait_ms(static_cast<std::uint32_t>(ms));
      // 1: woken by a change to the list; 0: the time ran out.
      SF_LOG(8, "wait done status=%d..locking", signalled ? 1 : 0);
      t.mx.lock();
      t.sleepUntil = TimeVal{0, 0};
    }
    if (t.pending.empty()) {
      note("pending q empty...looping");
      unlock();
      continue;
    }
    n = now(t);
    if (!earlier(t.pending.front().expiry, n)) {
      unlock();
      continue;
    }
    Entry e = t.pending.front();
    t.pending.pop_front();
    unlock();
    SF_LOG(4, "timer %d due, popping front of queue", static_cast<int>(e.id.id));
    if (e.period.sec != 0 || e.period.usec != 0) {
      if (e.message && !e.message->keep) e.message->keep = true;
      addTimer(e.period.sec, e.period.usec, e.queue, e.message, true);
    }
    post(e);
  }
}

int sfi_cmd_sf_mkTmr(int argc, const char** argv) {
  if (argc < 3) return 1;
  int secondsArg = atoi(argv[2]);
  int microsArg = argc == 4 ? atoi(argv[3]) : 0;
  if (secondsArg < 0 || microsArg < 0) {
    SF_LOG(1, "sf_mkTmr: negative delay %d %d refused", secondsArg, microsArg);
    return 1;
  }
  MessageQ* q = getQ(argv[1]);
  unsigned seconds = static_cast<unsigned>(secondsArg);
  unsigned micros = static_cast<unsigned>(microsArg);
  Message* m = new Message;
  m->data = new Buffer;
  TimeoutId id = mkTimeout_rel(seconds, micros, q, m);
  printf("queued timer %d\n", static_cast<int>(id.id));
  fflush(stdout);
  return 0;
}

int sfi_cmd_sf_rmTmr(int argc, const char** argv) {
  if (argc < 2) return 1;
  rmTimeout(TimeoutId(static_cast<std::uint32_t>(atoi(argv[1]))));
  return 0;
}

}  // namespace

TimeoutId mkTimeout_rel(unsigned seconds, unsigned microseconds, MessageQ* q, Message* m) {
  return addTimer(seconds, microseconds, q, m, false);
}

TimeoutId mkTimeout_per(unsigned seconds, unsigned microseconds, MessageQ* q, Message* m) {
  return addTimer(seconds, microseconds, q, m, true);
}

void rmTimeout(const TimeoutId& id) {
  TimerState& t = timer();
  bool found = false;
  Message* m = nullptr;
  {
    MxLock guard(t.mx);
    for (auto it = t.pending.begin(); it != t.pending.end(); ++it) {
      if (it->id.id != id.id) continue;
      m = it->message;
      t.pending.erase(it);
      found = true;
      break;
    }
  }
  // Deleted outside the lock: releasing the message's connection may close
  // it, and a close posts notices to queues, which the timer lock must never
  // be held around.
  if (found) {
    // The thread is not woken: a removal never makes its next wake-up due
    // earlier (it finds nothing due and sleeps again).
    SF_LOG(4, "removed timeout %d", static_cast<int>(id.id));
    delete m;
  } else
    SF_LOG(2, "rmTimeout %d, timeout not found...expired simultaneously?", static_cast<int>(id.id));
}

void initTimer() {
  timer();
  std::call_once(g_threadOnce, [] {
    startThread(timerThread, nullptr);
    if (sfi_tclReady()) {
      exportProc("sf_mkTmr", sfi_cmd_sf_mkTmr);
      exportProc("sf_rmTmr", sfi_cmd_sf_rmTmr);
    } else {
      SF_LOG(1, "initTimer: no interpreter, sf_mkTmr and sf_rmTmr not registered");
    }
  });
}

}  // namespace sf
