// One reader thread's event loop: accept, wait, serve, sweep.
//
// Sockets are non-blocking. When one is readable the loop takes what has
// arrived into the connection's input and asks the top adaptor whether a
// whole message is there (the framing step); only then does readPdu run, and
// it reads from memory. An adaptor that cannot tell (Unknown) gets today's
// blocking readPdu. A message that is not complete has a deadline: its
// header block must be complete, and its body must progress, within the
// connection's read time-out.
#include "sf/net/readerloop.h"
#include "sf/base/eventreport.h"
#include "sf/work/tickclock.h"
#include "sf/work/wakeupbatch.h"

#include <atomic>
#include <ctime>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/net/reader.h"
#include "sf/net/shutdown.h"
#include "sf/platform/socket.h"
#include "sf/platform/syserr.h"
#include "sf/platform/thread.h"
#include "sf/runtime.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/queuefull.h"

namespace sf {

namespace {

typedef unsigned long long ull;

// A pass ends after 10 seconds without activity.
const int kPassMs = 10000;
// The most a connection holds beyond an unfinished message (the framing
// step bounds the message itself).
const size_t kReadAhead = size_t{64} * 1024;
// Messages served from one connection before the others get their turn.
const int kBurst = 16;
// After an accept failed for lack of descriptors or memory.
const int kAcceptPauseMs = 250;
// While draining, how often the loop looks again at connections whose
// message a queue or worker still holds (nothing wakes it when they let go).
const int kDrainLookMs = 50;
// Keys of the event set other than connection ids (which are below 2^31).
const std::uint64_t kListenKey = 1ull << 40;
const std::uint64_t kWakeKey = 1ull << 41;

void sendReject(Connection& c, Xreject& x) {
  Adaptor* top = c.getAdaptor();
  if (x.reply && top) top->reject(&c, *x.reply);
  if (x.close) tcp_close(c);
  delete x.reply;
  x.reply = nullptr;
}

// Moves bytes the adaptors pushed back into the connection's input, ahead of
// what arrived after them, so that the framing step sees the next message
// from its first byte and reads are served from one place.
void gatherPushedBack(Connection& c) {
  Adaptor* top = c.getAdaptor();
  if (!top) return;
  std::string bytes;
  top->takePushedBack(bytes);
  sfi_unreadInput(c.record(), bytes);
}

}  // namespace

const ReaderSettings& readerSettings() {
  static const ReaderSettings s{getVarInt("sf.maxConnections", 0),
                                getVarInt("sf.connWaitingAlarmSeconds", 120)};
  return s;
}

ReaderLoop::ReaderLoop(Reader* reader, i_Port* port, const char* target, int drainSeconds)
    : reader_(reader),
      port_(port),
      target_(target),
      mailbox_(port->newMailbox()),
      drainSeconds_(drainSeconds) {
  mailbox_->open(platform::thread_id());
  set_.add(mailbox_->wakeup.fd(), kWakeKey, platform::EventSet::Level);
  ++port_->acceptors;
  socket_t lfd = port_->fd.load();
  if (lfd != INVALID_SOCK) platform::set_blocking(lfd, false);
  watchListening(true);
}

ReaderLoop::~ReaderLoop() {
  stopAccepting();
  mailbox_->close();
  port_->open -= conns_.size();
}

void ReaderLoop::run() {
  platform::EventSet::Ready ready[64];
  for (;;) {
    try {
      Ms now = monotonicMs();
      if (sfi_shuttingDown()) {
        if (!draining_) beginDrain(now);
        if (now >= drainUntil_ || !anyInFlight()) {
          closeAll();
          return;
        }
      }
      int n = set_.wait(ready, 64, again_.empty() ? waitMs(now) : 0);
      WakeupBatch batch;  // the workers are woken once the pass is over
      now = monotonicMs();
      for (int i = 0; i < n; ++i) dispatch(ready[i], now);
      readMail(now);
      serveAgain(now);
      expire(now);
      if (!draining_) superviseAccepting(now);
    } catch (...) {
      setContext(nullptr);
      SF_LOG(1, "reader: exception during processing");
    }
  }
}

// ---- the pieces of a pass ----

int ReaderLoop::waitMs(Ms now) const {
  Ms wait = kPassMs;
  if (!deadlines_.empty()) wait = std::min<Ms>(wait, deadlines_.begin()->first - now);
  if (acceptPausedUntil_) wait = std::min<Ms>(wait, acceptPausedUntil_ - now);
  if (nextAlarmCheck_) wait = std::min<Ms>(wait, nextAlarmCheck_ - now);
  if (draining_) wait = std::min<Ms>(wait, std::min<Ms>(kDrainLookMs, drainUntil_ - now));
  return wait < 0 ? 0 : static_cast<int>(wait);
}

void ReaderLoop::dispatch(const platform::EventSet::Ready& ready, Ms now) {
  std::uint64_t key = ready.key;
  if (key == kWakeKey) {
    mailbox_->wakeup.drain();
  } else if (key == kListenKey) {
    acceptClients(now);
  } else {
    auto it = conns_.find(static_cast<int>(key));
    if (it != conns_.end()) onReadable(it->second, ready.hangup, now);
  }
}

// Connections given back by workers, or closed by other threads.
void ReaderLoop::readMail(Ms now) {
  for (Connection& c : mailbox_->take()) {
    auto it = conns_.find(c.nonce());
    if (it == conns_.end() || it->second.c.record() != c.record()) continue;
    process(it->second, now);
  }
}

void ReaderLoop::serveAgain(Ms now) {
  turn_.clear();
  turn_.swap(again_);
  for (int id : turn_) {
    auto it = conns_.find(id);
    if (it != conns_.end()) process(it->second, now);
  }
}

// Unfinished messages past their deadline are refused: 408 for HTTP (through
// the top adaptor's reject), a plain close for raw TCP.
void ReaderLoop::expire(Ms now) {
  while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
    int id = deadlines_.begin()->second;
    deadlines_.erase(deadlines_.begin());
    auto it = conns_.find(id);
    if (it == conns_.end()) continue;
    Entry& e = it->second;
    e.deadline = 0;
    i_Connection* rec = e.c.record();
    std::string seconds = sfi_fmtlog("%d", static_cast<int>(rec->readTimeout_s));
    SF_EVENT("09_sf_readtimeout_s_s_d", rec->local.c_str(), rec->remote.c_str(), seconds.c_str());
    try {
      if (Adaptor* top = e.c.getAdaptor()) top->reject(&e.c, 408, nullptr);
    } catch (const X& x) {
      SF_LOG(3, "reader: refusing a late message failed - %s", x.str().c_str());
    }
    tcp_close(e.c);
    drop(id);
  }
}

// Accepting stops at the connection limit and for a while after a failure;
// it resumes when the port is below the limit and the pause is over. While a
// client waits at the limit the ALARM line comes every alarm period.
void ReaderLoop::superviseAccepting(Ms now) {
  const ReaderSettings& cfg = readerSettings();
  bool atLimit =
      cfg.maxConnections > 0 && port_->open.load() >= static_cast<size_t>(cfg.maxConnections);
  if (acceptPausedUntil_ && now >= acceptPausedUntil_) acceptPausedUntil_ = 0;
  watchListening(!atLimit && !acceptPausedUntil_);
  if (!atLimit) {
    nextAlarmCheck_ = 0;
    return;
  }
  if (now < nextAlarmCheck_) return;
  nextAlarmCheck_ = now + 1000;
  socket_t lfd = port_->fd.load();
  if (lfd == INVALID_SOCK || platform::wait_readable(lfd, 0) <= 0) return;  // nobody waits
  std::int64_t secs = static_cast<std::int64_t>(time(nullptr));
  std::int64_t deadline = port_->alarmDeadline.load();
  if (deadline == 0) {
    port_->alarmDeadline.compare_exchange_strong(deadline, secs + cfg.alarmSeconds);
  } else if (secs >= deadline && port_->alarmDeadline.compare_exchange_strong(deadline, 0)) {
    SF_LOG(1,
           "ALARM: Maximum %zd client connections are reached. New client connection "
           "is waiting for %d seconds.",
           port_->open.load(), cfg.alarmSeconds);
  }
}

// ---- stopping ----

// Accepting stops at once; connections with nothing received are closed,
// the others are served as usual and closed once they are idle.
void ReaderLoop::beginDrain(Ms now) {
  draining_ = true;
  drainUntil_ = now + static_cast<Ms>(drainSeconds_) * 1000;
  stopAccepting();
  std::vector<int> ids;
  for (const auto& kv : conns_) ids.push_back(kv.first);
  for (int id : ids) {
    auto it = conns_.find(id);
    if (it == conns_.end()) continue;
    Entry& e = it->second;
    if (e.c.isReserved()) continue;  // the give-back brings it back
    take(e);
    process(e, now);
  }
}

// Something received is not answered yet: a worker owes a reply (the
// connection is reserved), a message that refers to the connection is still
// queued or being processed (a handle besides ours), a message is still
// arriving, or whole messages wait their turn.
bool ReaderLoop::anyInFlight() const {
  if (!again_.empty()) return true;
  for (const auto& kv : conns_) {
    const Entry& e = kv.second;
    const i_Connection* rec = e.c.record();
    if (e.c.socketNo() == INVALID_SOCK) continue;
    if (e.c.isReserved() || rec->refs.load() > 1 || e.deadline || sfi_pending(rec) ||
        e.c.hasBufferedData())
      return true;
  }
  return false;
}

void ReaderLoop::closeAll() {
  while (!conns_.empty()) {
    Connection c = conns_.begin()->second.c;
    drop(c.nonce());
    tcp_close(c);
  }
  again_.clear();
}

// ---- accepting ----

void ReaderLoop::watchListening(bool on) {
  socket_t lfd = port_->fd.load();
  if (on == listening_ || (on && (lfd == INVALID_SOCK || !accepting_))) return;
  if (on && set_.add(lfd, kListenKey, platform::EventSet::Exclusive) != 0) {
    SF_SYSFAIL(-1, "reader: cannot watch the listening socket");
    return;
  }
  if (!on && lfd != INVALID_SOCK) set_.remove(lfd);
  listening_ = on;
}

// The port's last reader thread to stop accepting closes the listening
// socket at shutdown, so that new clients are refused at once instead of
// waiting in the backlog (a child that took the socket over keeps its own).
void ReaderLoop::stopAccepting() {
  watchListening(false);
  if (!accepting_) return;
  accepting_ = false;
  if (--port_->acceptors == 0 && sfi_shuttingDown()) {
    socket_t s = port_->fd.exchange(INVALID_SOCK);
    if (s != INVALID_SOCK) {
      SF_LOG(4, "About to close fd %llu and do notify.", static_cast<ull>(s));
      platform::sock_close(s);
    }
  }
}

// Counts a client about to be accepted against the port's limit, which all
// the port's reader threads share; false at the limit.
bool ReaderLoop::claimSlot() {
  size_t max = static_cast<size_t>(readerSettings().maxConnections);
  size_t n = port_->open.load();
  do {
    if (max > 0 && n >= max) return false;
  } while (!port_->open.compare_exchange_weak(n, n + 1));
  return true;
}

void ReaderLoop::acceptClients(Ms now) {
  // A few per readiness, so that a crowd at the door cannot starve the
  // connections already open.
  for (int i = 0; i < 16; ++i) {
    if (!claimSlot()) return;
    Port port(port_);
    int err = 0;
    Connection fresh = sfi_accept(port, &err);
    if (!fresh) {
      --port_->open;
      if (platform::err_would_block(err)) return;  // another reader took it, or it went
      if (!platform::err_out_of_descriptors(err)) {
        SF_LOG(3, "reader: accept failed - %s", platform::error_text(err).c_str());
        return;
      }
      if (!port_->acceptFailing.exchange(true))
        SF_LOG(1, "reader: cannot accept new clients - %s; accepting paused",
               platform::error_text(err).c_str());
      acceptPausedUntil_ = now + kAcceptPauseMs;
      watchListening(false);
      return;
    }
    if (port_->acceptFailing.exchange(false)) SF_LOG(1, "reader: accepting new clients again");
    port_->alarmDeadline = 0;
    i_Connection* rec = fresh.record();
    if (!admit(fresh) || fresh.socketNo() == INVALID_SOCK) {  // or closed by the accept action
      --port_->open;
      continue;
    }
    socket_t fd = fresh.socketNo();
    Entry& e = conns_[rec->id];
    e.c = fresh;
    e.fd = fd;
    set_.add(fd, static_cast<std::uint64_t>(rec->id), platform::EventSet::Edge);
    sfi_armIdleTimer(fresh, port_->idleTimeout_s);
  }
}

// The accept action and hook of a new connection; false when it failed (the
// connection is released, and so closed).
bool ReaderLoop::admit(Connection& fresh) {
  try {
    setsocketblockingmode(fresh.socketNo(), false);
    i_Connection* rec = fresh.record();
    rec->nonBlocking = true;
    rec->mailbox = mailbox_;
    fresh.push(new TcpAdaptor);
    getContext()->conn = fresh;
    std::string action = port_->getAcceptAction();
    if (!action.empty()) eval(action.c_str());
    setContext(nullptr);
    reader_->acceptHook(fresh);
    return true;
  } catch (const Xclosed&) {
    SF_LOG(3, "reader: connection closed detected before full acceptance");
  } catch (const X& x) {
    SF_LOG(3, "reader: caught exception - %s", x.str().c_str());
  } catch (...) {
    SF_LOG(1, "reader: caught unexpected exception");
  }
  setContext(nullptr);
  fresh.record()->mailbox = nullptr;
  return false;
}

// ---- serving ----

// Bytes are reported once: they are taken now, or by process() when the
// worker gives the connection back.
void ReaderLoop::onReadable(Entry& e, bool hangup, Ms now) {
  e.unread = true;
  if (hangup) e.hangup = true;
  if (e.c.isReserved()) return;
  take(e);
  process(e, now);
}

// Receives what the socket holds, up to read-ahead beyond the unfinished
// message; returns the bytes received. Once the socket is read empty, new
// bytes are reported again.
size_t ReaderLoop::take(Entry& e) {
  if (e.c.socketNo() == INVALID_SOCK) return 0;
  i_Connection* rec = e.c.record();
  size_t unfinished = e.state == Framing::Header || e.state == Framing::Body ? e.framed : 0;
  InputFill fill = sfi_fillInput(rec, unfinished + kReadAhead, e.hangup);
  if (fill.ended) {
    e.ended = true;
    e.unread = false;
  } else if (fill.emptied) {
    e.unread = false;
    set_.drained(e.fd, static_cast<std::uint64_t>(e.c.nonce()));
  }
  return fill.got;
}

// Serves every whole message the connection holds (up to a burst), then
// either waits for its next bytes or leaves it to the worker that took it.
void ReaderLoop::process(Entry& e, Ms now) {
  int id = e.c.nonce();
  for (int served = 0;; ++served) {
    if (e.c.socketNo() == INVALID_SOCK) {
      SF_LOG(8, "dropping closed connection %d", id);
      drop(id);
      return;
    }
    if (e.c.isReserved()) return;
    gatherPushedBack(e.c);
    size_t len = sfi_pending(e.c.record());
    if (len == 0 && !e.c.hasBufferedData()) {
      setDeadline(e, 0);
      e.state = Framing::Unknown;
      e.framed = 0;
      // While draining, what has arrived by now is still served; closing
      // with unread bytes would reset the connection under the last reply.
      if (draining_ && !e.ended && take(e) > 0) continue;
      if (e.ended || draining_) {
        if (e.ended) SF_LOG(5, "reader: connection closed detected");
        tcp_close(e.c);
        drop(id);
        return;
      }
      if (e.unread && (take(e) > 0 || e.ended)) continue;
      return;
    }
    Framing f = len == e.framed ? e.state : frame(e);
    if (e.c.socketNo() == INVALID_SOCK) continue;  // refused by the framing step
    if (f == Framing::Header || f == Framing::Body) {
      // Header: the block must be complete within the time-out of its first
      // byte. Body: each arrival of bytes buys another time-out.
      bool progress = len > e.framed;
      Ms limit = now + static_cast<Ms>(e.c.readTimeout_s()) * 1000;
      if (e.deadline == 0 || f != e.state || (f == Framing::Body && progress))
        setDeadline(e, limit);
      e.state = f;
      e.framed = len;
      if (e.ended) {  // the rest can never come
        SF_LOG(5, "reader: connection closed detected");
        tcp_close(e.c);
        drop(id);
        return;
      }
      if (e.unread && (take(e) > 0 || e.ended)) continue;
      return;
    }
    if (served == kBurst) {
      again_.push_back(id);
      return;
    }
    if (!belowInFlightBound(e.c.record())) return;  // the last message over it brings it back
    setDeadline(e, 0);
    e.state = Framing::Unknown;
    e.framed = 0;
    serveOne(e.c);
  }
}

// Whether the connection may have another message read. At the bound the
// connection is marked held, and checked again: a message that went in the
// meantime may not have seen the mark.
bool ReaderLoop::belowInFlightBound(i_Connection* rec) {
  if (rec->inFlight.load() < kMaxInFlight) return true;
  rec->held = true;
  if (rec->inFlight.load() >= kMaxInFlight) return false;
  rec->held = false;
  return true;
}

// The top adaptor's framing answer for what the connection holds. A message
// it refuses is answered as a refused read would be.
Framing ReaderLoop::frame(Entry& e) {
  Adaptor* top = e.c.getAdaptor();
  i_Connection* rec = e.c.record();
  if (!top) return Framing::Unknown;
  ull fd = static_cast<ull>(e.c.socketNo());
  try {
    return top->frame(&e.c, rec->input.data() + rec->inputPos, sfi_pending(rec));
  } catch (Xreject& x) {
    SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
    e.c.reserve();
    sendReject(e.c, x);
    e.c.unreserve(false);
  } catch (...) {
    SF_LOG(1, "reader: caught exception during read...disconnecting");
  }
  tcp_close(e.c);
  return Framing::Unknown;
}

void ReaderLoop::serveOne(Connection& c) {
  // Gives the reader's reservation back however the read or validation
  // ends, so that the connection is not hidden from the reader for ever.
  struct Reservation {
    Connection& c;
    ~Reservation() {
      try {
        c.unreserve(false);
      } catch (...) {
      }
    }
  };
  c.reserve();
  Reservation hold{c};

  sfi_cancelIdleTimer(c);
  sfi_armIdleTimer(c, port_->idleTimeout_s);

  TransactionContext* ctx = getContext();
  ctx->conn = c;
  Message* msg = reader_->mkMsg();
  msg->createdAt = static_cast<std::int64_t>(time(nullptr));
  msg->data = new Buffer(0);
  msg->conn = c;
  msg->origin = c;
  ++c.record()->inFlight;
  ctx->message = msg;
  struct ContextReset {
    ~ContextReset() { setContext(nullptr); }
  } reset;

  ull fd = static_cast<ull>(c.socketNo());
  SF_LOG(5, "reader reading on ready %llu", fd);
  try {
    c.read(*msg->data);
  } catch (Xreject& x) {
    SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
    ctx->message = nullptr;
    delete msg;
    sendReject(c, x);
    return;
  } catch (const Xclosed&) {
    SF_LOG(5, "reader: connection closed detected");
    ctx->message = nullptr;
    delete msg;
    tcp_close(c);
    return;
  } catch (...) {
    SF_LOG(1, "reader: caught exception during read...disconnecting");
    ctx->message = nullptr;
    delete msg;
    tcp_close(c);
    return;
  }

  sfi_takeQueueFull();
  try {
    reader_->validate(msg, target_);
  } catch (Xreject& x) {
    SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
    sendReject(c, x);
  } catch (const X&) {
    SF_LOG(3, "%llu.reader: caught exception ...generating reject", fd);
    bool overload = sfi_takeQueueFull();
    if (overload) noteOverload();
    if (Adaptor* top = c.getAdaptor()) top->reject(&c, overload ? 503 : 0, nullptr);
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
}

// A full queue is overload, not a fault: the client is told to come back
// (503 for HTTP), and the port says so at most once a second.
void ReaderLoop::noteOverload() {
  std::int64_t now = static_cast<std::int64_t>(time(nullptr));
  std::int64_t last = port_->overloadLoggedAt.load();
  if (now != last && port_->overloadLoggedAt.compare_exchange_strong(last, now))
    SF_LOG(1, "reader: a queue is full on port %s; refusing requests as overload",
           port_->name.c_str());
}

void ReaderLoop::setDeadline(Entry& e, Ms when) {
  int id = e.c.nonce();
  if (e.deadline) deadlines_.erase({e.deadline, id});
  e.deadline = when;
  if (when) deadlines_.insert({when, id});
}

void ReaderLoop::drop(int id) {
  auto it = conns_.find(id);
  if (it == conns_.end()) return;
  Entry& e = it->second;
  if (e.deadline) deadlines_.erase({e.deadline, id});
  set_.remove(e.fd);  // the descriptor stays allocated while the record lives
  e.c.record()->mailbox = nullptr;
  --port_->open;
  conns_.erase(it);
}

}  // namespace sf
