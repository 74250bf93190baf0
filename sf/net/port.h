// Listening addresses and ports.
//
// A PortAddr names where to listen or connect: an interface or host text and
// a port text, resolved to an IPv4 socket address at construction. A Port is
// a bound, listening socket together with the connections accepted on it,
// which a Reader's threads serve. Ports handed over by a parent process, and ports
// this process publishes for a later child, are kept in the shared-port table
// keyed by PortAddr::str().
#pragma once

#include <cstdint>
#include <string>

namespace sf {

// A socket handle: the system's descriptor widened to 64 bits. All ones means
// no socket.
typedef std::uint64_t socket_t;
constexpr socket_t INVALID_SOCK = ~static_cast<socket_t>(0);

// The socket address behind a PortAddr.
class i_PortAddr {
 public:
  virtual int family() const = 0;
  virtual const void* addr() const = 0;
  virtual int addrlen() const = 0;
  virtual ~i_PortAddr() = default;
};

class PortAddr {
 public:
  // Stores both texts, reads sf.tcp.linger (default 0) and sf.tcp.backlog
  // (default 5), then resolves: nic "/local" throws Xstate (local sockets are
  // not supported); otherwise nic (empty or null: any interface) is looked up
  // as an IPv4 host and port is read like atoi (0 if not a number). A name
  // that does not resolve throws Xsys.
  PortAddr(const char* nic, const char* port);
  // One owner per resolved address: a copy would delete it twice.
  PortAddr(const PortAddr&) = delete;
  PortAddr& operator=(const PortAddr&) = delete;
  ~PortAddr();

  // nic + "+" + port: the key of the shared-port table.
  std::string str() const;
  std::string nic() const { return nic_; }
  std::string port() const { return port_; }

  i_PortAddr* addr;
  std::int32_t linger;
  std::int32_t backlog;

 private:
  std::string nic_;
  std::string port_;
};

class i_Port;

// Handle to a listening port; copying copies the pointer, destroying does
// nothing (the record lives until shutdown).
class Port {
 public:
  Port() : p(nullptr) {}
  explicit Port(i_Port* rec) : p(rec) {}
  bool operator!() const { return p == nullptr; }

  void setAcceptAction(const char* script);
  void setIdleTimeout_s(int seconds);

  // The listening socket, INVALID_SOCK once closed.
  socket_t socketNo() const;
  std::string name() const;
  // Number of connections in the port's list.
  size_t connectionCount() const;

  i_Port* p;
};

// Binds and listens on a new socket; the port is not entered in the
// shared-port table.
Port bindPort(const PortAddr& addr);
// Enters port under addr.str() with use count 0, replacing any entry.
void setSharedPort(const PortAddr& addr, const Port& port);
// Wraps an already listening socket (inherited from a parent) in a new port
// and enters it under addr.str() with use count 0.
void setSharedPort(const PortAddr& addr, socket_t s);
// Takes the shared port of addr.str() (use count + 1); throws Xio when there
// is none.
Port bindSharedPort(const PortAddr& addr);

// Lower level: create and bind (twice, see port.cpp) without listening, and
// bind plus listen. Both return the socket.
socket_t bindUserSock(const PortAddr& addr);
socket_t bindsock_tcp(const PortAddr& addr);

}  // namespace sf
