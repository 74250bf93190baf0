// Addresses, listening sockets and the shared-port table.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "sf/base/eventreport.h"
#include "sf/base/locks.h"
#include "sf/base/log.h"
#include "sf/net/net.h"
#include "sf/platform/syserr.h"
#include "sf/script/tcl.h"
#include "sf/sferr.h"

namespace sf {

// ---- addresses ----

i_TcpPortAddr::i_TcpPortAddr(const char* nic, const char* port) {
  int portno = atoi(port ? port : "");
  if (!platform::make_ipv4_addr(nic, portno, sa_)) {
    SF_SYSFAIL(-1, "gethostbyname(nic)");
    SF_THROW("gethostbyname", Xsys("syserr"));
  }
}

int i_TcpPortAddr::family() const {
  return platform::family_ipv4();
}

i_LocalPortAddr::i_LocalPortAddr(const char*, const char*) {
  SF_THROW("unimplemented", Xstate());
}

PortAddr::PortAddr(const char* nic, const char* port)
    : addr(nullptr),
      linger(getVarInt("sf.tcp.linger", 0)),
      backlog(getVarInt("sf.tcp.backlog", 5)),
      nic_(nic ? nic : ""),
      port_(port ? port : "") {
  if (nic && strcmp(nic, "/local") == 0)
    addr = new i_LocalPortAddr(nic, port);
  else
    addr = new i_TcpPortAddr(nic, port);
}

PortAddr::~PortAddr() {
  delete addr;
}

std::string PortAddr::str() const {
  return nic_ + "+" + port_;
}

// ---- ports ----

i_Port::i_Port(const std::string& name_, socket_t fd_) : name(name_), fd(fd_), idleTimeout_s(-1) {}

i_Port::~i_Port() {
  socket_t s = fd.exchange(INVALID_SOCK);
  if (s != INVALID_SOCK) platform::sock_close(s);
  // connections, the event and the lock go with the members.
}

ReaderMailbox* i_Port::newMailbox() {
  MxLock guard(lock);
  mailboxes.emplace_back();
  return &mailboxes.back();
}

void i_Port::wakeAll() {
  MxLock guard(lock);
  for (ReaderMailbox& m : mailboxes) m.wake();
}

// Neither setter takes the port lock: scripts call them holding the
// interpreter lock, and the reader takes the interpreter lock while it holds
// the port lock.
void Port::setAcceptAction(const char* script) {
  std::lock_guard<std::mutex> guard(p->actionLock);
  p->acceptAction = script ? script : "";
}

void Port::setIdleTimeout_s(int seconds) {
  p->idleTimeout_s = seconds;
}

socket_t Port::socketNo() const {
  return p ? p->fd.load() : INVALID_SOCK;
}

std::string Port::name() const {
  return p ? p->name : std::string();
}

size_t Port::connectionCount() const {
  if (!p) return 0;
  return p->open.load();
}

// ---- binding ----

namespace {

// Whether a socket with SO_REUSEADDR could bind addr. On Linux such a bind
// fails while another socket listens on the port, but not over connections
// that a previous server closed itself (TIME_WAIT). Leaves the system error
// as it found it.
bool onlyLeftoversHold(const PortAddr& addr) {
  const int error = platform::last_error();
  socket_t s = platform::sock_stream(addr.addr->family());
  bool free = s != INVALID_SOCK && platform::set_reuseaddr(s, 1) == 0 &&
              platform::sock_bind(s, addr.addr->addr(), addr.addr->addrlen()) == 0;
  if (s != INVALID_SOCK) platform::sock_close(s);
  platform::set_last_error(error);
  return free;
}

}  // namespace

// The socket is bound twice on purpose: the first pass, without address
// reuse, proves that nobody else holds the port; the socket kept is a second
// one bound with SO_REUSEADDR, so that a restart finds the port free at once.
// A first pass refused only because of the previous server's closed
// connections (a bind without reuse refuses those for a minute) is proof
// enough.
socket_t bindUserSock(const PortAddr& addr) {
  socket_t s = INVALID_SOCK;
  for (int pass = 0; pass < 2; ++pass) {
    if (s != INVALID_SOCK) platform::sock_close(s);
    s = platform::sock_stream(addr.addr->family());
    if (s == INVALID_SOCK) SF_THROW("bindUserSock", Xsys("socket"));
    SF_LOG(4, "binding with SO_REUSEADDR set to %d", pass);
    int reuseaddr = pass;
    if (platform::set_reuseaddr(s, reuseaddr) != 0) {
      SF_SYSFAIL(-1,
                 "setsockopt(s, SOL_SOCKET, SO_REUSEADDR, (char*)&reuseaddr, sizeof reuseaddr)");
      platform::sock_close(s);
      SF_THROW("bindUserSock", Xio());
    }
    if (addr.linger > 0 && platform::set_linger(s, 1, addr.linger) != 0) {
      SF_SYSFAIL(-1, "setsockopt(s, SOL_SOCKET, SO_LINGER, (char*)&ling, sizeof(ling))");
      platform::sock_close(s);
      SF_THROW("bindUserSock", Xio());
    }
    if (addr.nic().compare(0, 6, "/local") != 0 && platform::set_nodelay(s, 1) != 0) {
      SF_SYSFAIL(-1, "setsockopt(s,6,TCP_NODELAY,(char*)&status, sizeof status)");
      platform::sock_close(s);
      SF_THROW("bindUserSock", Xio());
    }
    if (platform::sock_bind(s, addr.addr->addr(), addr.addr->addrlen()) != 0) {
      if (pass == 0 && onlyLeftoversHold(addr)) continue;
      SF_SYSFAIL(-1, "bind(s, addr.addr->addr(), addr.addr->addrlen())");
      platform::sock_close(s);
      SF_THROW("bindUserSock", Xio());
    }
    int sndbuf = getVarInt("sf.socksndbufsize", -1);
    if (sndbuf != -1) {
      SF_LOG(4, "setting socket sndbuf to %d", sndbuf);
      platform::set_sndbuf(s, sndbuf);
      int got = -1;
      platform::get_sndbuf(s, &got);
      if (got != sndbuf)
        SF_LOG(
            4,
            "setsockopt for SO_SNDBUF did not succeed - value is still %d and not %d as requested",
            got, sndbuf);
    }
  }
  return s;
}

socket_t bindsock_tcp(const PortAddr& addr) {
  socket_t s;
  try {
    s = bindUserSock(addr);
  } catch (...) {
    SF_EVENT("02_sf_bind_s", addr.str().c_str());
    throw;
  }
  SF_LOG(1, "binding socket fd=%llu to address %s", static_cast<unsigned long long>(s),
         addr.str().c_str());
  if (platform::sock_listen(s, addr.backlog) != 0) {
    SF_SYSFAIL(-1, "listen(s,addr.backlog)");
    platform::sock_close(s);
    SF_THROW("bindsock_tcp", Xsys("listen"));
  }
  unsigned timeout_ms = static_cast<unsigned>(getVarInt("sf.readtimeout", 0)) * 1000u;
  platform::set_rcvtimeo_ms(s, timeout_ms);
  return s;
}

Port bindPort(const PortAddr& addr) {
  socket_t s = bindsock_tcp(addr);
  return Port(new i_Port(addr.str(), s));
}

// ---- the shared-port table ----
//
// Filled at start-up and hand-over, read by `bind` and by reader threads as
// they start (which may be while the process stops), swept at shutdown and
// after a hand-over. Its lock is never held while logging: logging may take
// the interpreter lock, which `bind` holds. A port record, once made, lives
// until the process ends: a starting reader may still hold it.

namespace {
struct Share {
  i_Port* port;
  std::uint32_t uses;
};
std::map<std::string, Share>& shares() {
  static auto* table = new std::map<std::string, Share>;
  return *table;
}
std::mutex& sharesLock() {
  static auto* lock = new std::mutex;
  return *lock;
}
// Ports swept from the table, kept until the process ends.
std::vector<i_Port*>& retired() {
  static auto* ports = new std::vector<i_Port*>;
  return *ports;
}
}  // namespace

void setSharedPort(const PortAddr& addr, const Port& port) {
  std::lock_guard<std::mutex> guard(sharesLock());
  shares()[addr.str()] = Share{port.p, 0};
}

void setSharedPort(const PortAddr& addr, socket_t s) {
  sfi_setSharedPortByName(addr.str(), s);
}

void sfi_setSharedPortByName(const std::string& name, socket_t s) {
  i_Port* port = new i_Port(name, s);
  std::lock_guard<std::mutex> guard(sharesLock());
  shares()[name] = Share{port, 0};
}

Port bindSharedPort(const PortAddr& addr) {
  std::string key = addr.str();
  i_Port* port = nullptr;
  {
    std::lock_guard<std::mutex> guard(sharesLock());
    auto it = shares().find(key);
    if (it != shares().end()) {
      it->second.uses++;
      port = it->second.port;
    }
  }
  if (!port) {
    SF_LOG(2, "bind %s -> not found in shared list", key.c_str());
    SF_THROW("bindShared", Xio());
  }
  SF_LOG(2, "bind shared port %s -> %llu", key.c_str(),
         static_cast<unsigned long long>(port->fd.load()));
  return Port(port);
}

int sfi_sharedPortUses(const std::string& key) {
  std::lock_guard<std::mutex> guard(sharesLock());
  auto it = shares().find(key);
  return it == shares().end() ? -1 : static_cast<int>(it->second.uses);
}

void sfi_closeUnusedSharedPorts() {
  std::vector<i_Port*> unused;
  {
    std::lock_guard<std::mutex> guard(sharesLock());
    auto& table = shares();
    for (auto it = table.begin(); it != table.end();) {
      // A port with a running reader counts as taken even if nobody bound it
      // through the table: closing it would pull it from under the reader.
      if (it->second.uses != 0 || it->second.port->readerRunning.load()) {
        ++it;
      } else {
        unused.push_back(it->second.port);
        retired().push_back(it->second.port);
        it = table.erase(it);
      }
    }
  }
  for (i_Port* port : unused) {
    socket_t s = port->fd.exchange(INVALID_SOCK);
    SF_LOG(2, "closing unused share port %llu", static_cast<unsigned long long>(s));
    if (s != INVALID_SOCK) platform::sock_close(s);
  }
}

// Used by shutdown and hand-over; fn runs without the table's lock, on the
// ports that were in the table when the call began.
void sfi_forEachSharedPort(void (*fn)(const std::string& key, i_Port* port, void* arg), void* arg) {
  std::vector<std::pair<std::string, i_Port*>> ports;
  {
    std::lock_guard<std::mutex> guard(sharesLock());
    for (auto& e : shares()) ports.emplace_back(e.first, e.second.port);
  }
  for (auto& e : ports) fn(e.first, e.second, arg);
}

}  // namespace sf
