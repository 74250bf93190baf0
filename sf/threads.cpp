// Starting threads and naming them.
#include <cstdio>
#include <string>

#include "sf/log.h"
#include "sf/platform/thread.h"
#include "sf/worker.h"

namespace sf {

void startThread(void (*fn)(void*), void* arg) {
  // The platform copies the pair into a heap record that the new thread
  // frees before it calls fn, so the caller may return at once.
  if (!platform::start_thread(fn, arg)) SF_SYSFAIL(0, "startThread");
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
