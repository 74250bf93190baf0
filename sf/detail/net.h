// The records behind the networking handles. Internal to the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "sf/connection.h"
#include "sf/i_mx.h"
#include "sf/platform/poll.h"
#include "sf/platform/socket.h"
#include "sf/port.h"

namespace sf {

// An IPv4 address and port.
class i_TcpPortAddr : public i_PortAddr {
 public:
  i_TcpPortAddr(const char* nic, const char* port);
  int family() const override;
  const void* addr() const override { return sa_; }
  int addrlen() const override { return platform::kIpv4AddrLen; }

 private:
  alignas(8) unsigned char sa_[platform::kIpv4AddrLen];
};

// A local (named) socket: not supported here; the constructor throws.
class i_LocalPortAddr : public i_PortAddr {
 public:
  i_LocalPortAddr(const char* nic, const char* port);
  int family() const override { return 0; }
  const void* addr() const override { return nullptr; }
  int addrlen() const override { return 0; }
};

class i_Port {
 public:
  i_Port(const std::string& name_, socket_t fd_);
  ~i_Port();
  i_Port(const i_Port&) = delete;
  i_Port& operator=(const i_Port&) = delete;

  std::string name;
  std::atomic<socket_t> fd;
  Mx lock;
  std::vector<Connection> connections;
  std::string acceptAction;  // under actionLock: set from scripts while the reader runs
  Event closed;
  std::atomic<std::int32_t> idleTimeout_s;
  std::mutex actionLock;
  std::string getAcceptAction() {
    std::lock_guard<std::mutex> guard(actionLock);
    return acceptAction;
  }

  // Kicks the reader out of its wait: a connection was given back or closed,
  // or shutdown was requested.
  platform::Wakeup wakeup;
  // Set while a reader serves this port; its thread does not wake itself.
  std::atomic<bool> readerRunning{false};
  std::atomic<std::uint32_t> readerThread{0};

  // Wakes the reader unless the caller is the reader itself.
  void wake();
};

class i_Connection {
 public:
  explicit i_Connection(socket_t fd_);
  ~i_Connection();
  i_Connection(const i_Connection&) = delete;
  i_Connection& operator=(const i_Connection&) = delete;

  std::atomic<std::uint32_t> refs;
  std::atomic<std::int32_t> reserved;
  std::uint32_t readTimeout_s;
  std::atomic<socket_t> fd;
  std::int32_t id;
  std::uint32_t idleTimer;  // pending idle TimeoutId's id, 0 when none
  std::string remote;
  std::string local;
  Adaptor* top;
  std::vector<MessageQ*> closeNotify;

  // The port this connection was accepted on (null for outgoing ones): its
  // reader is woken when the connection is given back or closed.
  i_Port* port;
  // The descriptor stays allocated after the close step (which only shuts it
  // down and marks fd invalid) until the record is destroyed, so that no
  // other thread still holding the number reads from a reused descriptor.
  socket_t heldFd;
  // Guards closeNotify and idleTimer.
  std::mutex aux;

  // The close step: no-op when already closed.
  void close();
};

// The registry lock and the record of id, if registered. Callers hold
// sfi_registryLock() while they use the pointer.
Mx& sfi_registryLock();
i_Connection* sfi_findConnection(int id);
// Removes rec from the registry (idempotent).
void sfi_unregister(i_Connection* rec);

// Posts a close notice (a Message with isCloseNotice and sessionId sid) to q;
// a full queue loses it with a log line.
void sfi_postCloseNotice(MessageQ* q, const std::string& sid);

// Wakes every running reader (shutdown).
void sfi_wakeAllReaders();

// Calls fn for every entry of the shared-port table, in key order.
void sfi_forEachSharedPort(void (*fn)(const std::string& key, i_Port* port, void* arg), void* arg);

// Enters a new port around socket s under name (an address text), use count
// 0, replacing an entry of that name. Used when a parent hands sockets over.
void sfi_setSharedPortByName(const std::string& name, socket_t s);

// Calls fn for every name/value pair received by receiveEnv.
void sfi_forEachSymbiotic(void (*fn)(const std::string& name, const std::string& value, void* arg),
                          void* arg);

// Puts the socket into (non-)blocking mode; throws Xio
// "setsocketnonblocking.ioctlsocket".
void setsocketblockingmode(socket_t fd, bool blocking);

// Writes one I/O dump record when dumping is on.
void sfi_iodump(const char* dir, i_Connection* rec, const Buffer& buf, size_t count);

}  // namespace sf
