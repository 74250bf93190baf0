// Connections and TCP I/O.
//
// A Connection is a handle to one reference-counted record per socket. The
// record carries the stack of protocol adaptors (top first), a numeric id
// that is also the session id, a reservation count that keeps the reader
// away while a worker owns the connection, a read time-out, an idle timer and
// the queues to tell when the socket closes. The last handle to go closes the
// socket and destroys the record.
//
// The free functions here are the raw socket operations the bottom adaptor
// (TcpAdaptor) uses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sf/net/port.h"

namespace sf {

struct Buffer;
class Adaptor;
class MessageQ;
class i_Connection;

// How tcp_recv reads. The values are fixed.
enum TcpRecvType {
  RecvTillEof = 0,  // until the peer closes (n = 0: no limit)
  RecvUptoNB = 1,   // whatever the first successful read gives, at most n
  RecvExact = 2,    // exactly n bytes
};

class Connection {
 public:
  // A handle without a record.
  Connection();
  // Takes a new reference on rec (which may be null).
  explicit Connection(i_Connection* rec);
  Connection(const Connection& o);
  Connection& operator=(const Connection& o);
  // The last handle of a record calls the adaptors' closing(), closes the
  // socket and destroys the record.
  ~Connection();

  // True when the handle has no record.
  bool operator!() const { return rec_ == nullptr; }
  i_Connection* record() const { return rec_; }

  // Reservation: while reserved > 0 the reader leaves the connection alone.
  // reserve() takes no lock (callers hold the port lock). unreserve(true)
  // drops every reservation; unreserve(false) drops one and throws Xstate
  // when there was none. Reaching 0 wakes the port's reader.
  bool isReserved() const;
  void reserve();
  void unreserve(bool all);

  // The adaptor stack. push() chains the current top below a, makes a the
  // top and calls a->init(this); pop() detaches and returns the top.
  Adaptor* getAdaptor() const;
  void push(Adaptor* a);
  Adaptor* pop();

  socket_t socketNo() const;   // INVALID_SOCK without a record or once closed
  int nonce() const;           // the id, -1 without a record
  std::string getSid() const;  // the id as "%u"
  std::string remoteinfo() const;
  std::string localinfo() const;
  static bool isValid(i_Connection* rec);

  // Through the top adaptor.
  void read(Buffer& buf);
  void write(const Buffer& buf);
  bool hasBufferedData() const;

  // Readable within ms milliseconds.
  bool isReadReady();
  bool isReadReady(unsigned ms);
  // Alive: open, and either nothing to read or at least one byte pending.
  bool check();

  // q receives a close notice (a Message with isCloseNotice and the session
  // id) when the socket is closed.
  void closeNotify(MessageQ* q);

  // Seconds a receive waits for data.
  unsigned readTimeout_s() const;
  void setReadTimeout_s(unsigned seconds);

 private:
  i_Connection* rec_;
};

// Closes the connection's socket (the peer sees the close at once); the
// record lives on until its last handle goes.
void tcp_close(Connection& c);

Connection tcp_accept(Port& port);
Connection tcp_connect(const PortAddr& addr);
// Appends to buf, see TcpRecvType. Throws Xclosed when the peer closed or
// reset, Xiotimeout after readTimeout_s seconds without data, Xio otherwise.
void tcp_recv(Connection& c, Buffer& buf, TcpRecvType type, size_t n);
void tcp_write(Connection& c, const Buffer& buf);

}  // namespace sf
