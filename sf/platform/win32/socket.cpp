// Stream sockets on Winsock.
#include "sf/platform/socket.h"

#include <climits>
#include <cstring>

#include "sf/platform/win32/winsock.h"

namespace sf {
namespace platform {

namespace {
inline SOCKET sockof(sock_t s) {
  return static_cast<SOCKET>(s);
}

int clampLen(size_t n) {
  return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n);
}

template <typename T>
int setOption(sock_t s, int level, int name, T value) {
  return setsockopt(sockof(s), level, name, reinterpret_cast<const char*>(&value), sizeof value);
}
}  // namespace

int family_ipv4() {
  return AF_INET;
}

bool make_ipv4_addr(const char* host, int port, void* out) {
  static_assert(sizeof(sockaddr_in) == kIpv4AddrLen, "sockaddr_in size");
  ensure_socket_layer();
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<u_short>(port));
  sa.sin_addr.s_addr = htonl(INADDR_ANY);
  if (host && *host) {
    addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    int rc = getaddrinfo(host, nullptr, &hints, &res);
    if (rc != 0 || !res) {
      if (res) freeaddrinfo(res);
      WSASetLastError(rc != 0 ? rc : WSAHOST_NOT_FOUND);
      return false;
    }
    sa.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
  }
  memcpy(out, &sa, sizeof sa);
  return true;
}

sock_t sock_stream(int family) {
  ensure_socket_layer();
  SOCKET s = WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  return s == INVALID_SOCKET ? kNoSock : static_cast<sock_t>(s);
}

int sock_close(sock_t s) {
  return closesocket(sockof(s));
}

int sock_shutdown(sock_t s) {
  return shutdown(sockof(s), SD_BOTH);
}

// What the library asks of address reuse is that the socket it keeps binds
// although the port has just been used, and that nobody else binds it while
// it listens. Windows' SO_REUSEADDR would let another socket take over a
// listening port, so the exclusive option is set instead.
int set_reuseaddr(sock_t s, int on) {
  BOOL value = on ? TRUE : FALSE;
  return setOption(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, value);
}

int set_linger(sock_t s, int on, int seconds) {
  linger ling;
  ling.l_onoff = static_cast<u_short>(on);
  ling.l_linger = static_cast<u_short>(seconds);
  return setOption(s, SOL_SOCKET, SO_LINGER, ling);
}

int set_nodelay(sock_t s, int on) {
  BOOL value = on ? TRUE : FALSE;
  return setOption(s, IPPROTO_TCP, TCP_NODELAY, value);
}

int set_sndbuf(sock_t s, int bytes) {
  return setOption(s, SOL_SOCKET, SO_SNDBUF, bytes);
}

int get_sndbuf(sock_t s, int* bytes) {
  int len = sizeof *bytes;
  return getsockopt(sockof(s), SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char*>(bytes), &len);
}

int set_rcvtimeo_ms(sock_t s, unsigned ms) {
  DWORD value = ms;
  return setOption(s, SOL_SOCKET, SO_RCVTIMEO, value);
}

int set_sndtimeo_ms(sock_t s, unsigned ms) {
  DWORD value = ms;
  return setOption(s, SOL_SOCKET, SO_SNDTIMEO, value);
}

int set_blocking(sock_t s, bool blocking) {
  u_long nonblocking = blocking ? 0 : 1;
  return ioctlsocket(sockof(s), FIONBIO, &nonblocking);
}

int set_inherit(sock_t s, bool inherit) {
  HANDLE h = reinterpret_cast<HANDLE>(sockof(s));
  return SetHandleInformation(h, HANDLE_FLAG_INHERIT, inherit ? HANDLE_FLAG_INHERIT : 0) ? 0 : -1;
}

int sock_bind(sock_t s, const void* addr, int len) {
  return bind(sockof(s), static_cast<const sockaddr*>(addr), len);
}

int sock_listen(sock_t s, int backlog) {
  return listen(sockof(s), backlog);
}

sock_t sock_accept(sock_t s) {
  sockaddr_in sa;
  int len = sizeof sa;
  SOCKET r = accept(sockof(s), reinterpret_cast<sockaddr*>(&sa), &len);
  if (r == INVALID_SOCKET) return kNoSock;
  // Accepted sockets take the listener's properties but not its creation
  // flags: keep them out of child processes.
  SetHandleInformation(reinterpret_cast<HANDLE>(r), HANDLE_FLAG_INHERIT, 0);
  return static_cast<sock_t>(r);
}

int sock_connect(sock_t s, const void* addr, int len) {
  return connect(sockof(s), static_cast<const sockaddr*>(addr), len);
}

int connect_result(sock_t s) {
  int err = 0;
  int len = sizeof err;
  if (getsockopt(sockof(s), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &len) != 0)
    return WSAGetLastError();
  return err;
}

namespace {
int nameOf(bool peer, sock_t s, std::string* ip, int* port) {
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  int len = sizeof sa;
  int r = peer ? getpeername(sockof(s), reinterpret_cast<sockaddr*>(&sa), &len)
               : getsockname(sockof(s), reinterpret_cast<sockaddr*>(&sa), &len);
  if (r != 0) return r;
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &sa.sin_addr, text, sizeof text);
  *ip = text;
  *port = ntohs(sa.sin_port);
  return 0;
}
}  // namespace

int peer_name(sock_t s, std::string* ip, int* port) {
  return nameOf(true, s, ip, port);
}
int local_name(sock_t s, std::string* ip, int* port) {
  return nameOf(false, s, ip, port);
}

int bound_port(sock_t s) {
  std::string ip;
  int port = -1;
  return local_name(s, &ip, &port) == 0 ? port : -1;
}

long sock_recv(sock_t s, void* buf, size_t n, bool peek) {
  return recv(sockof(s), static_cast<char*>(buf), clampLen(n), peek ? MSG_PEEK : 0);
}

// Windows sockets raise no signal on a peer's close: plain send.
long sock_send(sock_t s, const void* buf, size_t n) {
  return send(sockof(s), static_cast<const char*>(buf), clampLen(n), 0);
}

bool err_would_block(int e) {
  return e == WSAEWOULDBLOCK;
}
bool err_timed_out(int e) {
  return e == WSAETIMEDOUT;
}
int err_timed_out_code() {
  return WSAETIMEDOUT;
}
bool err_conn_reset(int e) {
  return e == WSAENETRESET || e == WSAECONNABORTED || e == WSAECONNRESET || e == WSAESHUTDOWN;
}
bool err_interrupted(int e) {
  return e == WSAEINTR;
}
bool err_in_progress(int e) {
  return e == WSAEWOULDBLOCK || e == WSAEINPROGRESS || e == WSAEALREADY;
}
bool err_out_of_descriptors(int e) {
  return e == WSAEMFILE || e == WSAENOBUFS;
}

namespace {
int waitFor(sock_t s, short events, int timeout_ms) {
  WSAPOLLFD p;
  p.fd = sockof(s);
  p.events = events;
  p.revents = 0;
  int r = WSAPoll(&p, 1, timeout_ms);
  if (r > 0) return 1;
  return r;
}
}  // namespace

int wait_readable(sock_t s, int timeout_ms) {
  return waitFor(s, POLLRDNORM, timeout_ms);
}
int wait_writable(sock_t s, int timeout_ms) {
  return waitFor(s, POLLWRNORM, timeout_ms);
}

}  // namespace platform
}  // namespace sf
