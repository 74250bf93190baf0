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

// The site's data and root directories (the -datdir and -rootdir options, or
// their defaults), where evalFile looks for scripts.
const std::string& dataDir();
const std::string& rootDir();

}  // namespace sf
