// Stream sockets, behind a small interface.
//
// Socket handles are the system's descriptors widened to 64 bits, all ones
// meaning none (sf::INVALID_SOCK). Every call returns the system's result
// convention: 0 (or a count, or a socket) on success, -1 / INVALID_SOCK on
// failure with last_error() telling why. Nothing here logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace sf {
namespace platform {

typedef std::uint64_t sock_t;
constexpr sock_t kNoSock = ~static_cast<sock_t>(0);

// Address family of IPv4 (for socket()).
int family_ipv4();
// Size of an IPv4 socket address; out must have room for it.
constexpr int kIpv4AddrLen = 16;
// Resolves host (null or empty: any address) to its first IPv4 address and
// fills an IPv4 socket address with it and port. False when the name does
// not resolve (last_error() set).
bool make_ipv4_addr(const char* host, int port, void* out);

sock_t sock_stream(int family);
int sock_close(sock_t s);
// Stops both directions at once, so the peer sees the end and a thread
// blocked in a receive on s returns; the descriptor stays allocated.
int sock_shutdown(sock_t s);

int set_reuseaddr(sock_t s, int on);
int set_linger(sock_t s, int on, int seconds);
int set_nodelay(sock_t s, int on);
int set_sndbuf(sock_t s, int bytes);
int get_sndbuf(sock_t s, int* bytes);
int set_rcvtimeo_ms(sock_t s, unsigned ms);
int set_sndtimeo_ms(sock_t s, unsigned ms);
int set_blocking(sock_t s, bool blocking);
// The descriptor survives exec (hand-over to a child) or not.
int set_inherit(sock_t s, bool inherit);

int sock_bind(sock_t s, const void* addr, int len);
int sock_listen(sock_t s, int backlog);
sock_t sock_accept(sock_t s);
int sock_connect(sock_t s, const void* addr, int len);
// How a connect begun without waiting ended, once s is writable: 0 when the
// connection is made, else the system's error code.
int connect_result(sock_t s);
// Dotted address and host-order port of the peer / of the local end.
int peer_name(sock_t s, std::string* ip, int* port);
int local_name(sock_t s, std::string* ip, int* port);
// The port a socket is bound to (host order), -1 on failure.
int bound_port(sock_t s);

// recv/send; MSG_PEEK with peek. Never raise SIGPIPE.
long sock_recv(sock_t s, void* buf, size_t n, bool peek = false);
long sock_send(sock_t s, const void* buf, size_t n);

// Classes of last_error() after a failed receive or send.
bool err_would_block(int e);
bool err_timed_out(int e);
// The code err_timed_out() recognises.
int err_timed_out_code();
// Reset, aborted, broken pipe: the peer is gone.
bool err_conn_reset(int e);
bool err_interrupted(int e);
// A connect on a non-blocking socket goes on in the background.
bool err_in_progress(int e);
// Out of descriptors or kernel memory (an accept that may work later).
bool err_out_of_descriptors(int e);

// Waits up to timeout_ms (-1: for ever) for s to become readable; 1 ready,
// 0 time-out, -1 error.
int wait_readable(sock_t s, int timeout_ms);
// The same for room to send.
int wait_writable(sock_t s, int timeout_ms);

}  // namespace platform
}  // namespace sf
