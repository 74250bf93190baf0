// The reader loop.
#include "sf/reader.h"

#include <ctime>
#include <mutex>
#include <set>

#include "sf/adaptor.h"
#include "sf/detail/net.h"
#include "sf/message.h"
#include "sf/platform/thread.h"
#include "sf/runtime.h"
#include "sf/sferr.h"
#include "sf/sflib.h"
#include "sf/tcl.h"

namespace sf {

namespace {

typedef unsigned long long ull;

// A 10-second pass, as long as nothing happens.
const int kPassMs = 10000;

// The ports that have a reader running, so that shutdown can wake them.
std::mutex g_runningLock;
std::set<i_Port*>& running() {
  static auto* ports = new std::set<i_Port*>;
  return *ports;
}

struct Settings {
  int maxConnections;
  int alarmSeconds;
};

const Settings& settings() {
  static const Settings s{getVarInt("sf.maxConnections", 0),
                          getVarInt("sf.connWaitingAlarmSeconds", 120)};
  return s;
}

// The waiting-client alarm deadline, seconds since the epoch; 0 = not armed.
std::atomic<std::int64_t> g_alarmDeadline{0};

// Holds the port lock and knows whether it does, so that an exception
// leaving a pass releases it.
class PortLock {
 public:
  explicit PortLock(Mx& mx) : mx_(mx) {}
  ~PortLock() {
    if (held_) mx_.unlock();
  }
  void lock() {
    if (!held_) mx_.lock();
    held_ = true;
  }
  void unlock() {
    if (held_) mx_.unlock();
    held_ = false;
  }

 private:
  Mx& mx_;
  bool held_ = false;
};

void sendReject(Connection& c, Xreject& x) {
  Adaptor* top = c.getAdaptor();
  if (x.reply && top) top->reject(&c, *x.reply);
  if (x.close) tcp_close(c);
  delete x.reply;
  x.reply = nullptr;
}

}  // namespace

void sfi_wakeAllReaders() {
  std::lock_guard<std::mutex> guard(g_runningLock);
  for (i_Port* p : running()) p->wakeup.notify();
}

void sfi_wakeReaderOf(Connection& c) {
  i_Connection* r = c.record();
  if (r && r->port) r->port->wakeup.notify();
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

// Serves one ready connection: reads a PDU, validates it, and repeats while
// the connection has buffered data (pipelined requests). Called with the
// port lock held; returns with it released.
static void serve(Reader* self, i_Port* p, PortLock& held, Connection c, const char* target) {
  // Gives the reader's reservation back if something unexpected escapes, so
  // that the connection is not hidden from the reader for ever.
  struct Reservation {
    Connection& c;
    bool ours = false;
    ~Reservation() {
      if (!ours) return;
      try {
        c.unreserve(false);
      } catch (...) {
      }
    }
    void release() {
      ours = false;
      c.unreserve(false);
    }
  } hold{c};
  for (;;) {
    c.reserve();
    hold.ours = true;
    held.unlock();

    sfi_cancelIdleTimer(c);
    sfi_armIdleTimer(c, p->idleTimeout_s);

    Buffer* buf = new Buffer(0);
    TransactionContext* ctx = getContext();
    ctx->conn = c;
    Message* msg;
    try {
      msg = self->mkMsg();
    } catch (...) {
      delete buf;
      throw;
    }
    msg->createdAt = static_cast<std::int64_t>(time(nullptr));
    msg->data = buf;
    msg->conn = c;
    ctx->message = msg;

    ull fd = static_cast<ull>(c.socketNo());
    SF_LOG(5, "reader reading on ready %llu", fd);
    auto disconnect = [&] {
      held.lock();
      tcp_close(c);
      hold.release();
      held.unlock();
      setContext(nullptr);
    };
    try {
      c.read(*buf);
    } catch (Xreject& x) {
      SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
      sendReject(c, x);
      hold.release();
      setContext(nullptr);
      return;
    } catch (const Xclosed&) {
      SF_LOG(5, "reader: connection closed detected");
      disconnect();
      return;
    } catch (...) {
      SF_LOG(1, "reader: caught exception during read...disconnecting");
      disconnect();
      return;
    }

    try {
      self->validate(msg, target);
    } catch (Xreject& x) {
      SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
      sendReject(c, x);
    } catch (const X&) {
      SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
      if (Adaptor* top = c.getAdaptor()) top->reject(&c, 0, nullptr);
    }

    // A message that validate delivered belongs to its queue now and may
    // already be gone; only one still in the context is ours to mark.
    if (c.record() && c.record()->reserved.load() > 1) {
      if (ctx->message == msg) msg->reserved = true;
      SF_LOG(5, "conn %llu reserved", fd);
    }

    if (ctx->message == msg) {
      // Nothing delivered it: nobody else will ever own it.
      SF_LOG(5, "reader: message on %llu not delivered, dropped", fd);
      delete msg;
    }
    ctx->message = nullptr;
    held.lock();
    hold.release();
    bool again = c.hasBufferedData() && !c.isReserved() && c.socketNo() != INVALID_SOCK;
    if (!again) held.unlock();
    setContext(nullptr);
    if (!again) return;
  }
}

void Reader::run(Port port, const char* target, const char*) {
  i_Port* p = port.p;
  const Settings& cfg = settings();
  if (cfg.maxConnections > 0)
    SF_LOG(1,
           "ZEM configuration sets maximum %d client connections; Alarm for new client "
           "connection waiting every %d seconds.",
           cfg.maxConnections, cfg.alarmSeconds);
  SF_LOG(6, "reader about to run - listening on fd %llu", static_cast<ull>(p->fd.load()));
  {
    std::lock_guard<std::mutex> guard(g_runningLock);
    running().insert(p);
  }
  p->readerThread = platform::thread_id();
  p->readerRunning = true;

  // The set keeps the result of the last wait. While connections it found
  // ready remain unserved, a pass serves the next of them without waiting
  // again: the wait would return at once with the same answer. A fresh wait
  // is made once they are all served, after an accept, or when a connection
  // was dropped (its number may be reused).
  platform::PollSet set;
  bool carry = false;
  size_t start = 0;  // where the serve walk begins: rotates for fairness
  for (;;) {
    PortLock held(p->lock);
    try {
      held.lock();
      bool anyBuffered = false;
      auto& list = p->connections;
      for (size_t i = 0; i < list.size();) {
        Connection& c = list[i];
        if (c.isReserved()) {
          SF_LOG(8, "readset skipping reserved %llu", static_cast<ull>(c.socketNo()));
          ++i;
          continue;
        }
        if (c.socketNo() == INVALID_SOCK) {
          SF_LOG(8, "dropping closed connection %llu", static_cast<ull>(c.socketNo()));
          list.erase(list.begin() + static_cast<long>(i));
          carry = false;
          continue;
        }
        SF_LOG(8, "readset adding %llu", static_cast<ull>(c.socketNo()));
        if (c.hasBufferedData()) anyBuffered = true;
        ++i;
      }

      socket_t lfd = p->fd.load();
      if (sfi_shuttingDown() && !anyBuffered) {
        SF_LOG(4, "About to close fd %llu and do notify.", static_cast<ull>(lfd));
        socket_t s = p->fd.exchange(INVALID_SOCK);
        if (s != INVALID_SOCK) platform::sock_close(s);
        p->readerRunning = false;
        {
          std::lock_guard<std::mutex> guard(g_runningLock);
          running().erase(p);
        }
        p->closed.notify();
        held.unlock();
        return;
      }

      if (!carry || set.readyLeft() == 0) {
        set.clear();
        for (Connection& c : list)
          if (!c.isReserved()) set.add(c.socketNo());
        if (lfd != INVALID_SOCK) set.add(lfd);
        set.add(p->wakeup.fd());
        held.unlock();

        int result;
        if (anyBuffered) {
          held.lock();
          result = set.wait(0);
        } else {
          set.wait(kPassMs);
          held.lock();
          // Look again under the lock: a worker may have reserved or closed
          // a connection while the reader slept.
          result = set.wait(0);
        }
        carry = true;
        if (set.ready(p->wakeup.fd())) {
          p->wakeup.drain();
          set.consume(p->wakeup.fd());
          --result;
        }
        if (result <= 0 && !anyBuffered) {
          held.unlock();
          continue;
        }
      }

      if (lfd != INVALID_SOCK && set.ready(lfd)) {
        std::int64_t now = static_cast<std::int64_t>(time(nullptr));
        if (cfg.maxConnections > 0 && list.size() == static_cast<size_t>(cfg.maxConnections)) {
          std::int64_t deadline = g_alarmDeadline.load();
          if (deadline == 0) {
            g_alarmDeadline = now + cfg.alarmSeconds;
          } else if (now >= deadline) {
            SF_LOG(1,
                   "ALARM: Maximum %zd client connections are reached. New client connection "
                   "is waiting for %d seconds.",
                   list.size(), cfg.alarmSeconds);
            g_alarmDeadline = 0;
          }
          platform::sleep_ms(1000);
          set.consume(lfd);
        } else {
          set.consume(lfd);
          carry = false;
          g_alarmDeadline = 0;
          Connection fresh;
          try {
            fresh = tcp_accept(port);
            fresh.push(new TcpAdaptor);
            getContext()->conn = fresh;
            std::string action = p->getAcceptAction();
            if (!action.empty()) eval(action.c_str());
            setContext(nullptr);
            acceptHook(fresh);
          } catch (const Xclosed&) {
            setContext(nullptr);
            SF_LOG(3, "reader: connection closed detected before full acceptance");
            held.unlock();
            continue;
          } catch (const X& x) {
            setContext(nullptr);
            SF_LOG(3, "reader: caught exception - %s", x.str().c_str());
            held.unlock();
            continue;
          } catch (...) {
            setContext(nullptr);
            SF_LOG(1, "reader: caught unexpected exception");
            held.unlock();
            continue;
          }
          socket_t nfd = fresh.socketNo();
          for (size_t i = 0; i < list.size();) {
            socket_t s = list[i].socketNo();
            if (s == nfd || s == INVALID_SOCK) {
              SF_LOG(8, "dropping closed connection %llu from readset", static_cast<ull>(s));
              list.erase(list.begin() + static_cast<long>(i));
            } else {
              ++i;
            }
          }
          list.push_back(fresh);
          sfi_armIdleTimer(fresh, p->idleTimeout_s);
          held.unlock();
          continue;
        }
      }

      // Serve one ready connection per pass, starting after the one served
      // last so that a busy client cannot starve the others.
      size_t n = list.size();
      bool served = false;
      if (start >= n) start = 0;
      for (size_t k = 0, i = start; k < n && !list.empty(); ++k) {
        if (i >= list.size()) i = 0;
        Connection& c = list[i];
        socket_t s = c.socketNo();
        if (c.isReserved()) {
          SF_LOG(8, "reader skipping reserved %llu", static_cast<ull>(s));
          ++i;
          continue;
        }
        if (s == INVALID_SOCK) {
          SF_LOG(8, "dropping closed connection %llu", static_cast<ull>(s));
          list.erase(list.begin() + static_cast<long>(i));
          continue;
        }
        SF_LOG(8, "reader adding %llu", static_cast<ull>(s));
        if (!c.hasBufferedData() && !set.ready(s)) {
          ++i;
          continue;
        }
        start = i + 1;
        set.consume(s);
        Connection copy = c;
        serve(this, p, held, copy, target);
        served = true;
        break;
      }
      if (!served) {
        carry = false;
        held.unlock();
      }
    } catch (...) {
      held.unlock();
      setContext(nullptr);
      SF_LOG(1, "reader: exception during processing");
    }
  }
}

void TclReader::validate(Message*, const void* target) {
  if (target) eval(static_cast<const char*>(target));
}

}  // namespace sf
