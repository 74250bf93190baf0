// The adaptor chain: the protocol layers stacked on a connection.
//
// The top adaptor is what Connection::read, write and hasBufferedData call;
// each layer reaches the one below through next, and the bottom one, a
// TcpAdaptor, does the socket I/O. The base class's defaults are strict: an
// operation that no layer implements throws Xstate naming the operation, so a
// missing override fails loudly instead of doing nothing.
#pragma once

#include <cstddef>
#include <list>
#include <string>

#include "sf/net/connection.h"

namespace sf {

struct Buffer;

// What the framing step says about the bytes that have arrived on a
// connection and that no readPdu has consumed yet.
enum class Framing {
  Unknown,  // this adaptor cannot tell: the reader falls back to a blocking readPdu
  Header,   // more bytes are needed; the message's header block is not complete
  Body,     // more bytes are needed; the header block is complete, the body is not
  Whole,    // a whole message is buffered: readPdu will not wait for the peer
};

class Adaptor {
 public:
  // Owns next: destroying an adaptor destroys the chain below it.
  explicit Adaptor(Adaptor* next_ = nullptr) : next(next_) {}
  Adaptor(const Adaptor&) = delete;
  Adaptor& operator=(const Adaptor&) = delete;

  // Called by Connection::push once this adaptor is the top.
  virtual void init(Connection* c);
  virtual ~Adaptor();

  virtual void readPdu(Connection* c, Buffer& buf);              // Xstate "readPdu"
  virtual void readPduFirst(Connection* c, Buffer& buf);         // readPdu
  virtual bool readPduIsMore(Connection* c);                     // Xstate "readPduIsMore"
  virtual void readPduNext(Connection* c, Buffer& buf);          // Xstate "readPduFirst"
  virtual void write(Connection* c, const Buffer& buf);          // Xstate "write"
  virtual void writePduFirst(Connection* c, const Buffer& buf);  // write
  virtual void writePduNext(Connection* c, const Buffer& buf);   // write
  virtual void writePduLast(Connection* c, const Buffer& buf);   // write
  virtual void readTillEof(Connection* c, Buffer& buf, int n);   // Xstate "readTillEof"
  virtual void readUptoNB(Connection* c, Buffer& buf, int n);    // Xstate "readUptoNB"
  virtual void read(Connection* c, Buffer& buf, int n);          // Xstate "read"
  // Hands bytes read too far back to the chain; forwards to next, and throws
  // Xstate "pushback" when there is none.
  virtual void pushback(const void* data, size_t len);
  // Bytes read but not yet delivered, anywhere below.
  virtual bool hasBufferedData() const;
  // Appends to out every byte pushed back to this adaptor or below, in the
  // order they would be served, and forgets them; forwards to next.
  virtual void takePushedBack(std::string& out);
  // The framing step, asked by the reader before it calls readPdu. data and
  // len are the bytes that have arrived on c and that no readPdu has consumed,
  // starting at the first byte of the next message; between two readPdu calls
  // later calls only see more bytes appended, so an adaptor may keep state and
  // look at each byte once. Throws an X for a message that must be refused,
  // as readPdu would. The base answers Unknown.
  virtual Framing frame(Connection* c, const char* data, size_t len);
  // Once, when the last handle of the connection goes; forwards to next.
  virtual void closing(Connection* c);
  // Sends buf with write().
  virtual void reject(Connection* c, Buffer& buf);
  // Closes the connection.
  virtual void reject(Connection* c, int code, const char* text);

  void writePdu(Connection* c, const Buffer& buf) { write(c, buf); }
  // Puts a below the lowest adaptor of this chain.
  void chain(Adaptor* a);
  // Detaches and returns next.
  Adaptor* unchain();

  Adaptor* next;
};

// The bottom layer: raw TCP through tcp_recv and tcp_write. A PDU is whatever
// arrives, at most 4096 bytes, so a whole one is there as soon as any byte
// is.
class TcpAdaptor : public Adaptor {
 public:
  TcpAdaptor() : Adaptor(nullptr) {}
  // Remembers the connection, whose arrived bytes are this layer's buffer.
  void init(Connection* c) override;
  bool hasBufferedData() const override;
  Framing frame(Connection* c, const char* data, size_t len) override;
  void readPdu(Connection* c, Buffer& buf) override;
  void write(Connection* c, const Buffer& buf) override;
  void readTillEof(Connection* c, Buffer& buf, int n) override;
  void readUptoNB(Connection* c, Buffer& buf, int n) override;
  void read(Connection* c, Buffer& buf, int n) override;

 private:
  i_Connection* conn_ = nullptr;
};

// Keeps bytes that a higher layer read too far and serves them before
// reading below again. Bytes pushed back are served last-pushed-first, each
// run in its own order. A pushback that fits in the space the front run has
// already served reuses it without allocating.
class PushbackSandwich : public Adaptor {
 public:
  explicit PushbackSandwich(Adaptor* lower) : Adaptor(lower) {}
  ~PushbackSandwich() override;

  void init(Connection* c) override;  // discards everything pushed back
  void pushback(const void* data, size_t len) override;
  void readUptoNB(Connection* c, Buffer& buf, int n) override;
  void read(Connection* c, Buffer& buf, int n) override;
  // Serves nothing from the pushback list (it stays queued) and reads below.
  void readTillEof(Connection* c, Buffer& buf, int n) override;
  bool hasBufferedData() const override;
  void write(Connection* c, const Buffer& buf) override;

  void takePushedBack(std::string& out) override;

  // Bytes pushed back and not yet served.
  size_t pending() const;

 private:
  struct Node {
    Buffer* buf;
    size_t offset;  // bytes of buf already served
  };
  size_t prefill(Buffer& buf, int n);
  std::list<Node> nodes_;
};

}  // namespace sf
