// POSIX threads and process identity.
#include "sf/platform/thread.h"

#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace sf {
namespace platform {

bool start_thread(void (*fn)(void*), void* arg) {
  struct Start {
    void (*fn)(void*);
    void* arg;
  };
  Start* start = new Start{fn, arg};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t tid;
  int rc = pthread_create(
      &tid, &attr,
      [](void* p) -> void* {
        Start s = *static_cast<Start*>(p);
        delete static_cast<Start*>(p);
        s.fn(s.arg);
        return nullptr;
      },
      start);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete start;
    errno = rc;
    return false;
  }
  return true;
}

std::uint32_t thread_id() {
  static thread_local std::uint32_t id = static_cast<std::uint32_t>(syscall(SYS_gettid));
  return id;
}

std::uint32_t process_id() { return static_cast<std::uint32_t>(getpid()); }

void sleep_ms(std::uint32_t ms) {
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

void exit_now(int status) { _exit(status); }

}  // namespace platform
}  // namespace sf
