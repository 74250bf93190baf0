// The records behind the networking handles. Internal to the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "sf/base/locks.h"
#include "sf/net/connection.h"
#include "sf/net/port.h"
#include "sf/platform/events.h"
#include "sf/platform/socket.h"

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

class i_Connection;

// Where one reader thread hears about its connections from other threads: a
// connection given back by a worker, or closed. Posting wakes the reader.
class ReaderMailbox {
 public:
  // Keeps a handle on rec until the reader takes it; ignored once the
  // reader has left, and when the caller is the reader itself.
  void post(i_Connection* rec);
  // What was posted since the last call.
  std::vector<Connection> take();
  // Kicks the reader out of its wait without posting anything.
  void wake() { wakeup.notify(); }
  // The reader thread starts or stops listening here.
  void open(std::uint32_t thread);
  void close();

  platform::Wakeup wakeup;

 private:
  std::mutex lock_;
  std::vector<Connection> posted_;
  std::atomic<std::uint32_t> thread_{0};
  std::atomic<bool> open_{false};
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
  std::string acceptAction;  // under actionLock: set from scripts while the reader runs
  Event closed;
  std::atomic<std::int32_t> idleTimeout_s;
  std::mutex actionLock;
  std::string getAcceptAction() {
    std::lock_guard<std::mutex> guard(actionLock);
    return acceptAction;
  }

  // Connections accepted on this port and still served by its readers.
  std::atomic<std::size_t> open{0};
  // One per reader thread that ever served the port; never shrinks, so a
  // connection's pointer to its reader's mailbox stays valid.
  std::deque<ReaderMailbox> mailboxes SF_GUARDED_BY(lock);
  // When a full queue was last reported for this port, seconds since the
  // epoch.
  std::atomic<std::int64_t> overloadLoggedAt{0};
  // Set while a reader serves this port.
  std::atomic<bool> readerRunning{false};
  // Reader threads of the port that have not stopped accepting; at shutdown
  // the last one to stop closes the listening socket.
  std::atomic<int> acceptors{0};
  // When the ALARM line for a client waiting at the connection limit is
  // due, seconds since the epoch; 0 = not armed.
  std::atomic<std::int64_t> alarmDeadline{0};
  // Accepting failed (descriptors, memory) and said so; cleared once it
  // works again, so a crowd of reader threads logs one line.
  std::atomic<bool> acceptFailing{false};

  // A mailbox for a new reader thread.
  ReaderMailbox* newMailbox();
  // Kicks every reader of the port out of its wait (shutdown).
  void wakeAll();
};

// The most messages from one connection that may be in flight at once.
constexpr int kMaxInFlight = 16;

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

  // Messages read from this connection and not destroyed yet. A reader
  // stops reading a connection that has kMaxInFlight of them (a raw TCP
  // client that sends faster than the workers answer must not fill a shared
  // queue) and sets held; the message that brings the count below the bound
  // then gives the connection back through the mailbox.
  std::atomic<int> inFlight{0};
  std::atomic<bool> held{false};
  // The mailbox of the reader thread that accepted this connection (null
  // for outgoing ones): it hears when the connection is given back or closed.
  std::atomic<ReaderMailbox*> mailbox;
  // Bytes that arrived and that no read has consumed yet: input[inputPos..].
  // Filled by the reader, consumed by tcp_recv before it touches the socket.
  std::string input;
  std::size_t inputPos;
  // Accepted sockets are non-blocking: nothing ever waits in recv or send
  // without a time-out of its own.
  bool nonBlocking;
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
i_Connection* sfi_findConnection(int id) SF_REQUIRES(sfi_registryLock());
// Removes rec from the registry (idempotent).
void sfi_unregister(i_Connection* rec);

// Posts a close notice (a Message with isCloseNotice and sessionId sid) to q;
// a full queue loses it with a log line.
void sfi_postCloseNotice(MessageQ* q, const std::string& sid);

// Wakes every running reader (shutdown).
void sfi_wakeAllReaders();

// The per-connection input.
// Bytes waiting in rec's input.
std::size_t sfi_pending(const i_Connection* rec);
// Appends up to n (0: all) waiting bytes to buf; returns how many.
std::size_t sfi_takeInput(i_Connection* rec, Buffer& buf, std::size_t n);
// Puts bytes in front of the waiting ones (an adaptor read them too far).
void sfi_unreadInput(i_Connection* rec, const std::string& bytes);
// A message read from rec is destroyed.
void sfi_messageGone(i_Connection* rec);

// What one sfi_fillInput found.
struct InputFill {
  std::size_t got = 0;   // bytes received
  bool ended = false;    // the peer closed or reset the connection
  bool emptied = false;  // the socket had nothing more to give
};
// Receives what the socket has, without waiting, until max bytes wait or
// the socket has no more. With peerClosed (the peer is known to have closed
// its side) a short read is not taken to mean that nothing is left: reading
// goes on until the close itself is read.
InputFill sfi_fillInput(i_Connection* rec, std::size_t max, bool peerClosed);

// Connects to p without waiting, on a non-blocking socket: *pending tells
// whether the connection is still being made; once the socket is writable,
// sfi_connectFinished ends it. Both throw as tcp_connect does when the
// connection cannot be made.
Connection sfi_connectStart(const PortAddr& p, bool* pending);
void sfi_connectFinished(Connection& c, const PortAddr& p);

// Accepts one client of port without waiting: a new connection, or one
// without a record when accept failed, with *error the system's reason.
Connection sfi_accept(Port& port, int* error);

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

// Closes and forgets every shared port that nobody took (the first step of
// shutdown).
void sfi_closeUnusedSharedPorts();
// Use count of the shared entry for key, -1 when there is none.
int sfi_sharedPortUses(const std::string& key);

// Number of connection records alive.
size_t sfi_connectionCount();
// (Re-)arms the idle timer of c; seconds -1 means sf.idletimeout applies.
void sfi_armIdleTimer(Connection& c, int idleTimeout_s);
// Removes c's pending idle timer, if any.
void sfi_cancelIdleTimer(Connection& c);
// Closes the socket of the connection with this id, if it is still
// registered; used by the idle reaper. Returns true if one was found.
bool sfi_closeById(int id, bool reportIdle);

// Wakes the reader of the port whose connection this is.
void sfi_wakeReaderOf(Connection& c);

}  // namespace sf
