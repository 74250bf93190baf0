// The adaptor chain: strict base defaults, the TCP bottom layer, and the
// pushback layer.
#include "sf/net/adaptor.h"

#include <cstring>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/net/connection.h"
#include "sf/net/net.h"
#include "sf/sferr.h"

namespace sf {

// ---- Adaptor ----

void Adaptor::init(Connection*) {}

Adaptor::~Adaptor() {
  delete next;
}

void Adaptor::readPdu(Connection*, Buffer&) {
  SF_THROW("readPdu", Xstate());
}
void Adaptor::readPduFirst(Connection* c, Buffer& buf) {
  readPdu(c, buf);
}
bool Adaptor::readPduIsMore(Connection*) {
  SF_THROW("readPduIsMore", Xstate());
}
// Names the first-PDU operation on purpose: callers match on it.
void Adaptor::readPduNext(Connection*, Buffer&) {
  SF_THROW("readPduFirst", Xstate());
}
void Adaptor::write(Connection*, const Buffer&) {
  SF_THROW("write", Xstate());
}
void Adaptor::writePduFirst(Connection* c, const Buffer& buf) {
  write(c, buf);
}
void Adaptor::writePduNext(Connection* c, const Buffer& buf) {
  write(c, buf);
}
void Adaptor::writePduLast(Connection* c, const Buffer& buf) {
  write(c, buf);
}
void Adaptor::readTillEof(Connection*, Buffer&, int) {
  SF_THROW("readTillEof", Xstate());
}
void Adaptor::readUptoNB(Connection*, Buffer&, int) {
  SF_THROW("readUptoNB", Xstate());
}
void Adaptor::read(Connection*, Buffer&, int) {
  SF_THROW("read", Xstate());
}

void Adaptor::pushback(const void* data, size_t len) {
  if (!next) SF_THROW("pushback", Xstate());
  next->pushback(data, len);
}

bool Adaptor::hasBufferedData() const {
  return next && next->hasBufferedData();
}

void Adaptor::takePushedBack(std::string& out) {
  if (next) next->takePushedBack(out);
}

Framing Adaptor::frame(Connection*, const char*, size_t) {
  return Framing::Unknown;
}

void Adaptor::closing(Connection* c) {
  if (next) next->closing(c);
}

void Adaptor::reject(Connection* c, Buffer& buf) {
  write(c, buf);
}

void Adaptor::reject(Connection* c, int, const char*) {
  if (c) tcp_close(*c);
}

void Adaptor::chain(Adaptor* a) {
  Adaptor* low = this;
  while (low->next) low = low->next;
  low->next = a;
}

Adaptor* Adaptor::unchain() {
  Adaptor* a = next;
  next = nullptr;
  return a;
}

// ---- TcpAdaptor ----

void TcpAdaptor::init(Connection* c) {
  conn_ = c ? c->record() : nullptr;
}
bool TcpAdaptor::hasBufferedData() const {
  return conn_ && sfi_pending(conn_) != 0;
}
Framing TcpAdaptor::frame(Connection*, const char*, size_t len) {
  return len ? Framing::Whole : Framing::Header;
}

void TcpAdaptor::readPdu(Connection* c, Buffer& buf) {
  readUptoNB(c, buf, 4096);
}
void TcpAdaptor::write(Connection* c, const Buffer& buf) {
  tcp_write(*c, buf);
}
void TcpAdaptor::readTillEof(Connection* c, Buffer& buf, int n) {
  tcp_recv(*c, buf, RecvTillEof, static_cast<size_t>(n < 0 ? 0 : n));
}
void TcpAdaptor::readUptoNB(Connection* c, Buffer& buf, int n) {
  tcp_recv(*c, buf, RecvUptoNB, static_cast<size_t>(n < 0 ? 0 : n));
}
void TcpAdaptor::read(Connection* c, Buffer& buf, int n) {
  tcp_recv(*c, buf, RecvExact, static_cast<size_t>(n < 0 ? 0 : n));
}

// ---- PushbackSandwich ----

PushbackSandwich::~PushbackSandwich() {
  for (Node& node : nodes_) delete node.buf;
}

void PushbackSandwich::init(Connection*) {
  for (Node& node : nodes_) delete node.buf;
  nodes_.clear();
}

size_t PushbackSandwich::prefill(Buffer& buf, int n) {
  if (n <= 0 || nodes_.empty()) return 0;
  size_t want = static_cast<size_t>(n);
  size_t taken = 0;
  while (want > 0 && !nodes_.empty()) {
    Node& node = nodes_.front();
    size_t avail = node.buf->size() - node.offset;
    size_t take = avail < want ? avail : want;
    SF_LOG(5, "prefill %d bytes from pushback buffer", static_cast<int>(take));
    buf.append(node.buf->data + node.offset, take);
    node.offset += take;
    if (node.offset >= node.buf->size()) {
      delete node.buf;
      nodes_.pop_front();
    }
    want -= take;
    taken += take;
  }
  return taken;
}

void PushbackSandwich::pushback(const void* data, size_t len) {
  SF_LOG(5, "pushback %zd bytes onto pushback buffer", len);
  if (len == 0) return;
  if (!nodes_.empty() && nodes_.front().offset > len) {
    Node& node = nodes_.front();
    node.offset -= len;
    memcpy(node.buf->data + node.offset, data, len);
    return;
  }
  Buffer* b = new Buffer(0);
  try {
    b->append(data, len);
  } catch (...) {
    delete b;
    throw;
  }
  nodes_.push_front(Node{b, 0});
}

void PushbackSandwich::readUptoNB(Connection* c, Buffer& buf, int n) {
  if (prefill(buf, n) != 0) return;
  if (!next) SF_THROW("readUptoNB", Xstate());
  size_t s = buf.size();
  next->readPdu(c, buf);
  size_t limit = s + static_cast<size_t>(n < 0 ? 0 : n);
  if (buf.size() > limit) {
    pushback(buf.data + limit, buf.size() - limit);
    buf.resize(limit);
  }
}

void PushbackSandwich::read(Connection* c, Buffer& buf, int n) {
  long remaining = static_cast<long>(n) - static_cast<long>(prefill(buf, n));
  while (remaining >= 1) {
    if (!next) SF_THROW("read", Xstate());
    Buffer scratch(0);
    next->readPdu(c, scratch);
    size_t got = scratch.size();
    if (got > static_cast<size_t>(remaining)) {
      buf.append(scratch.data, static_cast<size_t>(remaining));
      pushback(scratch.data + remaining, got - static_cast<size_t>(remaining));
      return;
    }
    if (got) buf.append(scratch.data, got);
    remaining -= static_cast<long>(got);
  }
}

void PushbackSandwich::readTillEof(Connection* c, Buffer& buf, int n) {
  prefill(buf, 0);  // takes nothing: pushed-back bytes stay queued
  if (!next) SF_THROW("readTillEof", Xstate());
  next->readTillEof(c, buf, n);
}

bool PushbackSandwich::hasBufferedData() const {
  return !nodes_.empty() || (next && next->hasBufferedData());
}

void PushbackSandwich::write(Connection* c, const Buffer& buf) {
  if (!next) SF_THROW("write", Xstate());
  next->write(c, buf);
}

size_t PushbackSandwich::pending() const {
  size_t n = 0;
  for (const Node& node : nodes_) n += node.buf->size() - node.offset;
  return n;
}

void PushbackSandwich::takePushedBack(std::string& out) {
  for (Node& node : nodes_) {
    out.append(node.buf->data + node.offset, node.buf->size() - node.offset);
    delete node.buf;
  }
  nodes_.clear();
  Adaptor::takePushedBack(out);
}

}  // namespace sf
