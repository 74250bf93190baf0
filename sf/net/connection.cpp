// Connection records, the registry, and the raw TCP operations.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>

#include "sf/base/buffer.h"
#include "sf/base/eventreport.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/net/adaptor.h"
#include "sf/net/net.h"
#include "sf/net/port.h"
#include "sf/platform/clock.h"
#include "sf/platform/syserr.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"
#include "sf/work/msgq.h"
#include "sf/work/timer.h"

#define NET_TRACE(tag, text, value, a)                                                 \
  do {                                                                                 \
    if (::sf::sfi_on(10)) {                                                            \
      static int site_ = 0;                                                            \
      ::sf::trace(__FILE__, &site_, __LINE__, tag, text, (long long)(value), a, 0, 0); \
    }                                                                                  \
  } while (0)

namespace sf {

namespace {

typedef unsigned long long ull;

// The registry of live records by id, and the id counter, under one lock.
struct Registry {
  Mx lock;
  std::map<int, i_Connection*> byId SF_GUARDED_BY(lock);
  bool seeded SF_GUARDED_BY(lock) = false;
  std::int64_t counter SF_GUARDED_BY(lock) = 0;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: records may outlive statics
  return *r;
}

int readTimeoutDefault() {
  static int value = getVarInt("sf.readtimeout", 60);
  return value;
}

}  // namespace

Mx& sfi_registryLock() SF_RETURN_CAPABILITY(registry().lock) {
  return registry().lock;
}

i_Connection* sfi_findConnection(int id) {
  auto it = registry().byId.find(id);
  return it == registry().byId.end() ? nullptr : it->second;
}

size_t sfi_connectionCount() {
  auto& r = registry();
  MxLock guard(r.lock);
  return r.byId.size();
}

// ---- the record ----

i_Connection::i_Connection(socket_t fd_)
    : refs(0),
      reserved(0),
      readTimeout_s(static_cast<std::uint32_t>(readTimeoutDefault())),
      fd(fd_),
      id(0),
      idleTimer(0),
      top(nullptr),
      mailbox(nullptr),
      inputPos(0),
      nonBlocking(false),
      heldFd(INVALID_SOCK) {
  auto& r = registry();
  MxLock guard(r.lock);
  if (!r.seeded) {
    r.counter = static_cast<std::int64_t>(time(nullptr));
    r.seeded = true;
  }
  r.counter = (r.counter + 1) % 2147483647;
  id = static_cast<std::int32_t>(r.counter);
  r.byId[id] = this;
}

void sfi_unregister(i_Connection* rec) {
  auto& r = registry();
  MxLock guard(r.lock);
  auto it = r.byId.find(rec->id);
  if (it != r.byId.end() && it->second == rec) r.byId.erase(it);
}

i_Connection::~i_Connection() {
  sfi_unregister(this);
  mailbox = nullptr;  // nobody may take a new handle on a record being destroyed
  if (idleTimer) rmTimeout(TimeoutId(idleTimer));
  close();
  delete top;
  top = nullptr;
  if (heldFd != INVALID_SOCK) platform::sock_close(heldFd);
  SF_LOG(2, "destroyed conn %llu/%d", static_cast<ull>(heldFd), id);
}

void i_Connection::close() {
  socket_t s = fd.exchange(INVALID_SOCK);
  if (s == INVALID_SOCK) return;
  NET_TRACE("close", "", s, id);
  SF_LOG(1, "closing fd=%llu/id=%d", static_cast<ull>(s), id);
  std::vector<MessageQ*> queues;
  {
    std::lock_guard<std::mutex> guard(aux);
    queues = closeNotify;
  }
  std::string sid = sfi_fmtlog("%u", static_cast<unsigned>(id));
  for (MessageQ* q : queues) sfi_postCloseNotice(q, sid);
  // Shut down now so that the peer sees the close at once and any thread
  // blocked on the socket returns; the descriptor itself is released with
  // the record, so its number cannot be reused under a thread that still
  // holds it.
  platform::sock_shutdown(s);
  heldFd = s;
  if (ReaderMailbox* m = mailbox.load()) m->post(this);
}

// ---- handles ----

Connection::Connection() : rec_(nullptr) {}

Connection::Connection(i_Connection* rec) : rec_(rec) {
  if (rec_) {
    std::uint32_t n = ++rec_->refs;
    NET_TRACE("+Con", "", n, rec_->id);
  }
}

Connection::Connection(const Connection& o) : rec_(o.rec_) {
  if (rec_) {
    std::uint32_t n = ++rec_->refs;
    NET_TRACE("+Con", "copy", n, rec_->id);
  }
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the same record covers the same object.
Connection& Connection::operator=(const Connection& o) {
  if (rec_ == o.rec_) return *this;
  i_Connection* taken = o.rec_;
  if (taken) {
    std::uint32_t n = ++taken->refs;
    NET_TRACE("+Con", "assign", n, taken->id);
  }
  Connection old;  // releases the previous record at the end of this scope
  old.rec_ = rec_;
  rec_ = taken;
  return *this;
}

Connection::~Connection() {
  if (!rec_) return;
  i_Connection* r = rec_;
  std::uint32_t n = --r->refs;
  NET_TRACE("~con", "", n, r->id);
  if (n == 0) {
    // Last handle. Leave the registry first, so that nobody can find the
    // record and take a new handle on it; then let the adaptors know and
    // destroy it. The count goes back to one for the duration so that
    // copies the adaptors make come and go without a second destruction.
    sfi_unregister(r);
    r->mailbox = nullptr;
    r->refs = 1;
    reserve();
    try {
      if (r->top) r->top->closing(this);
    } catch (const X& x) {
      SF_LOG(3, "closing adaptor chain failed - %s", x.str().c_str());
    }
    try {
      unreserve(false);
    } catch (const X&) {
      // closing() already dropped every reservation
    }
    r->refs = 0;
    delete r;
  }
  rec_ = nullptr;
}

bool Connection::isReserved() const {
  return rec_ && rec_->reserved.load() > 0;
}

void Connection::reserve() {
  if (rec_) ++rec_->reserved;
}

void Connection::unreserve(bool all) {
  if (!rec_) return;
  if (all) {
    rec_->reserved = 0;
  } else {
    std::int32_t left = --rec_->reserved;
    if (left < 0) {
      rec_->reserved = 0;
      SF_THROW("unreserve", Xstate());
    }
    if (left > 0) return;
  }
  SF_LOG(5, "conn %llu/%d now unreserved", static_cast<ull>(rec_->fd.load()), rec_->id);
  if (ReaderMailbox* m = rec_->mailbox.load()) m->post(rec_);
}

Adaptor* Connection::getAdaptor() const {
  return rec_ ? rec_->top : nullptr;
}

void Connection::push(Adaptor* a) {
  if (!rec_ || !a) return;
  Adaptor* old = rec_->top;
  a->chain(old);
  SF_LOG(2, "pushed adaptor %x:%x", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(a)),
         static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(old)));
  rec_->top = a;
  a->init(this);
}

Adaptor* Connection::pop() {
  if (!rec_ || !rec_->top) return nullptr;
  Adaptor* a = rec_->top;
  rec_->top = a->unchain();
  return a;
}

socket_t Connection::socketNo() const {
  return rec_ ? rec_->fd.load() : INVALID_SOCK;
}
int Connection::nonce() const {
  return rec_ ? rec_->id : -1;
}
std::string Connection::getSid() const {
  return sfi_fmtlog("%u", static_cast<unsigned>(nonce()));
}
std::string Connection::remoteinfo() const {
  return rec_ ? rec_->remote : std::string();
}
std::string Connection::localinfo() const {
  return rec_ ? rec_->local : std::string();
}
bool Connection::isValid(i_Connection* rec) {
  return rec && rec->fd.load() != INVALID_SOCK;
}

void Connection::read(Buffer& buf) {
  if (!rec_ || !rec_->top) SF_THROW("readPdu", Xstate());
  rec_->top->readPdu(this, buf);
}

void Connection::write(const Buffer& buf) {
  if (!rec_ || !rec_->top) SF_THROW("write", Xstate());
  rec_->top->write(this, buf);
}

bool Connection::hasBufferedData() const {
  return rec_ && rec_->top && rec_->top->hasBufferedData();
}

bool Connection::isReadReady() {
  return isReadReady(0);
}

bool Connection::isReadReady(unsigned ms) {
  socket_t s = socketNo();
  int r = s == INVALID_SOCK ? -1 : platform::wait_readable(s, static_cast<int>(ms));
  SF_LOG(5, "%llu.isReadReady(%d ms) -> %d", static_cast<ull>(s), static_cast<int>(ms), r);
  return r != 0;
}

bool Connection::check() {
  socket_t s = socketNo();
  if (s == INVALID_SOCK) return false;
  int r = platform::wait_readable(s, 0);
  if (r == 0) return true;
  char c;
  return platform::sock_recv(s, &c, 1, true) == 1;
}

void Connection::closeNotify(MessageQ* q) {
  if (!rec_) return;
  std::lock_guard<std::mutex> guard(rec_->aux);
  rec_->closeNotify.push_back(q);
}

unsigned Connection::readTimeout_s() const {
  return rec_ ? rec_->readTimeout_s : 0;
}
void Connection::setReadTimeout_s(unsigned seconds) {
  if (rec_) rec_->readTimeout_s = seconds;
}

void tcp_close(Connection& c) {
  if (c.record()) c.record()->close();
}

// ---- socket operations ----

void setsocketblockingmode(socket_t fd, bool blocking) {
  SF_LOG(6, "setsocketblockingmode - setting nonblocking flag of fd %llu to %d",
         static_cast<ull>(fd), blocking ? 0 : 1);
  if (fd == INVALID_SOCK || platform::set_blocking(fd, blocking) != 0)
    SF_THROW("setsocketnonblocking.ioctlsocket", Xio());
}

Connection sfi_accept(Port& port, int* error) {
  i_Port* p = port.p;
  socket_t lfd = p->fd.load();
  socket_t s = lfd == INVALID_SOCK ? INVALID_SOCK : platform::sock_accept(lfd);
  if (s == INVALID_SOCK) {
    *error = platform::last_error();
    return Connection();
  }
  *error = 0;
  Connection c(new i_Connection(s));
  i_Connection* ic = c.record();
  ic->readTimeout_s = static_cast<std::uint32_t>(getVarInt("sf.reader.readtimeout", 5));
  setsocketblockingmode(s, true);
  platform::set_rcvtimeo_ms(s, ic->readTimeout_s * 1000u);
  // A peer that stops reading must not hold a worker in send() for ever: a
  // send that makes no progress for as long as a read may wait fails, the
  // worker rejects and the connection closes.
  platform::set_sndtimeo_ms(s, ic->readTimeout_s * 1000u);
  std::string ip;
  int portno = 0;
  if (platform::peer_name(s, &ip, &portno) != 0)
    SF_SYSFAIL(-1, "getpeername( ic->fd, (sockaddr *)&sa, &lenaddr_sa )");
  else
    ic->remote = sfi_fmtlog("%s+%d", ip.c_str(), portno);
  if (platform::local_name(s, &ip, &portno) != 0)
    SF_SYSFAIL(-1, "getsockname( ic->fd, (sockaddr *)&sa, &lenaddr_sa )");
  else
    ic->local = sfi_fmtlog("%s+%d", ip.c_str(), portno);
  SF_LOG(1, "%llu.accept fd=%llu/id=%d on %s from %s", static_cast<ull>(lfd), static_cast<ull>(s),
         ic->id, ic->local.c_str(), ic->remote.c_str());
  NET_TRACE("accept", "", s, ic->id);
  return c;
}

Connection tcp_accept(Port& port) {
  socket_t lfd = port.p->fd.load();
  setsocketblockingmode(lfd, false);
  int error;
  Connection c = sfi_accept(port, &error);
  if (!c) {
    // The failed accept shows as the blocking-mode call on no socket.
    platform::set_last_error(error);
    setsocketblockingmode(INVALID_SOCK, true);
  }
  return c;
}

namespace {

Connection outgoing(const PortAddr& p) {
  socket_t s = platform::sock_stream(p.addr->family());
  if (s == INVALID_SOCK) {
    SF_SYSFAIL(-1, "socket(p.addr->family(), SOCK_STREAM, 0)");
    SF_THROW("socket", Xio());
  }
  return Connection(new i_Connection(s));
}

[[noreturn]] void connectFailed(const PortAddr& p, int err) {
  SF_EVENT("01_sf_connect_s", p.str().c_str());
  platform::set_last_error(err);
  SF_THROW("tcp_connect", Xsys("connect"));
}

void connected(Connection& c, const PortAddr& p) {
  socket_t s = c.socketNo();
  c.record()->remote = p.str();
  if (platform::set_linger(s, 0, p.linger) != 0) {
    SF_SYSFAIL(-1, "setsockopt(s, SOL_SOCKET, SO_LINGER, (char *) &ling, sizeof(ling))");
    SF_THROW("tcp_connect", Xio());
  }
  if (p.nic().compare(0, 6, "/local") != 0 && platform::set_nodelay(s, 1) != 0) {
    SF_SYSFAIL(-1, "setsockopt(s,6,TCP_NODELAY,(char*)&status, sizeof status)");
    SF_THROW("tcp_connect", Xio());
  }
  NET_TRACE("connected", "", s, c.nonce());
  SF_LOG(1, "connect [%llu] to %s", static_cast<ull>(s), p.str().c_str());
}

}  // namespace

Connection tcp_connect(const PortAddr& p) {
  Connection c = outgoing(p);
  if (platform::sock_connect(c.socketNo(), p.addr->addr(), p.addr->addrlen()) != 0)
    connectFailed(p, platform::last_error());
  connected(c, p);
  return c;
}

Connection sfi_connectStart(const PortAddr& p, bool* pending) {
  Connection c = outgoing(p);
  socket_t s = c.socketNo();
  platform::set_blocking(s, false);
  c.record()->nonBlocking = true;
  *pending = platform::sock_connect(s, p.addr->addr(), p.addr->addrlen()) != 0;
  if (*pending) {
    int err = platform::last_error();
    if (!platform::err_in_progress(err)) connectFailed(p, err);
  } else {
    connected(c, p);
  }
  return c;
}

void sfi_connectFinished(Connection& c, const PortAddr& p) {
  if (int err = platform::connect_result(c.socketNo())) connectFailed(p, err);
  connected(c, p);
}

namespace {

// Restores blocking mode when a receive ends, however it ends.
struct BlockingAgain {
  socket_t fd;
  ~BlockingAgain() {
    if (fd != INVALID_SOCK) platform::set_blocking(fd, true);
  }
};

[[noreturn]] void readTimeout(i_Connection* ic, bool fromRecv) {
  std::string seconds = sfi_fmtlog("%d", static_cast<int>(ic->readTimeout_s));
  SF_EVENT("09_sf_readtimeout_s_s_d", ic->local.c_str(), ic->remote.c_str(), seconds.c_str());
  if (fromRecv) SF_THROW("tcp_recv read timeout", Xiotimeout());
  SF_THROW("read timeout", Xiotimeout());
}

}  // namespace

void tcp_recv(Connection& c, Buffer& buf, TcpRecvType type, size_t n) {
  i_Connection* ic = c.record();
  socket_t s = ic ? ic->fd.load() : INVALID_SOCK;
  if (s == INVALID_SOCK) SF_THROW("tcp_recv", Xsys("disconnect"));
  size_t offs = buf.size();
  size_t total = 0;
  if (type == RecvExact)
    SF_LOG(3, "%llu.tcp_recv offs=%zd nbytes_req=%zd on %s from %s", static_cast<ull>(s), offs, n,
           ic->local.c_str(), ic->remote.c_str());
  else
    SF_LOG(3, "%llu.tcp_recv offs=%zd nbytes_max=%zd on %s from %s", static_cast<ull>(s), offs, n,
           ic->local.c_str(), ic->remote.c_str());
  if ((type == RecvTillEof || type == RecvUptoNB) && !ic->nonBlocking) {
    if (platform::set_blocking(s, false) != 0) SF_THROW("tcp_recv.ioctlsocket", Xio());
  }
  if (type != RecvTillEof && n == 0) SF_THROW("tcp_recv.badmaxlength", Xio());
  if (!ic->nonBlocking && platform::set_blocking(s, false) != 0)
    SF_THROW("tcp_recv.ioctlsocket", Xio());
  BlockingAgain restore{ic->nonBlocking ? INVALID_SOCK : s};

  // Bytes that have arrived already are served first.
  total = sfi_takeInput(ic, buf, n);
  if (total != 0 && type == RecvUptoNB) {
    sfi_iodump("recv", ic, buf, total);
    return;
  }

  // A non-blocking socket is read before it is waited for: what has arrived
  // already costs no wait.
  const bool tryFirst = ic->nonBlocking || type == RecvTillEof || type == RecvUptoNB;
  bool wait = !tryFirst;
  for (;;) {
    if (n != 0 && total >= n) break;
    bool waited = wait;
    while (wait) {
      int ready = platform::wait_readable(s, static_cast<int>(ic->readTimeout_s * 1000u));
      if (ready == 0) readTimeout(ic, false);
      if (ready < 0) {
        if (platform::err_interrupted(platform::last_error())) continue;
        SF_THROW("select", Xio());
      }
      break;
    }
    wait = !tryFirst;
    size_t chunk = n != 0 ? n - total : 8192;
    buf.extend(offs + total + chunk);
    long got = platform::sock_recv(s, buf.data + offs + total, chunk);
    SF_LOG(3, "%llu.recv->%d bytes; total=%zd", static_cast<ull>(s), static_cast<int>(got), total);
    if (got < 0) {
      int err = platform::last_error();
      if (platform::err_timed_out(err)) readTimeout(ic, true);
      if (platform::err_conn_reset(err)) {
        SF_LOG(4, "connection forcibly closed by client");
        SF_THROW("tcp_recv", Xclosed());
      }
      if (platform::err_would_block(err) && !waited) {
        wait = true;  // nothing yet: wait for it
        continue;
      }
      if (platform::err_would_block(err) || platform::err_interrupted(err)) {
        if (type == RecvUptoNB && !platform::err_interrupted(err)) break;
        continue;
      }
      SF_THROW("tcp_recv", Xio());
    }
    if (got == 0) {
      if (type == RecvTillEof) break;
      SF_THROW("tcp_recv", Xclosed());
    }
    total += static_cast<size_t>(got);
    buf.resize(offs + total);
    NET_TRACE("recv", "", got, 0);
    if (type == RecvUptoNB) break;
  }
  sfi_iodump("recv", ic, buf, total);
}

void tcp_write(Connection& c, const Buffer& buf) {
  i_Connection* ic = c.record();
  socket_t s = ic ? ic->fd.load() : INVALID_SOCK;
  NET_TRACE("send", "", buf.size(), 0);
  SF_LOG(3, "%llu.tcp_write %zd bytes -> %s", static_cast<ull>(s), static_cast<size_t>(buf.size()),
         ic ? ic->remote.c_str() : "");
  if (ic) sfi_iodump("send", ic, buf, buf.size());
  if (buf.size() == 0) return;
  std::uint32_t sent = 0;
  while (sent < buf.size()) {
    size_t chunk = buf.size() - sent;
    if (chunk > 8192) chunk = 8192;
    long r = s == INVALID_SOCK ? -1 : platform::sock_send(s, buf.data + sent, chunk);
    SF_LOG(6, "%llu.send %d bytes", static_cast<ull>(s), static_cast<int>(chunk));
    if (r < 0 && platform::err_would_block(platform::last_error())) {
      // A non-blocking socket whose peer is slow to read: wait as long as a
      // blocking send would have.
      if (platform::wait_writable(s, static_cast<int>(ic->readTimeout_s * 1000u)) > 0) continue;
      platform::set_last_error(platform::err_timed_out_code());
    }
    if (r < 0) SF_THROW("tcp_write", Xio());
    sent += static_cast<std::uint32_t>(r);
  }
}

// ---- per-connection input ----

std::size_t sfi_pending(const i_Connection* rec) {
  return rec->input.size() - rec->inputPos;
}

std::size_t sfi_takeInput(i_Connection* rec, Buffer& buf, std::size_t n) {
  std::size_t avail = sfi_pending(rec);
  std::size_t take = n != 0 && n < avail ? n : avail;
  if (take == 0) return 0;
  buf.append(rec->input.data() + rec->inputPos, take);
  rec->inputPos += take;
  if (rec->inputPos == rec->input.size()) {
    // All consumed: an idle connection keeps no buffer.
    std::string().swap(rec->input);
    rec->inputPos = 0;
  }
  return take;
}

void sfi_unreadInput(i_Connection* rec, const std::string& bytes) {
  if (bytes.empty()) return;
  rec->input = bytes + rec->input.substr(rec->inputPos);
  rec->inputPos = 0;
}

void sfi_messageGone(i_Connection* rec) {
  if (--rec->inFlight < kMaxInFlight && rec->held.exchange(false))
    if (ReaderMailbox* m = rec->mailbox.load()) m->post(rec);
}

InputFill sfi_fillInput(i_Connection* rec, std::size_t max, bool peerClosed) {
  // Received into scratch space first, so that the connection's own buffer
  // only ever holds what arrived.
  static thread_local char scratch[16384];
  socket_t s = rec->fd.load();
  InputFill fill;
  fill.ended = s == INVALID_SOCK;
  while (!fill.ended && sfi_pending(rec) < max) {
    std::size_t want = std::min(max - sfi_pending(rec), sizeof scratch);
    long r = platform::sock_recv(s, scratch, want);
    if (r > 0) {
      if (rec->inputPos != 0) {
        rec->input.erase(0, rec->inputPos);  // drop what was consumed before growing
        rec->inputPos = 0;
      }
      rec->input.append(scratch, static_cast<std::size_t>(r));
      fill.got += static_cast<std::size_t>(r);
      SF_LOG(3, "%llu.recv->%d bytes; total=%zd", static_cast<ull>(s), static_cast<int>(r),
             fill.got);
      if (static_cast<std::size_t>(r) < want && !peerClosed) {  // a stream gives all it has
        fill.emptied = true;
        break;
      }
      continue;
    }
    int err = platform::last_error();
    if (r < 0 && platform::err_interrupted(err)) continue;
    if (r < 0 && platform::err_would_block(err)) {
      fill.emptied = true;
      break;
    }
    if (r < 0 && platform::err_conn_reset(err)) SF_LOG(4, "connection forcibly closed by client");
    fill.ended = true;
  }
  return fill;
}

// ---- the I/O dump ----

namespace {

struct DumpSettings {
  bool raw;         // SF_IOLOG set: raw bytes
  std::string dir;  // sf.datdir
};

const DumpSettings& dumpSettings() {
  static DumpSettings d{getenv("SF_IOLOG") != nullptr, getVarStr("sf.datdir", ".")};
  return d;
}

bool dumpOn(bool send) {
  // Read once per process for each direction.
  static const bool envSend = getenv("SF_IOLOG") != nullptr;
  static const bool envRecv = getenv("SF_IOLOG") != nullptr;
  return sfi_on(9) || (send ? envSend : envRecv);
}

}  // namespace

void sfi_iodump(const char* dir, i_Connection* ic, const Buffer& buf, size_t count) {
  bool send = dir[0] == 's';
  if (!dumpOn(send)) return;
  const DumpSettings& d = dumpSettings();
  std::string path = sfi_fmtlog("%s/io.log", d.dir.c_str());
  FILE* f = fopen(path.c_str(), "ab");
  if (!f) {
    SF_LOG(1, "can't open io dump file %s", path.c_str());
    return;
  }
  std::int64_t secs = static_cast<std::int64_t>(time(nullptr));
  int ms = static_cast<int>((platform::tick_count_ms() % 1000) * 1000);
  fprintf(f,
          send ? "<%d.%d>> send[%" PRIu64 "] %zd bytes on %s to %s\n"
               : "<%d.%d>> recv[%" PRIu64 "] %zd bytes on %s from %s\n",
          static_cast<int>(secs), ms, static_cast<std::uint64_t>(ic->fd.load()), count,
          ic->local.c_str(), ic->remote.c_str());
  if (d.raw) {
    if (buf.size()) fwrite(buf.data, 1, buf.size(), f);
    fputc('\n', f);
  } else {
    buf.dumpBin(f, 0);
  }
  fclose(f);
}

}  // namespace sf
