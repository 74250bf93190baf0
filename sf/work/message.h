// Messages, the unit of work, and the per-thread transaction context.
//
// A Message is what a reader makes of one request read from a connection,
// what a timer posts and what a connection's close notification posts. It
// travels through MessageQs to workers. It belongs to whoever holds it: the
// reader until enQ, the queue while queued, the worker after deQ.
//
// A TransactionContext is the calling thread's record of the work in hand:
// the connection and the message it is dealing with. Script commands reach
// the current message only through it (getContext()->message).
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "sf/net/connection.h"

namespace sf {

struct Buffer;
struct TimeoutId;

struct Message {
  Connection conn;    // replies go here; an empty handle for timer messages
  Connection origin;  // set by the reader: the connection read, whose messages in flight it counts
  Buffer* data;       // owned; null for close notices
  std::map<std::string, std::string>* env;  // owned; made by the first setenv
  bool reserved;             // the reader reserved conn for processing; the worker unreserves
  std::string sessionId;     // filled lazily from conn by getSid
  bool isTimeout;            // posted by a timer
  bool isCloseNotice;        // posted because conn closed
  bool keep;                 // the worker must not delete it (periodic timers)
  std::int64_t createdAt;    // seconds since the epoch, set by the reader
  std::int64_t enqueuedAt;   // set by every enQ
  std::int64_t dequeuedAt;   // set by every deQ
  std::int64_t processedAt;  // set by the worker after processing

  Message();
  // Shallow, on purpose: the copy shares data and env with its source, and
  // only one of the two may be destroyed. Duplicate them for an independent
  // copy.
  Message(const Message&) = default;
  Message& operator=(const Message&) = default;
  // Deletes data and env; releases the connection handles without closing
  // them.
  virtual ~Message();

  // Inserts or overwrites one environment entry (logged at level 8).
  void setenv(const char* name, const char* value);
  // The entry's value, or "" when there is none (logged at level 8).
  std::string getenv(const char* name);
  void setSessionId(const std::string& sid);
  // The session id; asks the connection the first time it is empty and keeps
  // the answer.
  std::string getSid();
};

struct TransactionContext {
  Connection conn;      // connection of the work in hand
  TimeoutId* watchdog;  // this thread's armed watchdog timer; owned by the watchdog
  Message* message;     // the message being processed; deleted with the context
  std::int32_t user1;   // free for the host; zeroed and copied, never read here
  std::int32_t user2;

  TransactionContext();
  TransactionContext(const TransactionContext&) = default;
  TransactionContext& operator=(const TransactionContext&) = default;
  // Takes over conn, message and user1 of from; not the watchdog.
  explicit TransactionContext(TransactionContext* from);
  // Deletes message (if any), then releases conn. Never touches watchdog.
  virtual ~TransactionContext();
};

// The calling thread's context, made on first use. Never null.
TransactionContext* getContext();
// Deletes the calling thread's context (and the message it holds) and installs
// ctx, which may be null: setContext(nullptr) drops the work in hand.
void setContext(TransactionContext* ctx);

}  // namespace sf
