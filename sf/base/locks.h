// Locks: sf::Mx, a recursive mutex, and sf::Event, an auto-reset event.
//
// Both hide the system handle behind one pointer so that public headers
// carry no platform types. An Mx is recursive for its owning thread (the
// library relies on that: the Tcl and log locks are re-entered) and is
// released only by the thread that took it; a failed release means the lock
// discipline is broken and ends the process through sf_fatal("ReleaseMutex").
#pragma once

#include <cstdint>

#include "sf/base/threadsafety.h"

namespace sf {

namespace platform {
struct RecursiveMutex;
struct AutoEvent;
}  // namespace platform

class SF_CAPABILITY("mutex") Mx {
 public:
  // Creates an unowned recursive mutex; throws Xsys("CreateMutex") when the
  // system cannot. The flag is accepted for compatibility and ignored.
  explicit Mx(bool ignored = false);
  ~Mx();
  // One owner per mutex: a copy would destroy it twice.
  Mx(const Mx&) = delete;
  Mx& operator=(const Mx&) = delete;

  // Waits without limit; throws Xsys("WaitForSingleObject") on failure.
  void lock() SF_ACQUIRE();
  // Releases one level; a release by a non-owner is fatal.
  void unlock() SF_RELEASE();

  // True when the calling thread holds this lock.
  bool ownedByCaller() const;

  // Guards the library's lazy one-time initialisations; created by sf::init.
  static Mx* g_initLock;

 private:
  platform::RecursiveMutex* mutex_;
};

// Holds an Mx for its scope, so that exceptions thrown while holding it
// release it.
class SF_SCOPED_CAPABILITY MxLock {
 public:
  explicit MxLock(Mx& mx) SF_ACQUIRE(mx) : mx_(&mx) { mx_->lock(); }
  explicit MxLock(Mx* mx) SF_ACQUIRE(mx) : mx_(mx) { mx_->lock(); }
  ~MxLock() SF_RELEASE() { mx_->unlock(); }
  MxLock(const MxLock&) = delete;
  MxLock& operator=(const MxLock&) = delete;

 private:
  Mx* mx_;
};

// An auto-reset event: notify() releases one waiter, or is remembered until
// the next wait() when nobody waits. Two notifies before a wait release one.
struct Event {
  Event();
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void notify();
  void wait();
  // Waits at most ms milliseconds; true if the event was signalled.
  bool wait_ms(std::uint32_t ms);

 private:
  platform::AutoEvent* event_;
};

}  // namespace sf
