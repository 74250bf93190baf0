// The bridge to the process's one Tcl interpreter.
//
// Tcl is the library's configuration language (every sf.* key is a global
// variable), its scripting language (scripts bind ports, make queues and
// start threads through commands registered here) and its log formatting
// engine. One interpreter serves the whole process, guarded by one recursive
// lock: every evaluation, variable access and list split takes it, and
// command procedures run under it, so they may evaluate again freely. No
// thread may release the lock from inside an unfinished evaluation: the
// interpreter's evaluation stack would be shared by two threads.
#pragma once

#include <atomic>
#include <list>
#include <string>

namespace sf {

class Mx;

// A script command: argc words, argv[0] the command's own name. Returns the
// Tcl status (0 success, 1 error). Exceptions it throws never reach Tcl: the
// dispatcher logs them and returns 1.
typedef int (*TclProc)(int argc, const char** argv);

// Registers name as a script command calling proc. Start-up only.
void exportProc(const char* name, TclProc proc);
// The procedure registered as name, or null.
TclProc findProc(const char* name);

// Evaluates script and returns its result; throws Xtcl on error.
std::string eval(const char* script);

// Finds name as given, in the data directory, or in root + "/etc/", and
// evaluates it; on error reports "03_sf_eval_s" and throws Xtcl.
void evalFile(const char* name);

// evalFile()s every argv entry from index 1 to the terminating null that does
// not begin with "-". argc is not consulted.
void evalScript(int argc, const char** argv);

// Result of the running command procedure (no lock: callers already hold
// it). A procedure called directly by a script thread, outside any
// evaluation, has no result to set: these then do nothing.
void setRes(const char* s);
void appRes(const char* s);
void appResElem(const char* s);

// Global variables. getVarInt throws Xtcl when the value is not an integer;
// absent variables give the default.
int getVarInt(const char* name, int dflt);
std::string getVarStr(const char* name, const char* dflt);
void setVarInt(const char* name, int v);
void setVarStr(const char* name, const char* v);

// Appends the elements of a Tcl list to out; throws Xtcl when malformed.
void tclsplit(const char* list, std::list<std::string>& out);

// --- internal entry points, used by the library's own modules ---

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
// Evaluates without logging anything; throws the C string "tcl" on error.
std::string sfi_quietEval(const char* script);
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
// Directories searched by evalFile.
void sfi_setDirectories(const std::string& datadir, const std::string& rootdir);
const std::string& sfi_dataDir();
const std::string& sfi_rootDir();

}  // namespace sf
