// Stream sockets on POSIX.
#include "sf/platform/socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace sf {
namespace platform {

namespace {
inline int fdof(sock_t s) {
  return static_cast<int>(s);
}
}  // namespace

int family_ipv4() {
  return AF_INET;
}

bool make_ipv4_addr(const char* host, int port, void* out) {
  static_assert(sizeof(sockaddr_in) == kIpv4AddrLen, "sockaddr_in size");
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
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
      errno = rc == EAI_SYSTEM ? errno : (rc == EAI_MEMORY ? ENOMEM : EHOSTUNREACH);
      if (errno == 0) errno = EHOSTUNREACH;
      return false;
    }
    sa.sin_addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
  }
  memcpy(out, &sa, sizeof sa);
  return true;
}

sock_t sock_stream(int family) {
  int s = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return s < 0 ? kNoSock : static_cast<sock_t>(s);
}

int sock_close(sock_t s) {
  return ::close(fdof(s));
}

int sock_shutdown(sock_t s) {
  return ::shutdown(fdof(s), SHUT_RDWR);
}

int set_reuseaddr(sock_t s, int on) {
  return setsockopt(fdof(s), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

int set_linger(sock_t s, int on, int seconds) {
  linger ling;
  ling.l_onoff = on;
  ling.l_linger = seconds;
  return setsockopt(fdof(s), SOL_SOCKET, SO_LINGER, &ling, sizeof ling);
}

int set_nodelay(sock_t s, int on) {
  return setsockopt(fdof(s), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int set_sndbuf(sock_t s, int bytes) {
  return setsockopt(fdof(s), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

int get_sndbuf(sock_t s, int* bytes) {
  socklen_t len = sizeof *bytes;
  return getsockopt(fdof(s), SOL_SOCKET, SO_SNDBUF, bytes, &len);
}

int set_rcvtimeo_ms(sock_t s, unsigned ms) {
  timeval tv;
  tv.tv_sec = ms / 1000;
  tv.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  return setsockopt(fdof(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

int set_sndtimeo_ms(sock_t s, unsigned ms) {
  timeval tv;
  tv.tv_sec = ms / 1000;
  tv.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  return setsockopt(fdof(s), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

int set_blocking(sock_t s, bool blocking) {
  int flags = fcntl(fdof(s), F_GETFL, 0);
  if (flags < 0) return -1;
  int want = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  if (want == flags) return 0;
  return fcntl(fdof(s), F_SETFL, want);
}

int set_inherit(sock_t s, bool inherit) {
  int flags = fcntl(fdof(s), F_GETFD, 0);
  if (flags < 0) return -1;
  return fcntl(fdof(s), F_SETFD, inherit ? (flags & ~FD_CLOEXEC) : (flags | FD_CLOEXEC));
}

int sock_bind(sock_t s, const void* addr, int len) {
  return ::bind(fdof(s), static_cast<const sockaddr*>(addr), static_cast<socklen_t>(len));
}

int sock_listen(sock_t s, int backlog) {
  return ::listen(fdof(s), backlog);
}

sock_t sock_accept(sock_t s) {
  sockaddr_in sa;
  socklen_t len = sizeof sa;
  int r = ::accept4(fdof(s), reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC);
  return r < 0 ? kNoSock : static_cast<sock_t>(r);
}

int sock_connect(sock_t s, const void* addr, int len) {
  int r;
  do {
    r = ::connect(fdof(s), static_cast<const sockaddr*>(addr), static_cast<socklen_t>(len));
  } while (r < 0 && errno == EINTR);
  return r;
}

int connect_result(sock_t s) {
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(fdof(s), SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
  return err;
}

namespace {
int nameOf(bool peer, sock_t s, std::string* ip, int* port) {
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  socklen_t len = sizeof sa;
  int r = peer ? getpeername(fdof(s), reinterpret_cast<sockaddr*>(&sa), &len)
               : getsockname(fdof(s), reinterpret_cast<sockaddr*>(&sa), &len);
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
  return ::recv(fdof(s), buf, n, peek ? MSG_PEEK : 0);
}

long sock_send(sock_t s, const void* buf, size_t n) {
  long r;
  do {
    r = ::send(fdof(s), buf, n, MSG_NOSIGNAL);
  } while (r < 0 && errno == EINTR);
  return r;
}

bool err_would_block(int e) {
  return e == EAGAIN || e == EWOULDBLOCK;
}
bool err_timed_out(int e) {
  return e == ETIMEDOUT;
}
int err_timed_out_code() {
  return ETIMEDOUT;
}
bool err_conn_reset(int e) {
  return e == ENETRESET || e == ECONNABORTED || e == ECONNRESET || e == EPIPE;
}
bool err_interrupted(int e) {
  return e == EINTR;
}
bool err_in_progress(int e) {
  return e == EINPROGRESS || e == EALREADY;
}
bool err_out_of_descriptors(int e) {
  return e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM;
}

namespace {
int waitFor(sock_t s, short events, int timeout_ms) {
  pollfd p;
  p.fd = fdof(s);
  p.events = events;
  p.revents = 0;
  int r = ::poll(&p, 1, timeout_ms);
  if (r > 0) return 1;
  return r;
}
}  // namespace

int wait_readable(sock_t s, int timeout_ms) {
  return waitFor(s, POLLIN, timeout_ms);
}
int wait_writable(sock_t s, int timeout_ms) {
  return waitFor(s, POLLOUT, timeout_ms);
}

}  // namespace platform
}  // namespace sf
