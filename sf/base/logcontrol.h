// How start-up and the statistics block steer the log: its level, its sink
// and the cross-process lock around its file. Internal to the library.
#pragma once

namespace sf {

// Sets the level explicitly (the "-d" option); wins over SF_DBG and
// sf.log.level at initialisation.
void sfi_setLogLevel(int level);

// Sends every record to standard error in the short format (the "-l" option).
void sfi_logToStderr();

// Reads the sf.log.* keys and SF_DBG; called once by sf::init after the
// interpreter exists. Records before this reach only stderr mode or a callback.
void sfi_logInit();

// Seam for the cross-process lock around the file sink: while a hook pair is
// installed (by the shared statistics block), every file write and rotation
// runs between lock() and unlock(). Without one the file sink is serialised
// only within this process.
struct LogFileLockHooks {
  void (*lock)();
  void (*unlock)();
};
void sfi_setLogFileLockHooks(const LogFileLockHooks* hooks);

}  // namespace sf
