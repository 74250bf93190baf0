// TEMPORARY: see provisional_net.h.
#include "sf/http/provisional_net.h"

#include <cstring>

namespace sf {

Connection::Connection() : ic(nullptr) {}
Connection::Connection(i_Connection* i) : ic(i) {}
Connection::Connection(const Connection& o) : ic(o.ic) {
  if (ic) ++ic->refs;
}
Connection& Connection::operator=(const Connection& o) {
  if (o.ic) ++o.ic->refs;
  this->~Connection();
  ic = o.ic;
  return *this;
}
Connection::~Connection() {
  if (ic && --ic->refs == 0) {
    delete ic->top;
    delete ic;
  }
  ic = nullptr;
}
Adaptor* Connection::getAdaptor() {
  return ic ? ic->top : nullptr;
}
void Connection::push(Adaptor* a) {
  if (ic->top) a->chain(ic->top);
  ic->top = a;
  a->init(this);
}
Adaptor* Connection::pop() {
  Adaptor* a = ic->top;
  ic->top = a ? a->unchain() : nullptr;
  return a;
}
std::string Connection::remoteinfo() const {
  return ic ? ic->remote : "";
}
std::string Connection::localinfo() const {
  return ic ? ic->local : "";
}
void Connection::read(Buffer& b) {
  ic->top->readPdu(this, b);
}
void Connection::write(const Buffer& b) {
  ic->top->write(this, b);
}
bool Connection::hasBufferedData() {
  return ic && ic->top && ic->top->hasBufferedData();
}
void tcp_close(Connection& c) {
  if (c.ic) c.ic->fd = ~0ull;
}

Adaptor::~Adaptor() {
  delete next;
}
void Adaptor::readPdu(Connection*, Buffer&) {
  SF_THROW("readPdu", Xstate());
}
bool Adaptor::readPduIsMore(Connection*) {
  SF_THROW("readPduIsMore", Xstate());
}
void Adaptor::readPduNext(Connection*, Buffer&) {
  SF_THROW("readPduFirst", Xstate());
}
void Adaptor::write(Connection*, const Buffer&) {
  SF_THROW("write", Xstate());
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
void Adaptor::pushback(const void* d, size_t n) {
  if (!next) SF_THROW("pushback", Xstate());
  next->pushback(d, n);
}
void Adaptor::chain(Adaptor* a) {
  Adaptor* p = this;
  while (p->next) p = p->next;
  p->next = a;
}
Adaptor* Adaptor::unchain() {
  Adaptor* n = next;
  next = nullptr;
  return n;
}

PushbackSandwich::~PushbackSandwich() {
  for (auto& n : nodes_) delete n.buf;
}
void PushbackSandwich::init(Connection*) {
  for (auto& n : nodes_) delete n.buf;
  nodes_.clear();
}
void PushbackSandwich::pushback(const void* d, size_t len) {
  if (!nodes_.empty() && nodes_.front().offset > len) {
    Node& f = nodes_.front();
    f.offset -= len;
    memcpy(f.buf->data + f.offset, d, len);
    return;
  }
  Buffer* b = new Buffer();
  b->append(d, len);
  nodes_.push_front(Node{b, 0});
}
int PushbackSandwich::prefill(Buffer& b, int n) {
  if (n <= 0 || nodes_.empty()) return 0;
  int got = 0;
  while (n > 0 && !nodes_.empty()) {
    Node& f = nodes_.front();
    size_t take = std::min<size_t>(n, f.buf->size() - f.offset);
    b.append(f.buf->data + f.offset, take);
    f.offset += take;
    if (f.offset >= f.buf->size()) {
      delete f.buf;
      nodes_.pop_front();
    }
    n -= int(take);
    got += int(take);
  }
  return got;
}
void PushbackSandwich::readUptoNB(Connection* c, Buffer& b, int n) {
  if (prefill(b, n) > 0) return;
  size_t s = b.size();
  next->readPdu(c, b);
  if (b.size() > s + n) {
    pushback(b.data + s + n, b.size() - s - n);
    b.resize(s + n);
  }
}
void PushbackSandwich::read(Connection* c, Buffer& b, int n) {
  int remaining = n - prefill(b, n);
  while (remaining >= 1) {
    Buffer scratch;
    next->readPdu(c, scratch);
    if (int(scratch.size()) > remaining) {
      b.append(scratch.data, remaining);
      pushback(scratch.data + remaining, scratch.size() - remaining);
      return;
    }
    b.append(scratch.data, scratch.size());
    remaining -= int(scratch.size());
  }
}
void PushbackSandwich::readTillEof(Connection* c, Buffer& b, int n) {
  prefill(b, 0);
  next->readTillEof(c, b, n);
}
bool PushbackSandwich::hasBufferedData() const {
  return !nodes_.empty() || (next && next->hasBufferedData());
}

Message::~Message() {
  delete data;
  delete env;
}
void Message::setenv(const char* name, const char* value) {
  if (!env) env = new std::map<std::string, std::string>;
  (*env)[name] = value;
}
std::string Message::getenv(const char* name) {
  if (!env) return "";
  auto it = env->find(name);
  return it == env->end() ? "" : it->second;
}
TransactionContext::~TransactionContext() {
  delete message;
}
namespace {
thread_local TransactionContext* t_ctx = nullptr;
}
TransactionContext* getContext() {
  if (!t_ctx) t_ctx = new TransactionContext;
  return t_ctx;
}
void setContext(TransactionContext* c) {
  delete t_ctx;
  t_ctx = c;
}

}  // namespace sf
