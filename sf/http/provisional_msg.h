// TEMPORARY stand-in for sf/message.h until the messaging module lands.
#pragma once
#include <map>
#include <string>

#include "sf/connection.h"

namespace sf {
struct Buffer;
struct Message {
  Connection conn;
  Buffer* data = nullptr;
  std::map<std::string, std::string>* env = nullptr;
  Message() = default;
  virtual ~Message();
  void setenv(const char* name, const char* value);
  std::string getenv(const char* name);
};
struct TransactionContext {
  Connection conn;
  Message* message = nullptr;
  virtual ~TransactionContext();
};
TransactionContext* getContext();
void setContext(TransactionContext* ctx);
}  // namespace sf
