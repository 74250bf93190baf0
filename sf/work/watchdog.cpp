// The watchdog thread and the per-thread watchdog timer.
#include "sf/work/watchdog.h"

#include <atomic>

#include "sf/base/dumpfile.h"
#include "sf/base/eventreport.h"
#include "sf/base/log.h"
#include "sf/platform/thread.h"
#include "sf/runtime.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/timer.h"
#include "sf/work/worker.h"

namespace sf {

namespace {

// Made by watchdog_init; null while the watchdog is off.
std::atomic<MessageQ*> g_watchdogQ{nullptr};

// How long the dump, shutdown and report may take before the process ends
// anyway: a hung worker may hold the interpreter or log lock they need.
const std::uint32_t kFiringDeadlineMs = 5000;

void firingDeadline(void*) {
  platform::sleep_ms(kFiringDeadlineMs);
  platform::exit_now(1);
}

void watchdogThread(void*) {
  // Only an expired watchdog timer ever posts here.
  g_watchdogQ.load()->deQ();
  startThread(firingDeadline, nullptr);
  // Each step may fail (a shutdown step, a broken message catalogue); the
  // process ends with status 1 all the same.
  try {
    sfi_writeDump("watchdog shutdown");
    shutdown();
  } catch (...) {
  }
  try {
    SF_EVENT("06_sf_watchdog_s", "");
  } catch (...) {
  }
  platform::exit_now(1);
}

const int kDefaultTimeout = 300;

// sf.watchdog, kept current by a variable trace from start-up on: every
// message arms the watchdog, and reading the variable would take the Tcl lock
// each time.
std::atomic<int> g_timeoutSeconds{kDefaultTimeout};

}  // namespace

void watchdog_init() {
  if (getVarInt("sf.watchdog", kDefaultTimeout) < 1) {
    SF_LOG(5, "not starting watchdog thread, timeout is 0.");
    return;
  }
  SF_LOG(5, "starting watchdog thread.");
  if (g_watchdogQ.load()) return;  // already running
  sfi_traceVarInt("sf.watchdog", kDefaultTimeout, g_timeoutSeconds);
  g_watchdogQ.store(new MessageQ(10, "watchdog"));
  startThread(watchdogThread, nullptr);
}

void watchdog_set() {
  // A queue that was never made means the watchdog was off at start-up: a
  // later positive sf.watchdog does not turn it on.
  MessageQ* q = g_watchdogQ.load();
  if (!q) return;
  int timeout = g_timeoutSeconds.load(std::memory_order_relaxed);
  if (timeout < 1) return;
  TransactionContext* ctx = getContext();
  if (ctx->watchdog) {
    sfi_log(0, 1, "attempted to set watchdog when already set", __FILE__, __LINE__, 0);
    return;
  }
  ctx->watchdog = new TimeoutId(mkTimeout_rel(static_cast<unsigned>(timeout), 0, q, new Message));
  SF_LOG(8, "watchdog set");
}

void watchdog_clr() {
  TransactionContext* ctx = getContext();
  if (!ctx->watchdog) return;
  rmTimeout(*ctx->watchdog);
  delete ctx->watchdog;
  ctx->watchdog = nullptr;
  SF_LOG(8, "watchdog cleared");
}

void watchdog_ok() {
  watchdog_clr();
  watchdog_set();
}

}  // namespace sf
