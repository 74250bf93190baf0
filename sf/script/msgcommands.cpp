// Script commands for queues, messages and script threads, and the
// DummyWorker.
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "sf/base/buffer.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/net/shutdown.h"
#include "sf/runtime.h"
#include "sf/script/commands.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/worker.h"

namespace sf {

namespace {
bool isJustEcho(const char* script) {
  if (!script) return false;
  size_t start = strspn(script, " \t\r\n");
  if (strncmp(script + start, "sf_echo", 7) != 0) return false;
  return script[start + 7 + strspn(script + start + 7, " \t\r\n")] == '\0';
}
}  // namespace

DummyWorker::DummyWorker(const char* queueName, const char* script_)
    : Worker(queueName),
      script(script_),
      echoBuiltIn(isJustEcho(script_) ? &sfi_builtInFlag("sf_echo", sfi_cmd_sf_echo) : nullptr) {}

void DummyWorker::processMessage(Message* msg) {
  SF_LOG(1, "dummy worker dequeued msg");
  if (!script) {
    if (msg->data) msg->data->dump(stderr, 0);
    return;
  }
  // The echo site's script, while sf_echo is the library's: no interpreter.
  if (echoBuiltIn && echoBuiltIn->load(std::memory_order_relaxed)) {
    sfi_echo(msg);
    return;
  }
  EchoesAfterEvaluation echoes(msg);
  try {
    eval(script);
  } catch (...) {
    echoes.write();
    throw;
  }
  echoes.write();
}

namespace {

// The body of a script thread. words is the thread's argument list in Tcl
// list form, heap-allocated by spinThread and freed here.
void scriptThread(void* arg) {
  std::string list = *static_cast<std::string*>(arg);
  delete static_cast<std::string*>(arg);

  try {
    eval(("set sfThreads([sfThreadId]) { " + list + "}").c_str());
  } catch (const X& x) {
    SF_LOG(1, "exception %s in thread %s", x.str().c_str(), list.c_str());
  }

  std::list<std::string> words;
  TclProc proc = nullptr;
  try {
    MxLock guard(sfi_tclLock());
    tclsplit(list.c_str(), words);
    if (!words.empty()) proc = findProc(words.front().c_str());
  } catch (const X& x) {
    SF_LOG(1, "exception %s in thread %s", x.str().c_str(), list.c_str());
  }

  if (proc) {
    std::vector<const char*> argv;
    for (const std::string& w : words) argv.push_back(w.c_str());
    argv.push_back(nullptr);
    try {
      proc(static_cast<int>(words.size()), argv.data());
    } catch (const X& x) {
      SF_LOG(1, "exception %s in thread %s", x.str().c_str(), list.c_str());
    } catch (...) {
      SF_LOG(1, "exception %s in thread %s", "(not an sf exception)", list.c_str());
    }
  } else {
    SF_LOG(1, "exported thread proc not found: %s", list.c_str());
  }
  {
    MxLock guard(sfi_tclLock());
    words.clear();
  }

  try {
    eval("unset sfThreads([sfThreadId])");
  } catch (const X& x) {
    SF_LOG(1, "exception %s in thread %s", x.str().c_str(), list.c_str());
  }
  SF_LOG(1, "thread %s exiting\n", list.c_str());
  if (sfi_shuttingDown()) return;
  // Script threads are meant to serve for the life of the process.
  sf_fatal("thread exiting, out of configuration");
}

Message* currentMessage() {
  return getContext()->message;
}

}  // namespace

int sfi_cmd_spinThread(int argc, const char** argv) {
  if (argc < 2) return -1;
  std::string* list = new std::string;
  for (int i = 1; i < argc; ++i) list->append("{").append(argv[i]).append("} ");
  startThread(scriptThread, list);
  return 0;
}

int sfi_cmd_mkQ(int argc, const char** argv) {
  if (argc < 2) return -1;
  mkQ(argv[1]);
  return 0;
}

int sfi_enQCurrent(MessageQ* q, const char* name) {
  TransactionContext* ctx = getContext();
  if (!ctx->message) {
    SF_LOG(3, "enQ: no current message to put on queue %s", name);
    return -1;
  }
  // Once queued the message belongs to another thread.
  sfi_writeOwedEchoes();
  try {
    q->enQ(ctx->message);
  } catch (const Xstate&) {
    SF_LOG(5, "enQ: queue %s refused the current message; it stays with the caller", name);
    throw;
  }
  ctx->message = nullptr;  // the queue owns it now
  return 0;
}

int sfi_cmd_enQ(int argc, const char** argv) {
  if (argc < 2) return -1;
  MessageQ* q = getQ(argv[1]);
  if (!q) return -1;
  return sfi_enQCurrent(q, argv[1]);
}

int sfi_cmd_sfenv(int argc, const char** argv) {
  if (argc < 2) return -1;
  Message* msg = currentMessage();
  if (!msg) return -1;
  setRes(msg->getenv(argv[1]).c_str());
  return 0;
}

int sfi_cmd_dummyWorker(int argc, const char** argv) {
  if (argc < 2) return -1;
  if (sfi_refuseInsideEvaluation("dummyWorker")) return 1;
  DummyWorker worker(argv[1], argc > 2 ? argv[2] : nullptr);
  worker.run();
}

int sfi_cmd_sf_dumpMsg(int, const char**) {
  Message* msg = currentMessage();
  if (!msg) return -1;
  if (msg->data) msg->data->dump(stderr, 0);
  return 0;
}

int sfi_cmd_sfThreadId(int, const char**) {
  setRes(sfi_fmtlog("%d", static_cast<int>(getThreadId())).c_str());
  return 0;
}

int sfi_cmd_status(int, const char**) {
  // Each element reads "{ id argument-list\n} " once evaluated.
  std::string r = eval(
      "set r {}; foreach x [array names sfThreads] { append r \"\\{ $x $sfThreads($x)\\n\\} \"; "
      "}; set r;");
  setRes(r.c_str());
  return 0;
}

}  // namespace sf
