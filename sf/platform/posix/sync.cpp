// POSIX implementation of the synchronisation primitives: a recursive
// pthread mutex, and events and semaphores built from a mutex, a condition
// variable and a counter on the monotonic clock.
#include "sf/platform/sync.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <new>

namespace sf {
namespace platform {

struct RecursiveMutex {
  pthread_mutex_t mx;
  std::atomic<pthread_t> owner;  // meaningful only while depth > 0
  int depth;                     // touched only by the owning thread
};

static bool owned_by_caller(const RecursiveMutex* m) {
  return pthread_equal(m->owner.load(std::memory_order_relaxed), pthread_self());
}

RecursiveMutex* mutex_create() {
  RecursiveMutex* m = new (std::nothrow) RecursiveMutex;
  if (!m) {
    errno = ENOMEM;
    return nullptr;
  }
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  int rc = pthread_mutex_init(&m->mx, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) {
    delete m;
    errno = rc;
    return nullptr;
  }
  m->depth = 0;
  m->owner.store(pthread_t(), std::memory_order_relaxed);
  return m;
}

void mutex_destroy(RecursiveMutex* m) {
  if (!m) return;
  pthread_mutex_destroy(&m->mx);
  delete m;
}

int mutex_lock(RecursiveMutex* m) {
  int rc = pthread_mutex_lock(&m->mx);
  if (rc == 0 && m->depth++ == 0) m->owner.store(pthread_self(), std::memory_order_relaxed);
  return rc;
}

int mutex_unlock(RecursiveMutex* m) {
  // A thread that does not hold the lock must not touch depth; the system
  // gives the same answer (EPERM) for a recursive mutex.
  if (!owned_by_caller(m)) return EPERM;
  if (--m->depth == 0) m->owner.store(pthread_t(), std::memory_order_relaxed);
  return pthread_mutex_unlock(&m->mx);
}

bool mutex_owned_by_caller(const RecursiveMutex* m) { return owned_by_caller(m); }

std::uint64_t mutex_trace_value(const RecursiveMutex* m) {
  return reinterpret_cast<std::uintptr_t>(m);
}

namespace {

void init_monotonic_cond(pthread_cond_t* cv) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(cv, &attr);
  pthread_condattr_destroy(&attr);
}

timespec deadline_after(std::uint32_t ms) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += ms / 1000;
  ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  return ts;
}

// Waits on cv until ready() or the deadline; returns ready().
template <typename Ready>
bool wait_until(pthread_cond_t* cv, pthread_mutex_t* mx, const timespec* deadline, Ready ready) {
  while (!ready()) {
    if (!deadline) {
      pthread_cond_wait(cv, mx);
    } else if (pthread_cond_timedwait(cv, mx, deadline) == ETIMEDOUT) {
      return ready();
    }
  }
  return true;
}

}  // namespace

struct AutoEvent {
  pthread_mutex_t mx;
  pthread_cond_t cv;
  bool signalled;
};

AutoEvent* event_create() {
  AutoEvent* e = new AutoEvent;
  pthread_mutex_init(&e->mx, nullptr);
  init_monotonic_cond(&e->cv);
  e->signalled = false;
  return e;
}

void event_destroy(AutoEvent* e) {
  if (!e) return;
  pthread_cond_destroy(&e->cv);
  pthread_mutex_destroy(&e->mx);
  delete e;
}

void event_notify(AutoEvent* e) {
  pthread_mutex_lock(&e->mx);
  e->signalled = true;
  pthread_cond_signal(&e->cv);
  pthread_mutex_unlock(&e->mx);
}

static bool event_wait_common(AutoEvent* e, const timespec* deadline) {
  pthread_mutex_lock(&e->mx);
  bool got = wait_until(&e->cv, &e->mx, deadline, [e] { return e->signalled; });
  if (got) e->signalled = false;  // auto-reset: one wait consumes the signal
  pthread_mutex_unlock(&e->mx);
  return got;
}

void event_wait(AutoEvent* e) { event_wait_common(e, nullptr); }

bool event_wait_ms(AutoEvent* e, std::uint32_t ms) {
  timespec deadline = deadline_after(ms);
  return event_wait_common(e, &deadline);
}

struct CountingSemaphore {
  pthread_mutex_t mx;
  pthread_cond_t cv;
  int count;
  int maximum;
};

CountingSemaphore* semaphore_create(int initial, int maximum) {
  CountingSemaphore* s = new CountingSemaphore;
  pthread_mutex_init(&s->mx, nullptr);
  init_monotonic_cond(&s->cv);
  s->count = initial;
  s->maximum = maximum;
  return s;
}

void semaphore_destroy(CountingSemaphore* s) {
  if (!s) return;
  pthread_cond_destroy(&s->cv);
  pthread_mutex_destroy(&s->mx);
  delete s;
}

bool semaphore_release(CountingSemaphore* s) {
  pthread_mutex_lock(&s->mx);
  bool ok = s->count < s->maximum;
  if (ok) {
    ++s->count;
    pthread_cond_signal(&s->cv);
  }
  pthread_mutex_unlock(&s->mx);
  return ok;
}

static bool semaphore_wait_common(CountingSemaphore* s, const timespec* deadline) {
  pthread_mutex_lock(&s->mx);
  bool got = wait_until(&s->cv, &s->mx, deadline, [s] { return s->count > 0; });
  if (got) --s->count;
  pthread_mutex_unlock(&s->mx);
  return got;
}

void semaphore_wait(CountingSemaphore* s) { semaphore_wait_common(s, nullptr); }

bool semaphore_wait_ms(CountingSemaphore* s, std::uint32_t ms) {
  timespec deadline = deadline_after(ms);
  return semaphore_wait_common(s, &deadline);
}

}  // namespace platform
}  // namespace sf
