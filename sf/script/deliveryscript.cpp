// The script readers' delivery step, with its direct path for "enQ NAME".
#include "sf/script/deliveryscript.h"

#include <atomic>
#include <cstring>
#include <string>

#include "sf/base/log.h"
#include "sf/script/commands.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/msgq.h"

namespace sf {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// A word the interpreter would take literally: no substitution, quoting,
// comment or command separator can change it.
bool isPlainWordChar(char c) {
  return !isBlank(c) && c != '\0' && !strchr("$[]{}\"\\;#", c);
}

// The queue name when script is exactly "enQ NAME" (blanks around the words
// allowed), else "".
std::string enQTarget(const char* script) {
  const char* p = script;
  while (isBlank(*p)) ++p;
  if (strncmp(p, "enQ", 3) != 0 || !isBlank(p[3])) return "";
  p += 3;
  while (isBlank(*p)) ++p;
  const char* name = p;
  while (isPlainWordChar(*p)) ++p;
  std::string word(name, p);
  while (isBlank(*p)) ++p;
  return *p == '\0' ? word : "";
}

// What this thread found for the script it delivers with (a reader thread
// serves one reader, so one entry is enough).
struct Resolved {
  std::string script;
  std::string name;
  MessageQ* queue = nullptr;  // null: evaluate the script
};
thread_local Resolved t_resolved;

// Queues live for the life of the process, so a queue found once stays
// valid. An unknown queue is not remembered: the script's own error path
// reports it, and a queue made later is found then. Once a script replaces
// enQ, every message is evaluated.
MessageQ* directQueue(const char* script) {
  static const std::atomic<bool>& enQBuiltIn = sfi_builtInFlag("enQ", sfi_cmd_enQ);
  if (!enQBuiltIn.load(std::memory_order_relaxed)) return nullptr;
  Resolved& r = t_resolved;
  if (r.queue && r.script == script) return r.queue;
  std::string name = enQTarget(script);
  if (name.empty()) return nullptr;
  MessageQ* q = getQ(name.c_str());
  if (!q) return nullptr;
  r.script = script;
  r.name = name;
  r.queue = q;
  return q;
}

}  // namespace

void sfi_runDeliveryScript(const char* script) {
  MessageQ* q = directQueue(script);
  if (!q) {
    eval(script);
    return;
  }
  // A failure leaves as a failed evaluation of the script would: the same
  // lines, the same exception for the reader to answer.
  int status;
  try {
    status = sfi_enQCurrent(q, t_resolved.name.c_str());
  } catch (const X& x) {
    SF_LOG(3, "tcl:eval caught exception - %s", x.str().c_str());
    status = 1;
  }
  if (status != 0) {
    SF_LOG(3, "eval %s -> error %d", script, status);
    SF_THROW("eval", Xtcl());
  }
}

}  // namespace sf
