// POSIX threads and process identity.
#include "sf/platform/thread.h"

#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace sf {
namespace platform {

unsigned cpu_count() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
    return static_cast<unsigned>(CPU_COUNT(&set));
  long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<unsigned>(n) : 1;
}

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

std::uint32_t process_id() {
  return static_cast<std::uint32_t>(getpid());
}

void sleep_ms(std::uint32_t ms) {
  timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SF_SANITIZER_RUNTIME 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SF_SANITIZER_RUNTIME 1
#endif
#endif

#ifdef SF_SANITIZER_RUNTIME
extern "C" void __sanitizer_print_stack_trace();
void print_stack_trace() {
  __sanitizer_print_stack_trace();
}
#else
void print_stack_trace() {
  void* frames[64];
  int n = backtrace(frames, 64);
  backtrace_symbols_fd(frames, n, STDERR_FILENO);
}
#endif

void exit_now(int status) {
  _exit(status);
}

}  // namespace platform
}  // namespace sf
