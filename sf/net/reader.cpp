// The reader loop.
#include "sf/net/reader.h"

#include <condition_variable>
#include <mutex>
#include <set>

#include "sf/base/log.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/net/readerloop.h"
#include "sf/platform/thread.h"
#include "sf/script/deliveryscript.h"
#include "sf/script/interp.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/worker.h"

namespace sf {

namespace {

// The ports that have a reader running, so that shutdown can wake them.
std::mutex g_runningLock;
std::set<i_Port*>& running() {
  static auto* ports = new std::set<i_Port*>;
  return *ports;
}

// A setting read when a reader starts (not at shutdown: a stop must not
// wait for the interpreter, which a hung thread may hold), within lo..hi.
int setting(const char* name, int dflt, int lo, int hi) {
  int n = dflt;
  try {
    n = getVarInt(name, dflt);
  } catch (const X&) {
    SF_LOG(1, "reader: %s is not a number; using %d", name, dflt);
  }
  return n < lo ? lo : (n > hi ? hi : n);
}

// The reader threads of one run: each serves the clients it accepted; the
// thread that called run waits for the others before it closes the port.
struct Crew {
  Reader* reader;
  i_Port* port;
  const char* target;
  int drainSeconds;
  std::mutex lock;
  std::condition_variable done;
  int running = 0;
};

void serve(Crew* crew) {
  try {
    ReaderLoop(crew->reader, crew->port, crew->target, crew->drainSeconds).run();
  } catch (...) {
    SF_LOG(1, "reader: caught unexpected exception");
  }
  std::lock_guard<std::mutex> guard(crew->lock);
  if (--crew->running == 0) crew->done.notify_all();
}

void serveThread(void* crew) {
  serve(static_cast<Crew*>(crew));
  sfi_tclThreadDone();  // the accept actions and validations it evaluated
}

}  // namespace

void sfi_wakeAllReaders() {
  std::lock_guard<std::mutex> guard(g_runningLock);
  for (i_Port* p : running()) p->wakeAll();
}

void sfi_wakeReaderOf(Connection& c) {
  i_Connection* r = c.record();
  if (ReaderMailbox* m = r ? r->mailbox.load() : nullptr) m->wake();
}

Message* Reader::mkMsg() {
  return new Message;
}
void Reader::validate(Message*, const void*) {}
void Reader::acceptHook(Connection&) {}
bool Reader::handleReject() {
  return false;
}
Reader::~Reader() = default;

void Reader::run(Port port, const char* target, const char*) {
  i_Port* p = port.p;
  const ReaderSettings& cfg = readerSettings();
  if (cfg.maxConnections > 0)
    SF_LOG(1,
           "ZEM configuration sets maximum %d client connections; Alarm for new client "
           "connection waiting every %d seconds.",
           cfg.maxConnections, cfg.alarmSeconds);
  SF_LOG(6, "reader about to run - listening on fd %llu",
         static_cast<unsigned long long>(p->fd.load()));
  {
    std::lock_guard<std::mutex> guard(g_runningLock);
    running().insert(p);
  }
  p->readerRunning = true;

  // By default one thread per core this process may use.
  int threads = setting("sf.reader.threads", static_cast<int>(platform::cpu_count()), 1, 256);
  Crew crew{this, p, target, setting("sf.shutdown.drain", 10, 0, 86400), {}, {}, 0};
  SF_LOG(2, "reader: %d threads on %s", threads, p->name.c_str());
  crew.running = threads;
  for (int i = 1; i < threads; ++i) {
    if (!platform::start_thread(serveThread, &crew)) {
      SF_SYSFAIL(0, "startThread");
      std::lock_guard<std::mutex> guard(crew.lock);
      --crew.running;
    }
  }
  serve(&crew);
  {
    std::unique_lock<std::mutex> guard(crew.lock);
    crew.done.wait(guard, [&] { return crew.running == 0; });
  }

  // The loops closed the socket when they stopped accepting; a shared socket
  // may still be open if the port was closed some other way.
  socket_t s = p->fd.exchange(INVALID_SOCK);
  if (s != INVALID_SOCK) platform::sock_close(s);
  p->readerRunning = false;
  {
    std::lock_guard<std::mutex> guard(g_runningLock);
    running().erase(p);
  }
  p->closed.notify();
}

void TclReader::validate(Message*, const void* target) {
  if (target) sfi_runDeliveryScript(static_cast<const char*>(target));
}

}  // namespace sf
