// The disaster exit: sf_fatal.

#include "sf/base/dumpfile.h"
#include "sf/base/eventreport.h"
#include "sf/platform/clock.h"
#include "sf/platform/thread.h"
#include "sf/runtime.h"
#include "sf/sferr.h"

namespace sf {

namespace {

// A plain word: two threads failing at the same moment may both proceed,
// which is harmless because both end the process.
volatile bool g_inFatal = false;

void deadline(void*) {
  platform::sleep_ms(5000);
  platform::exit_now(0);
}

}  // namespace

void sf_fatal(const char* reason) {
  if (g_inFatal) platform::exit_now(1);
  g_inFatal = true;
  platform::start_thread(deadline, nullptr);
  // Nothing may carry the failing thread back into the code that failed: a
  // step that throws (a broken setting read by the reporter, say) is skipped.
  try {
    sfi_reportEventArg("16_sf_internalError_s", reason);
  } catch (...) {
  }
  try {
    sfi_writeDump(reason);
  } catch (...) {
  }
  try {
    shutdown();
  } catch (...) {
  }
  platform::exit_now(3);
}

}  // namespace sf
