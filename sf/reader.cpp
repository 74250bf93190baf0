// The reader loop.
#include "sf/reader.h"

#include <mutex>
#include <set>

#include "sf/adaptor.h"
#include "sf/detail/net.h"
#include "sf/detail/readerloop.h"
#include "sf/detail/validatescript.h"
#include "sf/message.h"
#include "sf/platform/thread.h"
#include "sf/sflib.h"

namespace sf {

namespace {

// The ports that have a reader running, so that shutdown can wake them.
std::mutex g_runningLock;
std::set<i_Port*>& running() {
  static auto* ports = new std::set<i_Port*>;
  return *ports;
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

  ReaderLoop(this, p, target).run();

  SF_LOG(4, "About to close fd %llu and do notify.", static_cast<unsigned long long>(p->fd.load()));
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
  if (target) sfi_evalValidate(static_cast<const char*>(target));
}

}  // namespace sf
