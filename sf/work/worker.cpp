// The worker loop.
#include "sf/work/worker.h"

#include <ctime>

#include "sf/base/buffer.h"
#include "sf/base/log.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/platform/thread.h"
#include "sf/sferr.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/watchdog.h"

namespace sf {

Worker::Worker(const char* queueName) : queue(getQ(queueName)), skipCloseNotices(true) {
  if (!queue) {
    SF_LOG(1, "no such queue %s", queueName);
    SF_THROW("no such queue", Xinvalid());
  }
}

void Worker::processMessage(Message* msg) {
  Buffer reply(0);
  processMessage1(msg, reply);
  msg->conn.write(reply);
}

void Worker::processMessage1(Message*, Buffer&) {
  SF_THROW("processMsg", Xstate());
}

void Worker::reject() {}

namespace {

// The adaptor default reject, for failures that carry no reply of their own.
void defaultReject(Message* msg) {
  Adaptor* top = msg->conn.record() ? msg->conn.getAdaptor() : nullptr;
  if (!top) return;
  try {
    top->reject(&msg->conn, 0, nullptr);
  } catch (...) {
    SF_LOG(3, "worker: error sending reject message, continuing");
  }
}

}  // namespace

void Worker::handle(Message* msg) {
  if (!msg) {
    SF_LOG(1, "worker: null message on queue %s, ignored", queue->name());
    return;
  }
  getContext()->message = msg;
  bool wasReserved = msg->reserved;
  if (wasReserved) SF_LOG(5, "connection reserved for duration of processing");

  if (!msg->isCloseNotice || !skipCloseNotices) {
    try {
      watchdog_set();
      processMessage(msg);
      msg->processedAt = time(nullptr);
    } catch (Xreject& x) {
      SF_LOG(1, "worker: reject exception during processing, rejecting");
      Adaptor* top = msg->conn.record() ? msg->conn.getAdaptor() : nullptr;
      try {
        if (x.reply && top) top->reject(&msg->conn, *x.reply);
        if (x.close && msg->conn.record()) tcp_close(msg->conn);
      } catch (...) {
        SF_LOG(3, "worker: error sending reject message, continuing");
      }
      delete x.reply;
      x.reply = nullptr;
    } catch (X& x) {
      SF_LOG(1, "worker: sf exception during processing, rejecting - %s", x.str().c_str());
      defaultReject(msg);
    } catch (...) {
      SF_LOG(1, "worker: exception during processing, rejecting");
      defaultReject(msg);
    }
  }

  dispose(msg, wasReserved);
}

void Worker::dispose(Message* msg, bool wasReserved) {
  if (wasReserved) {
    SF_LOG(5, "unreserving connection after processing");
    try {
      msg->conn.unreserve(true);
    } catch (X& x) {
      SF_LOG(3, "worker: unreserve failed - %s", x.str().c_str());
    }
  }
  if (!msg->keep) delete msg;
}

void Worker::run() {
  for (;;) {
    watchdog_clr();
    Message* msg;
    try {
      msg = queue->deQ();
    } catch (X& x) {
      // The queue's locks failed; there is nothing to reject. Pause so that a
      // persistent failure does not spin, and try again.
      SF_LOG(1, "worker: cannot take a message from queue %s - %s", queue->name(), x.str().c_str());
      platform::sleep_ms(1000);
      continue;
    }
    handle(msg);
  }
}

}  // namespace sf
