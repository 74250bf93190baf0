// The disaster exits: sf_fatal and the dump file.
#include <cstdio>
#include <ctime>
#include <string>

#include "sf/base/events.h"
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

void sfi_writeDump(const char* reason) {
  std::string name = "dump_" + std::to_string(platform::process_id());
  FILE* f = fopen(name.c_str(), "wb");  // the same bytes on every system, as the log
  if (!f) {
    SF_LOG(1, "cannot write to dump file %s", name.c_str());
    return;
  }
  std::string when = platform::ctime_text(time(nullptr));
  fprintf(f, "dump file for process %d created at %s Reason for dump: %s\n\n",
          static_cast<int>(platform::process_id()), when.c_str(), reason);
  fclose(f);
}

void sf_fatal(const char* reason) {
  if (g_inFatal) platform::exit_now(1);
  g_inFatal = true;
  platform::start_thread(deadline, nullptr);
  // Nothing may carry the failing thread back into the code that failed: a
  // step that throws (a broken setting read by the reporter, say) is skipped.
  try {
    sfi_reportEvent1("16_sf_internalError_s", reason);
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
