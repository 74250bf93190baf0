// TEMPORARY: see provisional_msg.h.
#if !__has_include("sf/message.h")
#include "sf/http/provisional_msg.h"

#include "sf/sflib.h"

namespace sf {
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
#endif
