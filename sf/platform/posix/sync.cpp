// POSIX implementation of the synchronisation primitives: a recursive
// pthread mutex, events built from a mutex, a condition variable and a flag
// on the monotonic clock, and semaphores on POSIX semaphores.
#include "sf/platform/sync.h"

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
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

// The primitive itself: the analysis sees the lock taken by its callers.
int mutex_lock(RecursiveMutex* m) SF_NO_THREAD_SAFETY_ANALYSIS {
  int rc = pthread_mutex_lock(&m->mx);
  if (rc == 0 && m->depth++ == 0) m->owner.store(pthread_self(), std::memory_order_relaxed);
  return rc;
}

int mutex_unlock(RecursiveMutex* m) SF_NO_THREAD_SAFETY_ANALYSIS {
  // A thread that does not hold the lock must not touch depth; the system
  // gives the same answer (EPERM) for a recursive mutex.
  if (!owned_by_caller(m)) return EPERM;
  if (--m->depth == 0) m->owner.store(pthread_t(), std::memory_order_relaxed);
  return pthread_mutex_unlock(&m->mx);
}

bool mutex_owned_by_caller(const RecursiveMutex* m) {
  return owned_by_caller(m);
}

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

void event_wait(AutoEvent* e) {
  event_wait_common(e, nullptr);
}

bool event_wait_ms(AutoEvent* e, std::uint32_t ms) {
  timespec deadline = deadline_after(ms);
  return event_wait_common(e, &deadline);
}

// A POSIX semaphore does the waiting: it takes no lock and makes a system
// call only to put a thread to sleep or to wake a sleeping one. It has no
// maximum, so the count that the maximum applies to is kept beside it: it
// goes up before the semaphore is posted and down after a wait took a post,
// so it is never below the semaphore's own value.
struct CountingSemaphore {
  sem_t sem;
  std::atomic<int> count;
  int maximum;
};

CountingSemaphore* semaphore_create(int initial, int maximum) {
  CountingSemaphore* s = new CountingSemaphore;
  sem_init(&s->sem, 0, static_cast<unsigned>(initial));
  s->count.store(initial);
  s->maximum = maximum;
  return s;
}

void semaphore_destroy(CountingSemaphore* s) {
  if (!s) return;
  sem_destroy(&s->sem);
  delete s;
}

bool semaphore_release(CountingSemaphore* s) {
  int c = s->count.load();
  do {
    if (c >= s->maximum) return false;
  } while (!s->count.compare_exchange_weak(c, c + 1));
  sem_post(&s->sem);
  return true;
}

void semaphore_wait(CountingSemaphore* s) {
  while (sem_wait(&s->sem) != 0) {
  }  // interrupted by a signal: wait again
  s->count.fetch_sub(1);
}

bool semaphore_wait_ms(CountingSemaphore* s, std::uint32_t ms) {
  int rc;
  if (ms == 0) {
    while ((rc = sem_trywait(&s->sem)) != 0 && errno == EINTR) {
    }
  } else {
    timespec deadline = deadline_after(ms);
    while ((rc = sem_clockwait(&s->sem, CLOCK_MONOTONIC, &deadline)) != 0 && errno == EINTR) {
    }
  }
  if (rc != 0) return false;
  s->count.fetch_sub(1);
  return true;
}

}  // namespace platform
}  // namespace sf
