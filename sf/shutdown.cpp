// Orderly shutdown of the network side.
#include <atomic>
#include <vector>

#include "sf/detail/net.h"
#include "sf/msgq.h"
#include "sf/runtime.h"
#include "sf/sflib.h"
#include "sf/tcl.h"

namespace sf {

namespace {
std::atomic<bool> g_shuttingDown{false};

void collect(const std::string&, i_Port* port, void* arg) {
  static_cast<std::vector<i_Port*>*>(arg)->push_back(port);
}
}  // namespace

bool sfi_shuttingDown() {
  return g_shuttingDown.load();
}

void shutdown() {
  SF_LOG(3, "shutdown - about to close ports.");
  sfi_closeUnusedSharedPorts();
  g_shuttingDown.store(true);
  sfi_wakeAllReaders();

  // The readers may need the interpreter (accept actions, validate scripts)
  // before they notice the stop: never wait while holding it. A caller inside
  // a script command holds it, possibly several levels deep.
  int depth = sfi_tclReady() ? sfi_tclLock().releaseAll() : 0;
  std::vector<i_Port*> ports;
  sfi_forEachSharedPort(collect, &ports);
  for (i_Port* p : ports) {
    SF_LOG(4, "About to wait on port with fd %llu", static_cast<unsigned long long>(p->fd.load()));
    // The reader closes the socket and then notifies; a port already closed
    // (an earlier shutdown) is not waited for again.
    while (p->fd.load() != INVALID_SOCK) {
      if (p->closed.wait_ms(1000)) break;
    }
  }
  if (depth) sfi_tclLock().relock(depth);
  MessageQ::quiesceAll();
}

}  // namespace sf
