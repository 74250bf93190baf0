// The Tcl bridge: one interpreter, one recursive lock.
//
// The interpreter keeps its evaluation stack in the interpreter itself, so
// besides being used under the lock it must never see a second thread while
// one thread's evaluation is unfinished: nothing may release the lock from
// inside an evaluation. Debug builds check both rules at every entry.
#include <tcl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "sf/base/eventreport.h"
#include "sf/base/locks.h"
#include "sf/platform/fs.h"
#include "sf/platform/thread.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"

namespace sf {

namespace {

Mx* g_tclLock = nullptr;
Tcl_Interp* g_interp SF_GUARDED_BY(*g_tclLock) = nullptr;
// The interpreter is made once, by the starting thread; whether it exists is
// read without the lock (which exists as soon as it does), using it is not.
bool interpCreated() SF_NO_THREAD_SAFETY_ANALYSIS {
  return g_interp != nullptr;
}
std::map<std::string, TclProc>& commandTable() {
  static std::map<std::string, TclProc> table;
  return table;
}
std::string g_dataDir;
std::string g_rootDir;

#ifndef NDEBUG
// The thread inside the outermost unfinished evaluation, and how deeply it
// is nested. Changed only under the lock; read by the entry check.
std::atomic<std::thread::id> g_evalThread{};
std::atomic<int> g_evalDepth{0};

[[noreturn]] void misuse(const char* entry, const char* why) {
  fprintf(stderr, "sf: Tcl interpreter entered through %s %s; called from:\n", entry, why);
  platform::print_stack_trace();
  abort();
}
#endif

// Called at every entry into the interpreter, with the lock taken. In debug
// builds a use that could corrupt the interpreter ends the process at once,
// naming the entry and showing the caller's stack.
inline void checkEntry(const char* entry) {
#ifndef NDEBUG
  if (!g_tclLock->ownedByCaller()) misuse(entry, "without holding the Tcl lock");
  if (g_evalDepth.load() > 0 && g_evalThread.load() != std::this_thread::get_id())
    misuse(entry, "while another thread's evaluation is unfinished");
#else
  (void)entry;
#endif
}

// Marks the calling thread as evaluating for its scope, for the entry
// check (nothing in release builds). The lock is held.
class Evaluating {
 public:
  explicit Evaluating(const char* entry) {
    checkEntry(entry);
#ifndef NDEBUG
    if (g_evalDepth.fetch_add(1) == 0) g_evalThread.store(std::this_thread::get_id());
#endif
  }
  ~Evaluating() {
#ifndef NDEBUG
    if (g_evalDepth.fetch_sub(1) == 1) g_evalThread.store(std::thread::id());
#endif
  }
  Evaluating(const Evaluating&) = delete;
  Evaluating& operator=(const Evaluating&) = delete;
};

// Every exported command enters here. Exceptions never reach the
// interpreter: they are logged and the command fails with status 1.
int dispatch(ClientData clientData, Tcl_Interp*, int argc, const char* argv[]) {
  TclProc proc = reinterpret_cast<TclProc>(clientData);
  if (sfi_on(7)) {
    std::string words;
    for (int i = 0; i < argc; ++i) words.append(argv[i]).append(" ");
    SF_LOG(7, "eval %s", words.c_str());
  }
  try {
    return proc(argc, argv);
  } catch (const X& x) {
    SF_LOG(3, "tcl:eval caught exception - %s", x.str().c_str());
  } catch (const char* s) {
    SF_LOG(1, "tcl:eval caught string exception - %s", s);
  } catch (...) {
    SF_LOG(3, "tcl:eval caught unknown exception");
  }
  return TCL_ERROR;
}

// The interpreter may modify the script it is given, so it always gets a
// private copy: on the stack for short scripts, on the heap otherwise.
class ScriptCopy {
 public:
  explicit ScriptCopy(const char* script) {
    size_t n = strlen(script);
    text_ = n < sizeof small_ ? small_ : static_cast<char*>(malloc(n + 1));
    if (!text_) throw std::bad_alloc();
    memcpy(text_, script, n + 1);
  }
  ~ScriptCopy() {
    if (text_ != small_) free(text_);
  }
  ScriptCopy(const ScriptCopy&) = delete;
  ScriptCopy& operator=(const ScriptCopy&) = delete;
  char* get() { return text_; }

 private:
  char small_[512];
  char* text_;
};

bool readable(const std::string& path) {
  FILE* f = fopen(path.c_str(), "r");
  if (!f) return false;
  fclose(f);
  return true;
}

}  // namespace

Xtcl::Xtcl() : X(2, 8) {
  if (!g_interp || !g_tclLock->ownedByCaller()) return;
  checkEntry("Xtcl");
  Tcl_AddErrorInfo(g_interp, "");
  const char* c = Tcl_GetVar(g_interp, "errorCode", TCL_GLOBAL_ONLY);
  const char* i = Tcl_GetVar(g_interp, "errorInfo", TCL_GLOBAL_ONLY);
  errorCode = c ? c : "";
  errorInfo = i ? i : "";
}

void sfi_tclCreate() {
  if (interpCreated()) return;
  Tcl_FindExecutable(platform::executable_path().c_str());
  // The lock exists before the interpreter is published: code that finds the
  // interpreter may take the lock at once.
  g_tclLock = new Mx(true);
  MxLock guard(*g_tclLock);
  g_interp = Tcl_CreateInterp();
}

bool sfi_tclInitLibrary() {
  MxLock guard(*g_tclLock);
  Evaluating scope("Tcl_Init");
  return Tcl_Init(g_interp) == TCL_OK;
}

bool sfi_tclReady() {
  return interpCreated();
}

bool sfi_tclHeldByCaller() {
  return g_tclLock && g_tclLock->ownedByCaller();
}

void sfi_tclThreadDone() {
  if (!interpCreated()) return;
  // What Tcl keeps for this thread may refer to the shared interpreter.
  MxLock guard(*g_tclLock);
  checkEntry("sfi_tclThreadDone");
  Tcl_FinalizeThread();
}

Mx& sfi_tclLock() {
  return *g_tclLock;
}

void sfi_setDirectories(const std::string& datadir, const std::string& rootdir) {
  g_dataDir = datadir;
  g_rootDir = rootdir;
}

const std::string& dataDir() {
  return g_dataDir;
}
const std::string& rootDir() {
  return g_rootDir;
}

void exportProc(const char* name, TclProc proc) {
  // Threads started by the configuration may already be evaluating.
  MxLock guard(*g_tclLock);
  checkEntry("exportProc");
  commandTable()[name] = proc;
  Tcl_CreateCommand(g_interp, name, dispatch, reinterpret_cast<ClientData>(proc), nullptr);
}

TclProc findProc(const char* name) {
  MxLock guard(*g_tclLock);
  auto it = commandTable().find(name);
  return it == commandTable().end() ? nullptr : it->second;
}

std::string eval(const char* script) {
  ScriptCopy copy(script);
  SF_LOG(6, "eval %s", copy.get());
  MxLock guard(*g_tclLock);
  int status;
  {
    Evaluating scope("eval");
    status = Tcl_Eval(g_interp, copy.get());
  }
  if (status == TCL_OK) {
    std::string result = Tcl_GetStringResult(g_interp);
    SF_LOG(3, "eval %s->%s", script, result.c_str());
    return result;
  }
  SF_LOG(3, "eval %s -> error %d", script, status);
  SF_THROW("eval", Xtcl());
}

std::string sfi_quietEval(const std::vector<std::string>& words) {
  MxLock guard(*g_tclLock);
  Evaluating scope("sfi_quietEval");
  std::vector<Tcl_Obj*> objv;
  for (const std::string& word : words) {
    objv.push_back(Tcl_NewStringObj(word.c_str(), -1));
    Tcl_IncrRefCount(objv.back());
  }
  int rc = Tcl_EvalObjv(g_interp, static_cast<int>(objv.size()), objv.data(), TCL_EVAL_GLOBAL);
  for (Tcl_Obj* obj : objv) Tcl_DecrRefCount(obj);
  if (rc != TCL_OK) throw "tcl";
  return Tcl_GetStringResult(g_interp);
}

namespace {

bool isBuiltIn(const char* name, TclProc proc) SF_REQUIRES(*g_tclLock) {
  Tcl_CmdInfo info;
  return Tcl_GetCommandInfo(g_interp, name, &info) && info.proc == dispatch &&
         info.clientData == reinterpret_cast<ClientData>(proc);
}

// Renaming, deleting or redefining (which deletes first) the command.
void commandReplaced(ClientData flag, Tcl_Interp*, const char*, const char*, int) {
  static_cast<std::atomic<bool>*>(flag)->store(false);
}

}  // namespace

const std::atomic<bool>& sfi_builtInFlag(const char* name, TclProc proc) {
  MxLock guard(*g_tclLock);
  checkEntry("sfi_builtInFlag");
  // One flag per command for the life of the process, so callers may keep it.
  static std::map<std::string, std::atomic<bool>*> flags;
  std::atomic<bool>*& flag = flags[name];
  if (flag) return *flag;
  flag = new std::atomic<bool>(isBuiltIn(name, proc));
  if (flag->load())
    Tcl_TraceCommand(g_interp, name, TCL_TRACE_RENAME | TCL_TRACE_DELETE, commandReplaced, flag);
  return *flag;
}

namespace {

// What a traced integer variable keeps up to date: a cell, or else a
// setting handed each new value.
struct TracedInt {
  std::string name;
  int dflt;
  std::atomic<int>* cell;
  void (*apply)(int);
  void set(int v) const {
    if (cell)
      cell->store(v);
    else
      apply(v);
  }
};

const int kTraceFlags = TCL_GLOBAL_ONLY | TCL_TRACE_WRITES | TCL_TRACE_UNSETS;

char* tracedIntChanged(ClientData data, Tcl_Interp* interp, const char*, const char*, int flags) {
  TracedInt* t = static_cast<TracedInt*>(data);
  if (flags & TCL_TRACE_UNSETS) {
    t->set(t->dflt);
    // Unsetting removes the variable's traces: watch the name again so a
    // later set is seen too.
    if ((flags & TCL_TRACE_DESTROYED) && !(flags & TCL_INTERP_DESTROYED))
      Tcl_TraceVar(interp, t->name.c_str(), kTraceFlags, tracedIntChanged, t);
    return nullptr;
  }
  Tcl_Obj* value = Tcl_GetVar2Ex(interp, t->name.c_str(), nullptr, TCL_GLOBAL_ONLY);
  int v;
  if (!value || Tcl_GetIntFromObj(nullptr, value, &v) != TCL_OK)
    return const_cast<char*>("not an integer: the previous value stays in force");
  t->set(v);
  return nullptr;
}

}  // namespace

void sfi_traceVarInt(const char* name, int dflt, std::atomic<int>& cell) {
  cell.store(getVarInt(name, dflt));
  if (!interpCreated()) return;
  MxLock guard(*g_tclLock);
  checkEntry("sfi_traceVarInt");
  TracedInt* traced = new TracedInt{name, dflt, &cell, nullptr};  // lives as long as the trace
  Tcl_TraceVar(g_interp, name, kTraceFlags, tracedIntChanged, traced);
}

void sfi_traceVarInt(const char* name, int dflt, void (*apply)(int)) {
  if (!interpCreated()) return;
  MxLock guard(*g_tclLock);
  checkEntry("sfi_traceVarInt");
  Tcl_Obj* value = Tcl_GetVar2Ex(g_interp, name, nullptr, TCL_GLOBAL_ONLY);
  int v = dflt;
  if (!value || Tcl_GetIntFromObj(nullptr, value, &v) == TCL_OK) apply(v);
  TracedInt* traced = new TracedInt{name, dflt, nullptr, apply};  // lives as long as the trace
  Tcl_TraceVar(g_interp, name, kTraceFlags, tracedIntChanged, traced);
}

void evalFile(const char* name) {
  MxLock guard(*g_tclLock);
  std::string chosen;
  try {
    chosen = name;
    if (!readable(chosen)) {
      chosen = g_dataDir + "/" + name;
      if (!readable(chosen)) chosen = g_rootDir + "/etc/" + name;
    }
  } catch (...) {
    SF_THROW("eval", Xtcl());
  }
  int status;
  {
    Evaluating scope("evalFile");
    status = Tcl_EvalFile(g_interp, chosen.c_str());
  }
  if (status == TCL_OK) return;
  // The event's translation runs scripts of its own; the exception must
  // still carry this file's errorCode and errorInfo.
  Tcl_InterpState state = Tcl_SaveInterpState(g_interp, TCL_ERROR);
  try {
    sfi_reportEventArg("03_sf_eval_s", name);
  } catch (...) {
    Tcl_DiscardInterpState(state);
    throw;
  }
  Tcl_RestoreInterpState(g_interp, state);
  SF_THROW("eval", Xtcl());
}

void evalScript(int, const char** argv) {
  for (int i = 1; argv[i]; ++i) {
    if (argv[i][0] != '-') evalFile(argv[i]);
  }
}

namespace {
// A command procedure that a script thread calls directly (spinThread) runs
// outside any evaluation, without the lock: it has nobody to give a result
// to, and must not write into what another thread is evaluating.
// Whether the caller holds the lock is known only at run time, so the
// analysis is told nothing here.
Tcl_Interp* resultInterp(const char* entry) SF_NO_THREAD_SAFETY_ANALYSIS {
  if (!g_tclLock->ownedByCaller()) return nullptr;
  checkEntry(entry);
  return g_interp;
}
}  // namespace

void setRes(const char* s) {
  if (Tcl_Interp* interp = resultInterp("setRes"))
    Tcl_SetResult(interp, const_cast<char*>(s), TCL_VOLATILE);
}

void appRes(const char* s) {
  if (Tcl_Interp* interp = resultInterp("appRes"))
    Tcl_AppendResult(interp, s, static_cast<char*>(nullptr));
}

void appResElem(const char* s) {
  if (Tcl_Interp* interp = resultInterp("appResElem")) Tcl_AppendElement(interp, s);
}

int getVarInt(const char* name, int dflt) {
  if (!interpCreated()) return dflt;
  MxLock guard(*g_tclLock);
  checkEntry("getVarInt");
  Tcl_Obj* value = Tcl_GetVar2Ex(g_interp, name, nullptr, TCL_GLOBAL_ONLY);
  if (!value) return dflt;
  int result;
  if (Tcl_GetIntFromObj(g_interp, value, &result) != TCL_OK) SF_THROW("getVarInt", Xtcl());
  return result;
}

std::string getVarStr(const char* name, const char* dflt) {
  if (!interpCreated()) return dflt;
  MxLock guard(*g_tclLock);
  checkEntry("getVarStr");
  const char* value = Tcl_GetVar(g_interp, name, TCL_GLOBAL_ONLY);
  return value ? value : dflt;
}

void setVarInt(const char* name, int v) {
  char text[16];
  snprintf(text, sizeof text, "%d", v);
  setVarStr(name, text);
}

void setVarStr(const char* name, const char* v) {
  MxLock guard(*g_tclLock);
  checkEntry("setVarStr");
  // The interpreter copies the value; our copy is released at once.
  std::string copy(v);
  Tcl_SetVar(g_interp, name, copy.c_str(), TCL_GLOBAL_ONLY);
}

void tclsplit(const char* list, std::list<std::string>& out) {
  MxLock guard(*g_tclLock);
  checkEntry("tclsplit");
  int argc = 0;
  const char** argv = nullptr;
  if (Tcl_SplitList(g_interp, list, &argc, &argv) != TCL_OK) SF_THROW("tclsplit", Xtcl());
  for (int i = 0; i < argc; ++i) out.push_back(argv[i]);
  Tcl_Free(reinterpret_cast<char*>(argv));
}

}  // namespace sf
