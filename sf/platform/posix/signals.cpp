// Stop signals through a blocked mask and sigwait.
#include "sf/platform/signals.h"

#include <signal.h>
#include <time.h>

namespace sf {
namespace platform {

namespace {
sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}
}  // namespace

void block_stop_signals() {
  sigset_t set = stopSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int wait_stop_signal() {
  sigset_t set = stopSet();
  for (;;) {
    int sig = 0;
    if (sigwait(&set, &sig) == 0) return sig;
  }
}

int wait_stop_signal_ms(unsigned ms) {
  sigset_t set = stopSet();
  timespec ts;
  ts.tv_sec = ms / 1000;
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  int sig = sigtimedwait(&set, nullptr, &ts);
  return sig > 0 ? sig : 0;
}

const char* signal_name(int sig) {
  switch (sig) {
    case SIGTERM:
      return "SIGTERM";
    case SIGINT:
      return "SIGINT";
    default:
      return "signal";
  }
}

}  // namespace platform
}  // namespace sf
