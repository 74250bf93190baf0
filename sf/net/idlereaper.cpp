// Idle time-outs (the idle reaper, a worker on its own queue) and close
// notices: the parts of a connection that go through queues and timers.
#include <cstring>
#include <mutex>

#include "sf/base/buffer.h"
#include "sf/base/eventreport.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/net/connection.h"
#include "sf/net/net.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/timer.h"
#include "sf/work/worker.h"

namespace sf {

namespace {

// The reaper's queue; scripts see it among the named queues.
constexpr const char kReaperQueueName[] = "sf.victor";

// Closes the connections whose idle timer fired. The message carries the
// connection id as 4 raw bytes; the record is looked up by id, so a
// connection that is already gone is simply not found.
class IdleReaper : public Worker {
 public:
  IdleReaper() : Worker(kReaperQueueName) {}
  void processMessage(Message* msg) override {
    std::int32_t id = 0;
    if (!msg->data || msg->data->size() < sizeof id) return;
    memcpy(&id, msg->data->data, sizeof id);
    SF_LOG(1, "closing idle connection %d", id);
    sfi_closeById(id, true);
  }
};

void idleReaperThread(void*) {
  try {
    IdleReaper reaper;
    reaper.run();
  } catch (const X& x) {
    SF_LOG(1, "idle connection reaper stopped - %s", x.str().c_str());
  }
}

std::mutex g_idleReaperOnce;
MessageQ* g_idleReaperQueue = nullptr;

// The reaper's queue, made and its thread started on first use.
MessageQ* idleReaperQueue() {
  std::lock_guard<std::mutex> guard(g_idleReaperOnce);
  if (!g_idleReaperQueue) {
    g_idleReaperQueue = getQ(kReaperQueueName);
    if (!g_idleReaperQueue) g_idleReaperQueue = mkQ(kReaperQueueName);
    startThread(idleReaperThread, nullptr);
  }
  return g_idleReaperQueue;
}

int idleDefault() {
  static const int seconds = getVarInt("sf.idletimeout", 0);
  return seconds;
}

}  // namespace

bool sfi_closeById(int id, bool reportIdle) {
  // Take a handle under the registry lock, then work without it: reporting
  // takes the interpreter lock, and threads holding that one make
  // connections (which takes the registry lock).
  Connection c;
  {
    MxLock guard(sfi_registryLock());
    i_Connection* rec = sfi_findConnection(id);
    if (!rec) return false;
    std::uint32_t n = rec->refs.load();
    do {
      if (n == 0) return false;  // being destroyed
    } while (!rec->refs.compare_exchange_weak(n, n + 1));
    c = Connection(rec);
    --rec->refs;  // the handle above took its own reference
  }
  i_Connection* rec = c.record();
  if (reportIdle) SF_EVENT("10_sf_idletimeout_s_s", rec->local.c_str(), rec->remote.c_str());
  rec->close();
  return true;
}

void sfi_armIdleTimer(Connection& c, int idleTimeout_s) {
  i_Connection* rec = c.record();
  if (!rec) return;
  int seconds = idleTimeout_s != -1 ? idleTimeout_s : idleDefault();
  MessageQ* q = idleReaperQueue();
  if (seconds == 0) return;
  Message* m = new Message;
  m->data = new Buffer(0);
  std::int32_t id = rec->id;
  m->data->append(&id, sizeof id);
  TimeoutId t = mkTimeout_rel(static_cast<unsigned>(seconds), 0, q, m);
  std::lock_guard<std::mutex> guard(rec->aux);
  rec->idleTimer = t.id;
}

void sfi_cancelIdleTimer(Connection& c) {
  i_Connection* rec = c.record();
  if (!rec) return;
  std::uint32_t pending;
  {
    std::lock_guard<std::mutex> guard(rec->aux);
    pending = rec->idleTimer;
    rec->idleTimer = 0;
  }
  if (pending) rmTimeout(TimeoutId(pending));
}

void sfi_postCloseNotice(MessageQ* q, const std::string& sid) {
  Message* m = new Message;
  m->isCloseNotice = true;
  m->sessionId = sid;
  try {
    q->enQ(m);
  } catch (const X& x) {
    SF_LOG(1, "close notice for session %s to queue %s lost - %s", sid.c_str(), q->name(),
           x.str().c_str());
    delete m;
  }
}

}  // namespace sf
