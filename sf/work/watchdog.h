// The watchdog: a worker that spends too long on one message ends the process.
//
// Each worker arms its thread's watchdog before it processes a message and
// clears it afterwards. The time-out is sf.watchdog seconds (default 300); a
// change applies at the next arming (a variable trace keeps a copy, so arming
// takes no Tcl lock); below 1 the watchdog is off. If a watchdog
// timer ever expires, the watchdog thread writes a dump file with the reason
// "watchdog shutdown", shuts the library down, reports "06_sf_watchdog_s" and
// exits with status 1. That sequence runs under a deadline: if a hung thread
// holds a lock it needs, the process still exits with status 1.
#pragma once

namespace sf {

// Called once by sf::init: makes the watchdog queue and starts the watchdog
// thread, unless sf.watchdog is below 1.
void watchdog_init();
// Arms the calling thread's watchdog. Does nothing when the watchdog is off
// (or was off at start-up); a second arming without clearing is logged and
// keeps the first deadline.
void watchdog_set();
// Disarms the calling thread's watchdog, if armed.
void watchdog_clr();
// Restarts the full time-out: long-running work calls it to show progress.
void watchdog_ok();

}  // namespace sf
