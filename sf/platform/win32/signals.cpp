// Stop requests from the console: Ctrl-C, Ctrl-Break, closing the console
// window, log-off and system shutdown. A console handler runs on a thread of
// its own that the system starts; it hands the event to wait_stop_signal.
// The value returned for an event is its code plus one, so that 0 still
// means "nothing arrived".
#include "sf/platform/signals.h"

#include <windows.h>

#include <atomic>

namespace sf {
namespace platform {

namespace {
HANDLE g_stop = nullptr;  // auto-reset: one wait takes one event
std::atomic<int> g_event{0};

BOOL WINAPI onConsoleEvent(DWORD type) {
  g_event.store(static_cast<int>(type) + 1);
  SetEvent(g_stop);
  if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT) {
    // The system ends the process as soon as this handler returns; holding
    // it gives the main thread time for an orderly shutdown and exit.
    Sleep(INFINITE);
  }
  return TRUE;
}

int waitMs(DWORD ms) {
  if (!g_stop || WaitForSingleObject(g_stop, ms) != WAIT_OBJECT_0) return 0;
  return g_event.load();
}
}  // namespace

void block_stop_signals() {
  if (g_stop) return;
  g_stop = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

int wait_stop_signal() {
  return waitMs(INFINITE);
}

int wait_stop_signal_ms(unsigned ms) {
  return waitMs(ms);
}

const char* signal_name(int sig) {
  switch (sig - 1) {
    case CTRL_C_EVENT:
      return "CTRL_C_EVENT";
    case CTRL_BREAK_EVENT:
      return "CTRL_BREAK_EVENT";
    case CTRL_CLOSE_EVENT:
      return "CTRL_CLOSE_EVENT";
    case CTRL_LOGOFF_EVENT:
      return "CTRL_LOGOFF_EVENT";
    case CTRL_SHUTDOWN_EVENT:
      return "CTRL_SHUTDOWN_EVENT";
    default:
      return "signal";
  }
}

}  // namespace platform
}  // namespace sf
