// TEMPORARY stand-ins for the connection, adaptor and message types until
// the networking and messaging modules land on main. Removed on merge.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "sf/sflib.h"

namespace sf {

class Adaptor;
struct i_Connection {
  int refs = 1;
  int reserved = 0;
  std::uint64_t fd = ~0ull;
  int id = 0;
  std::string remote, local;
  Adaptor* top = nullptr;
};

class Connection {
 public:
  Connection();
  explicit Connection(i_Connection* ic);
  Connection(const Connection& o);
  Connection& operator=(const Connection& o);
  ~Connection();
  Adaptor* getAdaptor();
  void push(Adaptor* a);
  Adaptor* pop();
  std::string remoteinfo() const;
  std::string localinfo() const;
  void read(Buffer& b);
  void write(const Buffer& b);
  bool hasBufferedData();
  i_Connection* ic;
};

void tcp_close(Connection& c);

class Adaptor {
 public:
  explicit Adaptor(Adaptor* next = nullptr) : next(next) {}
  virtual void init(Connection*) {}
  virtual ~Adaptor();
  virtual void readPdu(Connection*, Buffer&);
  virtual void readPduFirst(Connection* c, Buffer& b) { readPdu(c, b); }
  virtual bool readPduIsMore(Connection*);
  virtual void readPduNext(Connection*, Buffer&);
  virtual void write(Connection*, const Buffer&);
  virtual void writePduFirst(Connection* c, const Buffer& b) { write(c, b); }
  virtual void writePduNext(Connection* c, const Buffer& b) { write(c, b); }
  virtual void writePduLast(Connection* c, const Buffer& b) { write(c, b); }
  virtual void readTillEof(Connection*, Buffer&, int);
  virtual void readUptoNB(Connection*, Buffer&, int);
  virtual void read(Connection*, Buffer&, int);
  virtual void pushback(const void* data, size_t len);
  virtual bool hasBufferedData() const { return next && next->hasBufferedData(); }
  virtual void closing(Connection* c) {
    if (next) next->closing(c);
  }
  virtual void reject(Connection* c, Buffer& b) { write(c, b); }
  virtual void reject(Connection* c, int, const char*) { tcp_close(*c); }
  void writePdu(Connection* c, const Buffer& b) { write(c, b); }
  void chain(Adaptor* a);
  Adaptor* unchain();
  Adaptor* next;
};

class PushbackSandwich : public Adaptor {
 public:
  explicit PushbackSandwich(Adaptor* next = nullptr) : Adaptor(next) {}
  ~PushbackSandwich() override;
  void init(Connection*) override;
  void pushback(const void* data, size_t len) override;
  void readUptoNB(Connection* c, Buffer& b, int n) override;
  void read(Connection* c, Buffer& b, int n) override;
  void readTillEof(Connection* c, Buffer& b, int n) override;
  bool hasBufferedData() const override;
  void write(Connection* c, const Buffer& b) override { next->write(c, b); }

 private:
  struct Node {
    Buffer* buf;
    size_t offset;
  };
  int prefill(Buffer& b, int n);
  std::list<Node> nodes_;
};

struct Message {
  Message() = default;
  virtual ~Message();
  Connection conn;
  Buffer* data = nullptr;
  std::map<std::string, std::string>* env = nullptr;
  bool reserved = false;
  std::string sessionId;
  void setenv(const char* name, const char* value);
  std::string getenv(const char* name);
};

struct TransactionContext {
  virtual ~TransactionContext();
  Connection conn;
  void* watchdog = nullptr;
  Message* message = nullptr;
};
TransactionContext* getContext();
void setContext(TransactionContext* ctx);

}  // namespace sf
