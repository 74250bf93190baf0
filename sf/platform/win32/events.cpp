// The event set on WSAPoll, and the wake-up as a loopback datagram socket
// connected to itself.
//
// WSAPoll is given the whole watch list at every wait, so a wait costs in
// proportion to the watched sockets, not the ready ones. Each set belongs to
// the one thread that adds, drains and waits on it. Several sets watching one
// listening socket are all woken by a connection; the losers' non-blocking
// accept finds nothing, which the reader already handles.
#include "sf/platform/events.h"

#include <vector>

#include "sf/platform/win32/winsock.h"

namespace sf {
namespace platform {

struct EventSet::State {
  struct Watch {
    SOCKET s;
    std::uint64_t key;
    Mode mode;
    bool armed;
    bool writable;  // also polled for room to send
  };
  std::vector<Watch> watches;
  std::vector<WSAPOLLFD> polled;  // reused from wait to wait
  std::vector<size_t> polledWatch;
  size_t nextStart = 0;  // where the next wait starts reporting, for fairness

  Watch* find(std::uint64_t s) {
    for (Watch& w : watches)
      if (w.s == static_cast<SOCKET>(s)) return &w;
    return nullptr;
  }
};

EventSet::EventSet() : state_(new State) {}

EventSet::~EventSet() {
  delete state_;
}

int EventSet::add(std::uint64_t s, std::uint64_t key, Mode mode) {
  if (state_->find(s)) {
    WSASetLastError(WSAEINVAL);
    return -1;
  }
  state_->watches.push_back(State::Watch{static_cast<SOCKET>(s), key, mode, true, false});
  return 0;
}

// WSAPoll reports levels: an Edge socket is left out of the polled list
// from its report until its owner has read it empty, and then polled again
// (bytes that came in between are reported by the next wait).
int EventSet::drained(std::uint64_t s, std::uint64_t key) {
  State::Watch* w = state_->find(s);
  if (!w) {
    WSASetLastError(WSAENOTSOCK);
    return -1;
  }
  w->key = key;
  w->armed = true;
  return 0;
}

int EventSet::watchWrite(std::uint64_t s, std::uint64_t key, Mode mode, bool on) {
  State::Watch* w = state_->find(s);
  if (!w) {
    WSASetLastError(WSAENOTSOCK);
    return -1;
  }
  w->key = key;
  w->mode = mode;
  w->writable = on;
  return 0;
}

int EventSet::remove(std::uint64_t s) {
  std::vector<State::Watch>& ws = state_->watches;
  for (size_t i = 0; i < ws.size(); ++i) {
    if (ws[i].s == static_cast<SOCKET>(s)) {
      ws[i] = ws.back();
      ws.pop_back();
      return 0;
    }
  }
  WSASetLastError(WSAENOTSOCK);
  return -1;
}

int EventSet::wait(Ready* ready, int max, int timeout_ms) {
  State& st = *state_;
  st.polled.clear();
  st.polledWatch.clear();
  for (size_t i = 0; i < st.watches.size(); ++i) {
    if (!st.watches[i].armed) continue;
    WSAPOLLFD p;
    p.fd = st.watches[i].s;
    p.events = st.watches[i].writable ? POLLRDNORM | POLLWRNORM : POLLRDNORM;
    p.revents = 0;
    st.polled.push_back(p);
    st.polledWatch.push_back(i);
  }
  if (st.polled.empty()) {
    // WSAPoll refuses an empty list; nothing can become ready but time.
    if (timeout_ms < 0) {
      WSASetLastError(WSAEINVAL);
      return -1;
    }
    Sleep(static_cast<DWORD>(timeout_ms));
    return 0;
  }
  int r = WSAPoll(st.polled.data(), static_cast<ULONG>(st.polled.size()), timeout_ms);
  if (r < 0) return WSAGetLastError() == WSAEINTR ? 0 : -1;
  // Readable, closed by the peer, failed: all are reported, starting at a
  // point that moves on each wait so that a busy socket cannot starve the
  // ones after it when more are ready than fit.
  int n = 0;
  size_t count = st.polled.size();
  size_t start = st.nextStart % count;
  for (size_t k = 0; k < count && n < max; ++k) {
    size_t i = (start + k) % count;
    if (st.polled[i].revents == 0) continue;
    State::Watch& w = st.watches[st.polledWatch[i]];
    ready[n++] = Ready{w.key, (st.polled[i].revents & (POLLHUP | POLLERR)) != 0,
                       (st.polled[i].revents & POLLWRNORM) != 0};
    if (w.mode == Edge) w.armed = false;
  }
  st.nextStart = start + 1;
  return n;
}

namespace {
SOCKET selfConnectedDatagramSocket() {
  ensure_socket_layer();
  SOCKET s = WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) return s;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int len = sizeof sa;
  u_long nonblocking = 1;
  if (bind(s, reinterpret_cast<sockaddr*>(&sa), len) != 0 ||
      getsockname(s, reinterpret_cast<sockaddr*>(&sa), &len) != 0 ||
      connect(s, reinterpret_cast<sockaddr*>(&sa), len) != 0 ||
      ioctlsocket(s, FIONBIO, &nonblocking) != 0) {
    closesocket(s);
    return INVALID_SOCKET;
  }
  return s;
}
}  // namespace

Wakeup::Wakeup() : fd_(static_cast<std::uint64_t>(selfConnectedDatagramSocket())) {}

Wakeup::~Wakeup() {
  if (static_cast<SOCKET>(fd_) != INVALID_SOCKET) closesocket(static_cast<SOCKET>(fd_));
}

std::uint64_t Wakeup::fd() const {
  return fd_;
}

void Wakeup::notify() {
  int saved = WSAGetLastError();
  char one = 1;
  // A full queue is still readable: a failed send needs nothing more.
  send(static_cast<SOCKET>(fd_), &one, 1, 0);
  WSASetLastError(saved);
}

void Wakeup::drain() {
  int saved = WSAGetLastError();
  char buf[64];
  while (recv(static_cast<SOCKET>(fd_), buf, sizeof buf, 0) > 0) {
  }
  WSASetLastError(saved);
}

}  // namespace platform
}  // namespace sf
