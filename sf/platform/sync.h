// Synchronisation primitives of the operating system, behind opaque handles.
//
// This is the only interface through which code above sf/platform/ reaches
// the system's locks. Every function is thread-safe. Handles are created
// with the *_create functions and must be destroyed exactly once.
#pragma once

#include <cstdint>

#include "sf/base/threadsafety.h"

namespace sf {
namespace platform {

// A recursive mutex that knows its owner: unlock by a thread that does not
// hold it fails (returns a non-zero system error code) instead of corrupting
// the lock. Returns null when the system cannot create one (last_error() tells
// why).
struct SF_CAPABILITY("mutex") RecursiveMutex;
RecursiveMutex* mutex_create();
void mutex_destroy(RecursiveMutex* m);
// 0 or a system error code. The lock annotations take a call as taking or
// releasing the lock: a failure is a broken system, which callers throw on
// or end the process for.
int mutex_lock(RecursiveMutex* m) SF_ACQUIRE(m);
int mutex_unlock(RecursiveMutex* m) SF_RELEASE(m);  // EPERM: not the owner
// True when the calling thread holds m (at any depth).
bool mutex_owned_by_caller(const RecursiveMutex* m);
// Opaque value that identifies the mutex in trace records.
std::uint64_t mutex_trace_value(const RecursiveMutex* m);

// An auto-reset event: notify() releases one waiter, or is kept until the
// next wait if nobody waits. Two notifies before one wait release one wait.
struct AutoEvent;
AutoEvent* event_create();
void event_destroy(AutoEvent* e);
void event_notify(AutoEvent* e);
void event_wait(AutoEvent* e);
// Waits at most ms milliseconds; true if the event was signalled.
bool event_wait_ms(AutoEvent* e, std::uint32_t ms);

// A counting semaphore with a maximum count. release() fails (returns false,
// count unchanged) when it would pass the maximum.
struct CountingSemaphore;
CountingSemaphore* semaphore_create(int initial, int maximum);
void semaphore_destroy(CountingSemaphore* s);
bool semaphore_release(CountingSemaphore* s);
void semaphore_wait(CountingSemaphore* s);
// Waits at most ms milliseconds; true if a count was taken.
bool semaphore_wait_ms(CountingSemaphore* s, std::uint32_t ms);

}  // namespace platform
}  // namespace sf
