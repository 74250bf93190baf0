// Windows implementation of the synchronisation primitives. The recursive
// mutex is a slim reader/writer lock with its owner and depth kept beside it
// (a kernel mutex would cost a system call per lock); events and semaphores
// are the kernel's own, which have exactly the semantics asked for.
#include "sf/platform/sync.h"

#include <windows.h>

#include <atomic>
#include <new>

namespace sf {
namespace platform {

struct RecursiveMutex {
  SRWLOCK lock;
  std::atomic<DWORD> owner;  // thread id while held, 0 otherwise
  int depth;                 // touched only by the owning thread
};

RecursiveMutex* mutex_create() {
  RecursiveMutex* m = new (std::nothrow) RecursiveMutex;
  if (!m) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  InitializeSRWLock(&m->lock);
  m->owner.store(0, std::memory_order_relaxed);
  m->depth = 0;
  return m;
}

void mutex_destroy(RecursiveMutex* m) {
  delete m;
}

// The primitive itself: the analysis sees the lock taken by its callers.
int mutex_lock(RecursiveMutex* m) SF_NO_THREAD_SAFETY_ANALYSIS {
  DWORD self = GetCurrentThreadId();
  if (m->owner.load(std::memory_order_relaxed) != self) {
    AcquireSRWLockExclusive(&m->lock);
    m->owner.store(self, std::memory_order_relaxed);
  }
  ++m->depth;
  return 0;
}

int mutex_unlock(RecursiveMutex* m) SF_NO_THREAD_SAFETY_ANALYSIS {
  if (m->owner.load(std::memory_order_relaxed) != GetCurrentThreadId()) return ERROR_NOT_OWNER;
  if (--m->depth == 0) {
    m->owner.store(0, std::memory_order_relaxed);
    ReleaseSRWLockExclusive(&m->lock);
  }
  return 0;
}

bool mutex_owned_by_caller(const RecursiveMutex* m) {
  return m->owner.load(std::memory_order_relaxed) == GetCurrentThreadId();
}

std::uint64_t mutex_trace_value(const RecursiveMutex* m) {
  return reinterpret_cast<std::uintptr_t>(m);
}

struct AutoEvent {
  HANDLE handle;
};

AutoEvent* event_create() {
  HANDLE h = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  return h ? new AutoEvent{h} : nullptr;
}

void event_destroy(AutoEvent* e) {
  if (!e) return;
  CloseHandle(e->handle);
  delete e;
}

void event_notify(AutoEvent* e) {
  SetEvent(e->handle);
}

void event_wait(AutoEvent* e) {
  WaitForSingleObject(e->handle, INFINITE);
}

bool event_wait_ms(AutoEvent* e, std::uint32_t ms) {
  return WaitForSingleObject(e->handle, ms) == WAIT_OBJECT_0;
}

struct CountingSemaphore {
  HANDLE handle;
};

CountingSemaphore* semaphore_create(int initial, int maximum) {
  HANDLE h = CreateSemaphoreA(nullptr, initial, maximum, nullptr);
  return h ? new CountingSemaphore{h} : nullptr;
}

void semaphore_destroy(CountingSemaphore* s) {
  if (!s) return;
  CloseHandle(s->handle);
  delete s;
}

bool semaphore_release(CountingSemaphore* s) {
  return ReleaseSemaphore(s->handle, 1, nullptr) != 0;
}

void semaphore_wait(CountingSemaphore* s) {
  WaitForSingleObject(s->handle, INFINITE);
}

bool semaphore_wait_ms(CountingSemaphore* s, std::uint32_t ms) {
  return WaitForSingleObject(s->handle, ms) == WAIT_OBJECT_0;
}

}  // namespace platform
}  // namespace sf
