// The interpreter's entry points for the library's own modules: creating
// it, its lock, quiet evaluation, watched variables and built-in command
// flags. Internal to the library.
#pragma once

#include <atomic>
#include <string>
#include <vector>
#include "sf/base/locks.h"
#include "sf/script/tcl.h"

namespace sf {

// Creates the interpreter and its lock (once; later calls do nothing).
void sfi_tclCreate();
// Runs Tcl_Init (the interpreter's library scripts); false on failure.
bool sfi_tclInitLibrary();
// True once the interpreter exists.
bool sfi_tclReady();
// The Tcl lock. Valid after sfi_tclCreate().
Mx& sfi_tclLock();
// True when the calling thread holds the Tcl lock, as every script command
// does. Such a thread must not wait for threads that may need the
// interpreter: they would wait for it in turn.
bool sfi_tclHeldByCaller();
// Releases what the interpreter keeps for the calling thread (allocator
// caches, thread-specific data). Call it last in a thread that used the
// bridge and is about to end; the thread must not use the bridge afterwards.
void sfi_tclThreadDone();
// Runs one command whose words are given as they are (nothing in them is
// substituted, so a word may hold any text), without logging anything;
// throws the C string "tcl" on error.
std::string sfi_quietEval(const std::vector<std::string>& words);
// A flag that is true while the interpreter's command name is still the
// library command proc: a script that renames, deletes or redefines the
// command turns it false for good. Read without any lock; the flag lives for
// the process, one per name.
const std::atomic<bool>& sfi_builtInFlag(const char* name, TclProc proc);
// Keeps cell equal to the integer global variable name (dflt while unset)
// from now on, so hot paths read it without the Tcl lock. Throws Xtcl when
// the current value is not an integer; a later non-integer value fails the
// script that sets it and leaves cell as it was. Once per name and cell.
void sfi_traceVarInt(const char* name, int dflt, std::atomic<int>& cell);
// The same for a setting of another module: apply receives the variable's
// value now (dflt while unset; a value that is not an integer is left to the
// start-up check) and each later one, under the Tcl lock.
void sfi_traceVarInt(const char* name, int dflt, void (*apply)(int));
// Directories searched by evalFile.
void sfi_setDirectories(const std::string& datadir, const std::string& rootdir);

}  // namespace sf
