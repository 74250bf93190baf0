// The signals that ask a host process to stop (SIGTERM, SIGINT; on Windows
// the console control events).
#pragma once

namespace sf {
namespace platform {

// Blocks the stop signals in the calling thread. Threads started afterwards
// inherit the mask, so call this in main before starting any thread: the
// signals are then only ever taken by wait_stop_signal.
void block_stop_signals();

// Waits until a stop signal arrives and returns its number. Needs
// block_stop_signals first.
int wait_stop_signal();
// Like wait_stop_signal, but gives up after ms milliseconds and returns 0.
int wait_stop_signal_ms(unsigned ms);

// The signal's name ("SIGTERM"), or "signal" when unknown.
const char* signal_name(int sig);

}  // namespace platform
}  // namespace sf
