// Stop signals through a blocked mask and sigwait.
#include "sf/platform/signals.h"

#include <signal.h>

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
