// Start-up and the ends of the process.
//
// A host calls sf::init once from its main thread before anything else. It
// brings up, in order, the socket layer, the interpreter with the library's
// script commands, the directories, the site's config.tcl, the shared
// statistics block, the log, the HTTP commands and the watchdog. It strips
// the library's own options (-datdir dir, -rootdir dir, -d level, -l) from
// argv.
#pragma once

namespace sf {

// The whole start-up. Lets Xtcl from the site's config.tcl escape.
void init(int& argc, const char** argv);

// The Tcl part of start-up, for hosts that want it alone.
void initTcl(int& argc, const char** argv);

// Reports event "16_sf_internalError_s", writes the dump file, shuts the
// library down and exits with status 3. A second call during the first exits
// with status 1 at once; a shutdown that hangs is cut short after 5 seconds.
[[noreturn]] void sf_fatal(const char* reason);

// Orderly shutdown: closes ports nobody took over, stops the readers and
// lets the queues drain. Called by a thread that holds the interpreter lock
// (a script command), it starts the stop and returns at once, leaving the
// waiting to a thread of its own.
void shutdown();

// True once a script's sf_quiesce has run the shutdown to its end (readers
// stopped, queues drained). The watchdog and sf_fatal shut down and end the
// process themselves; they do not set it.
bool quiescedByScript();

}  // namespace sf
