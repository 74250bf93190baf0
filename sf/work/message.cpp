// Messages and the per-thread transaction context.
#include "sf/work/message.h"

#include <ctime>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/net/net.h"

namespace sf {

Message::Message()
    : data(nullptr),
      env(nullptr),
      reserved(false),
      isTimeout(false),
      isCloseNotice(false),
      keep(false),
      createdAt(0),
      enqueuedAt(0),
      dequeuedAt(0),
      processedAt(0) {}

Message::~Message() {
  delete data;
  delete env;
  if (i_Connection* rec = origin.record()) sfi_messageGone(rec);
}

void Message::setenv(const char* name, const char* value) {
  if (!value) value = "";  // an absent value reads back as "" anyway
  SF_LOG(8, "setenv %s = %s", name, value);
  if (!env) env = new std::map<std::string, std::string>;
  (*env)[name] = value;
}

std::string Message::getenv(const char* name) {
  std::string result;
  if (env) {
    auto it = env->find(name);
    if (it != env->end()) result = it->second;
  }
  SF_LOG(8, "getenv %s = %s", name, result.c_str());
  return result;
}

void Message::setSessionId(const std::string& sid) {
  sessionId = sid;
}

std::string Message::getSid() {
  if (sessionId.empty()) sessionId = conn.getSid();
  return sessionId;
}

TransactionContext::TransactionContext()
    : watchdog(nullptr), message(nullptr), user1(0), user2(0) {}

TransactionContext::TransactionContext(TransactionContext* from)
    : watchdog(nullptr), message(nullptr), user1(0), user2(0) {
  if (!from) return;  // nothing to take over: a fresh context
  conn = from->conn;
  message = from->message;
  user1 = from->user1;
}

TransactionContext::~TransactionContext() {
  delete message;
  message = nullptr;
}

namespace {
// The calling thread's context. Library threads live as long as the process,
// so a context is not destroyed when its thread ends.
thread_local TransactionContext* t_context = nullptr;
}  // namespace

TransactionContext* getContext() {
  if (!t_context) setContext(new TransactionContext);
  return t_context;
}

void setContext(TransactionContext* ctx) {
  TransactionContext* old = t_context;
  if (old == ctx) return;
  t_context = ctx;
  delete old;
}

}  // namespace sf
