// Starting threads and naming them.
#include <cstdio>
#include <string>

#include "sf/base/log.h"
#include "sf/platform/thread.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/work/worker.h"

namespace sf {

namespace {

struct ThreadStart {
  void (*fn)(void*);
  void* arg;
};

// Every library thread ends here, so its share of the interpreter's
// per-thread data is released when it returns.
void runThread(void* p) {
  ThreadStart start = *static_cast<ThreadStart*>(p);
  delete static_cast<ThreadStart*>(p);
  start.fn(start.arg);
  sfi_tclThreadDone();
}

}  // namespace

void startThread(void (*fn)(void*), void* arg) {
  ThreadStart* start = new ThreadStart{fn, arg};
  if (!platform::start_thread(runThread, start)) {
    delete start;
    SF_SYSFAIL(0, "startThread");
  }
}

unsigned int getThreadId() {
  return platform::thread_id();
}

std::string getUniqueP2PPipeName(int a, int b) {
  char name[32];
  snprintf(name, sizeof name, "\\\\.\\pipe\\id%d-%d", a, b);
  return name;
}

}  // namespace sf
