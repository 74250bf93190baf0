// sf::HttpWorker::Exchanges: a forwarding worker's exchanges in flight.
#include "sf/http/exchanges.h"

#include <ctime>

#include "sf/base/buffer.h"
#include "sf/base/eventreport.h"
#include "sf/base/log.h"
#include "sf/http/httpadaptor.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/platform/thread.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/tickclock.h"
#include "sf/work/wakeupbatch.h"
#include "sf/work/watchdog.h"

namespace sf {

namespace {

// The event key of the queue's bell; server connections use their slot.
const std::uint64_t kBellKey = 1ull << 40;
// How often exchanges are looked at for time-outs and clients gone.
const int kSweepMs = 500;
// The most read from one connection in one go beyond what has arrived.
const size_t kReadAhead = size_t{64} * 1024;

// Makes msg the thread's current message while it lives. The server's answer
// is read with none, so that its headers never land in the client's
// environment; the reply is written with the client's own.
struct CurrentMessage {
  TransactionContext* ctx = getContext();
  Message* saved = ctx->message;
  explicit CurrentMessage(Message* msg) { ctx->message = msg; }
  ~CurrentMessage() { ctx->message = saved; }
};

// Thrown when the answer may not be relayed: the client gets 502.
struct BadGateway {};

HttpAdaptor* clientAdaptor(Connection& backend) {
  return dynamic_cast<HttpAdaptor*>(backend.getAdaptor());
}

}  // namespace

HttpWorker::Exchanges::Exchanges(HttpWorker& worker) : worker_(worker) {
  set_.add(bell_.fd(), kBellKey, platform::EventSet::Level);
}

HttpWorker::Exchanges::~Exchanges() {
  for (size_t k = 0; k < slots_.size(); ++k) dropConnection(static_cast<int>(k));
}

bool HttpWorker::Exchanges::serving(int slot, const Message* msg) const {
  return slot >= 0 && static_cast<size_t>(slot) < slots_.size() && slots_[slot].msg == msg;
}

// The warmest idle connection's slot, else a slot without a connection.
int HttpWorker::Exchanges::takeSlot() {
  std::vector<int>& from = !idle_.empty() ? idle_ : free_;
  if (!from.empty()) {
    int k = from.back();
    from.pop_back();
    return k;
  }
  slots_.emplace_back();
  return static_cast<int>(slots_.size()) - 1;
}

// Begins a connection to the server; true while it is still being made
// (the event set reports it writable once it is).
bool HttpWorker::Exchanges::connect(int k) {
  Slot& s = slots_[k];
  bool pending = false;
  s.backend = sfi_connectStart(worker_.server, &pending);
  SF_LOG(4, "HTTP - Connecting to HTTP server %s", worker_.server.str().c_str());
  s.backend.push(new TcpAdaptor);
  HttpAdaptor* http = new HttpAdaptor(true);
  http->setStrictResponse(true);
  s.backend.push(http);
  s.kept = false;
  s.ended = false;
  s.connecting = pending;
  s.fd = s.backend.socketNo();
  const std::uint64_t fd = static_cast<std::uint64_t>(s.fd), key = static_cast<std::uint64_t>(k);
  if (set_.add(fd, key, platform::EventSet::Level) != 0 ||
      (pending && set_.watchWrite(fd, key, platform::EventSet::Level, true) != 0)) {
    SF_LOG(1, "HTTP - cannot watch the connection to %s", worker_.server.str().c_str());
    dropConnection(k);
    SF_THROW("forward", Xio());
  }
  return pending;
}

// The connection being made is writable: made, or failed (Xsys, as
// tcp_connect throws). The request goes out now.
void HttpWorker::Exchanges::connected(int k) {
  Slot& s = slots_[k];
  s.connecting = false;
  set_.watchWrite(static_cast<std::uint64_t>(s.fd), static_cast<std::uint64_t>(k),
                  platform::EventSet::Level, false);
  sfi_connectFinished(s.backend, worker_.server);
  send(k);
}

void HttpWorker::Exchanges::dropConnection(int k) {
  Slot& s = slots_[k];
  if (s.fd != INVALID_SOCK) set_.remove(static_cast<std::uint64_t>(s.fd));
  s.fd = INVALID_SOCK;
  if (s.backend.socketNo() != INVALID_SOCK) tcp_close(s.backend);
  s.backend = Connection();
}

// The slot's connection is closed and the slot is free for another.
void HttpWorker::Exchanges::closeSlot(int k) {
  dropConnection(k);
  for (auto it = idle_.begin(); it != idle_.end(); ++it)
    if (*it == k) {
      idle_.erase(it);
      break;
    }
  free_.push_back(k);
}

// Sends the slot's request, or, when the slot has no connection, begins one
// that sends it once made.
void HttpWorker::Exchanges::begin(int k) {
  if (!slots_[k].backend.record() && connect(k)) return;
  send(k);
}

// Writes the slot's request. A kept connection that the server has closed
// meanwhile is replaced once.
void HttpWorker::Exchanges::send(int k) {
  CurrentMessage none(nullptr);
  Slot& s = slots_[k];
  try {
    writeForwardedRequest(clientAdaptor(s.backend), s.backend, s.msg, worker_.mode);
  } catch (Xclosed&) {
    if (!s.kept) throw;
    SF_LOG(4, "HTTP - kept connection to %s was closed, connecting again",
           worker_.server.str().c_str());
    dropConnection(k);
    begin(k);
  }
}

int HttpWorker::Exchanges::start(Message* msg, bool owned) {
  int k = takeSlot();
  Slot& s = slots_[k];
  s.msg = msg;
  s.owned = owned;
  s.wasReserved = msg->reserved;
  s.kept = s.backend.record() != nullptr;
  s.since = s.clientChecked = monotonicMs();
  ++busy_;
  try {
    begin(k);
    return k;
  } catch (X& x) {
    SF_LOG(3, "HTTP - forwarding to %s failed - %s", worker_.server.str().c_str(), x.str().c_str());
  } catch (...) {
    SF_LOG(1, "HTTP - forwarding to %s failed", worker_.server.str().c_str());
  }
  Buffer none;
  end(k, -1, none);
  return -1;
}

void HttpWorker::Exchanges::onReady(const platform::EventSet::Ready& ready, Ms now) {
  const int k = static_cast<int>(ready.key);
  Slot& s = slots_[k];
  if (!s.backend.record()) return;  // closed earlier in this pass
  if (s.connecting) {
    if (!ready.writable && !ready.hangup) return;
    Buffer none;
    try {
      connected(k);
    } catch (X& x) {
      SF_LOG(3, "HTTP - forwarding to %s failed - %s", worker_.server.str().c_str(),
             x.str().c_str());
      end(k, -1, none);
    }
    return;
  }
  if (!s.msg) {
    SF_LOG(4, "HTTP - kept connection to %s is not at a message boundary, closing it",
           worker_.server.str().c_str());
    closeSlot(k);
    return;
  }
  i_Connection* rec = s.backend.record();
  InputFill fill = sfi_fillInput(rec, sfi_pending(rec) + kReadAhead, ready.hangup);
  if (fill.ended) s.ended = true;
  if (fill.got > 0) s.since = now;
  Framing f = Framing::Header;
  if (size_t len = sfi_pending(rec)) {
    Buffer none;
    try {
      f = s.backend.getAdaptor()->frame(&s.backend, rec->input.data() + rec->inputPos, len);
    } catch (Xproto&) {
      SF_LOG(1, "HTTP - invalid answer from %s, replying 502", worker_.server.str().c_str());
      end(k, 502, none);
      return;
    } catch (X& x) {
      SF_LOG(3, "HTTP - forwarding to %s failed - %s", worker_.server.str().c_str(),
             x.str().c_str());
      end(k, -1, none);
      return;
    }
  }
  if (f == Framing::Whole || s.ended) finish(k);
}

// Reads the answer (from memory, once framing says it is whole, or what
// there is once the server closed) and relays it.
void HttpWorker::Exchanges::finish(int k) {
  Slot& s = slots_[k];
  const std::string serverName = worker_.server.str();
  Buffer answer;
  int status = 0;
  try {
    CurrentMessage none(nullptr);
    try {
      s.backend.read(answer);
    } catch (Xproto&) {
      throw BadGateway();  // refused by the response parser
    } catch (Xclosed&) {
      // Not a byte of the answer came: a kept connection that the server
      // closed meanwhile is replaced once.
      if (!s.kept) throw BadGateway();
      SF_LOG(4, "HTTP - kept connection to %s was closed, connecting again", serverName.c_str());
      dropConnection(k);
      begin(k);
      s.since = monotonicMs();
      return;
    }
    // Bytes past the answer mean more than one message: nothing of this
    // exchange can be trusted.
    if (s.backend.socketNo() != INVALID_SOCK && s.backend.hasBufferedData()) {
      SF_LOG(1, "HTTP - Server %s sent bytes after its answer", serverName.c_str());
      throw BadGateway();
    }
  } catch (BadGateway&) {
    SF_LOG(1, "HTTP - invalid answer from %s, replying 502", serverName.c_str());
    status = 502;
  } catch (X& x) {
    SF_LOG(3, "HTTP - forwarding to %s failed - %s", serverName.c_str(), x.str().c_str());
    status = -1;
  }
  end(k, status, answer);
}

// Ends slot k's exchange: the answer, or with status a rejection (-1: the
// adaptor's configured one), goes to the client, and the connection waits
// for the next request or is closed.
void HttpWorker::Exchanges::end(int k, int status, Buffer& answer) {
  Slot& s = slots_[k];
  Message* msg = s.msg;
  s.msg = nullptr;
  --busy_;
  // The connection of a failed exchange is never used again.
  if (status != 0 || s.ended || s.backend.socketNo() == INVALID_SOCK)
    closeSlot(k);
  else
    idle_.push_back(k);
  {
    CurrentMessage current(msg);
    Adaptor* a = msg->conn.getAdaptor();
    try {
      if (status == 0)
        msg->conn.write(answer);
      else if (a)
        a->reject(&msg->conn, status < 0 ? 0 : status, nullptr);
    } catch (X& x) {
      SF_LOG(3, "HTTP - replying to the client failed - %s", x.str().c_str());
    }
  }
  if (!s.owned) return;
  msg->processedAt = time(nullptr);
  worker_.dispose(msg, s.wasReserved);
}

// Exchanges without an answer for the server connection's read time-out
// fail; so do those whose client has gone while the server was silent (a
// client that only half-closes after its request counts as gone).
void HttpWorker::Exchanges::sweep(Ms now) {
  nextSweep_ = now + kSweepMs;
  Buffer none;
  for (size_t i = 0; i < slots_.size(); ++i) {
    int k = static_cast<int>(i);
    Slot& s = slots_[i];
    if (!s.msg) continue;
    const unsigned timeout_s = s.backend.record() ? s.backend.readTimeout_s() : 0;
    if (timeout_s != 0 && now - s.since >= static_cast<Ms>(timeout_s) * 1000) {
      i_Connection* rec = s.backend.record();
      std::string seconds = sfi_fmtlog("%u", timeout_s);
      SF_EVENT("09_sf_readtimeout_s_s_d", rec->local.c_str(), rec->remote.c_str(), seconds.c_str());
      SF_LOG(3, "HTTP - forwarding to %s failed - no answer within %s s",
             worker_.server.str().c_str(), seconds.c_str());
      end(k, -1, none);
      continue;
    }
    bool answering = s.backend.record() && sfi_pending(s.backend.record()) > 0;
    if (answering || now - s.clientChecked < kSweepMs) continue;
    s.clientChecked = now;
    if (s.msg->conn.socketNo() != INVALID_SOCK && !s.msg->conn.check()) {
      SF_LOG(3, "HTTP - client went away before %s answered, dropping the request",
             worker_.server.str().c_str());
      end(k, -1, none);
    }
  }
}

int HttpWorker::Exchanges::waitMs(int timeout_ms, Ms now) const {
  if (busy_ == 0) return timeout_ms;
  int untilSweep = nextSweep_ > now ? static_cast<int>(nextSweep_ - now) : 0;
  return timeout_ms < 0 || untilSweep < timeout_ms ? untilSweep : timeout_ms;
}

void HttpWorker::Exchanges::pass(int timeout_ms) {
  platform::EventSet::Ready ready[64];
  // The watchdog guards work, not waiting: it is cleared before a wait
  // without end (nothing in flight). A wait for answers is at most a sweep
  // long, so the watchdog stays armed and is only restarted now and then
  // (each restart is a timer made and removed).
  const bool guarded = getContext()->watchdog != nullptr;
  const int wait_ms = waitMs(timeout_ms, monotonicMs());
  if (guarded && wait_ms < 0) watchdog_clr();
  int n = set_.wait(ready, 64, wait_ms);
  if (guarded && wait_ms < 0) {
    watchdog_set();
    lastArmed_ = monotonicMs();
  } else if (guarded && monotonicMs() - lastArmed_ >= kSweepMs) {
    watchdog_ok();
    lastArmed_ = monotonicMs();
  }
  if (n < 0) {
    SF_LOG(1, "HTTP - waiting for answers from %s failed", worker_.server.str().c_str());
    platform::sleep_ms(100);
    return;
  }
  WakeupBatch batch;  // the readers are woken once the answers are relayed
  Ms now = monotonicMs();
  for (int i = 0; i < n; ++i) {
    if (ready[i].key == kBellKey)
      bell_.drain();
    else
      onReady(ready[i], now);
  }
  if (busy_ > 0 && now >= nextSweep_) sweep(now);
}

}  // namespace sf
