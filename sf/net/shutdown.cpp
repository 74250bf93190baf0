// Orderly shutdown of the network side.
#include <atomic>
#include <vector>

#include "sf/base/log.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/net/shutdown.h"
#include "sf/runtime.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/work/msgq.h"
#include "sf/work/worker.h"

namespace sf {

namespace {
std::atomic<bool> g_shuttingDown{false};

void collect(const std::string&, i_Port* port, void* arg) {
  static_cast<std::vector<i_Port*>*>(arg)->push_back(port);
}

// Waits until every shared port's reader has closed its socket, then until
// the queues are empty.
void waitForReadersAndQueues() {
  std::vector<i_Port*> ports;
  sfi_forEachSharedPort(collect, &ports);
  for (i_Port* p : ports) {
    SF_LOG(4, "About to wait on port with fd %llu", static_cast<unsigned long long>(p->fd.load()));
    // The readers close the socket as soon as they stop accepting, and
    // notify once they have answered what they received; a port already
    // closed with no reader left (an earlier shutdown) is not waited for.
    while (p->fd.load() != INVALID_SOCK || p->readerRunning.load()) {
      if (p->closed.wait_ms(1000)) break;
    }
  }
  MessageQ::quiesceAll();
}

struct Stopper {
  void (*then)();
};

void stopperThread(void* arg) {
  Stopper stopper = *static_cast<Stopper*>(arg);
  delete static_cast<Stopper*>(arg);
  waitForReadersAndQueues();
  if (stopper.then) stopper.then();
}
}  // namespace

bool sfi_shuttingDown() {
  return g_shuttingDown.load();
}

void sfi_shutdown(void (*then)()) {
  SF_LOG(3, "shutdown - about to close ports.");
  // First the flag: a script thread whose port is closed here before its
  // reader took it ends at once, and must see a shutdown, not a thread lost
  // out of configuration (which is fatal).
  g_shuttingDown.store(true);
  sfi_closeUnusedSharedPorts();
  sfi_wakeAllReaders();

  // Readers and workers may need the interpreter (accept actions, validate
  // scripts, worker scripts) before they stop. A caller that holds it, as
  // every script command does, would wait for them while they wait for it;
  // and releasing it inside the caller's unfinished evaluation would let
  // them corrupt that evaluation. Such a caller hands the waiting to a
  // thread of its own and returns.
  if (sfi_tclHeldByCaller()) {
    startThread(stopperThread, new Stopper{then});
    return;
  }
  waitForReadersAndQueues();
  if (then) then();
}

void shutdown() {
  sfi_shutdown(nullptr);
}

}  // namespace sf
