// Windows threads and process identity.
#include "sf/platform/thread.h"

#include <process.h>
#include <windows.h>

#include <cstdio>

namespace sf {
namespace platform {

namespace {
struct Start {
  void (*fn)(void*);
  void* arg;
};

unsigned __stdcall runThread(void* p) {
  Start s = *static_cast<Start*>(p);
  delete static_cast<Start*>(p);
  s.fn(s.arg);
  return 0;
}
}  // namespace

// _beginthreadex rather than CreateThread: the C runtime sets up its
// per-thread state for the new thread.
bool start_thread(void (*fn)(void*), void* arg) {
  Start* start = new Start{fn, arg};
  uintptr_t h = _beginthreadex(nullptr, 0, runThread, start, 0, nullptr);
  if (h == 0) {
    delete start;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  CloseHandle(reinterpret_cast<HANDLE>(h));  // detached: nobody joins it
  return true;
}

std::uint32_t thread_id() {
  return GetCurrentThreadId();
}

std::uint32_t process_id() {
  return GetCurrentProcessId();
}

void sleep_ms(std::uint32_t ms) {
  Sleep(ms);
}

unsigned cpu_count() {
  DWORD_PTR mine = 0, all = 0;
  unsigned n = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &mine, &all))
    for (; mine; mine &= mine - 1) ++n;
  if (n == 0) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    n = info.dwNumberOfProcessors;
  }
  return n > 0 ? n : 1;
}

void print_stack_trace() {
  void* frames[62];
  USHORT n = CaptureStackBackTrace(0, 62, frames, nullptr);
  for (USHORT i = 0; i < n; ++i) fprintf(stderr, "  #%u %p\n", static_cast<unsigned>(i), frames[i]);
}

// TerminateProcess rather than ExitProcess: no DLL detach code runs, so a
// lock held by another thread cannot stop the exit.
void exit_now(int status) {
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
  for (;;) Sleep(INFINITE);  // not reached: the call above does not return for this process
}

}  // namespace platform
}  // namespace sf
