// sf::Mx and sf::Event over the platform's primitives.
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/platform/sync.h"
#include "sf/platform/syserr.h"
#include "sf/runtime.h"
#include "sf/sferr.h"

namespace sf {

Mx* Mx::g_initLock = nullptr;

Mx::Mx(bool) : mutex_(platform::mutex_create()) {
  if (!mutex_) SF_THROW("i_Mutex", Xsys("CreateMutex"));
}

Mx::~Mx() {
  platform::mutex_destroy(mutex_);
  mutex_ = nullptr;
}

void Mx::lock() {
  static int site = 0;
  if (sfi_on(10))
    trace(__FILE__, &site, __LINE__, "lock", "",
          static_cast<long long>(platform::mutex_trace_value(mutex_)), 0, 0, 0);
  int rc = platform::mutex_lock(mutex_);
  if (rc != 0) {
    platform::set_last_error(rc);
    SF_THROW("Mx::lock", Xsys("WaitForSingleObject"));
  }
}

void Mx::unlock() {
  static int site = 0;
  if (sfi_on(10))
    trace(__FILE__, &site, __LINE__, "unlock", "",
          static_cast<long long>(platform::mutex_trace_value(mutex_)), 0, 0, 0);
  if (platform::mutex_unlock(mutex_) != 0) sf_fatal("ReleaseMutex");
}

bool Mx::ownedByCaller() const {
  return platform::mutex_owned_by_caller(mutex_);
}

Event::Event() : event_(platform::event_create()) {}

Event::~Event() {
  platform::event_destroy(event_);
  event_ = nullptr;
}

void Event::notify() {
  platform::event_notify(event_);
}

void Event::wait() {
  platform::event_wait(event_);
}

bool Event::wait_ms(std::uint32_t ms) {
  return platform::event_wait_ms(event_, ms);
}

}  // namespace sf
