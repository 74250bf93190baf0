// Messages, contexts and the worker's handling of each message, on real
// loopback connections with a recording adaptor on top.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;

namespace {

std::atomic<int> g_destroyed{0};

struct Counted : sf::Message {
  ~Counted() override { ++g_destroyed; }
};

// What the adaptor on top of a test connection was asked to do.
struct Calls {
  std::vector<std::string> written;
  std::vector<std::string> replyRejects;
  int defaultRejects = 0;
  bool throwOnReject = false;
};

struct RecordingAdaptor : sf::Adaptor {
  Calls* calls;
  explicit RecordingAdaptor(Calls* c) : calls(c) {}
  void write(sf::Connection*, const sf::Buffer& b) override {
    calls->written.emplace_back(b.data ? b.data : "", b.size());
  }
  void reject(sf::Connection*, sf::Buffer& b) override {
    calls->replyRejects.emplace_back(b.data ? b.data : "", b.size());
  }
  void reject(sf::Connection*, int code, const char* text) override {
    EXPECT_EQ(code, 0);
    EXPECT_EQ(text, nullptr);
    ++calls->defaultRejects;
    if (calls->throwOnReject) throw sf::Xio();
  }
};

// An accepted loopback connection with a recording adaptor on top.
struct Peer : sftest::AcceptedPair {
  Calls calls;
  Peer() { conn.push(new RecordingAdaptor(&calls)); }
  // A message on this connection, reserved as the reader leaves it.
  Counted* message(bool closeNotice = false) {
    Counted* m = new Counted;
    m->conn = conn;
    m->reserved = true;
    m->isCloseNotice = closeNotice;
    conn.reserve();
    return m;
  }
};

sf::MessageQ* testQueue() {
  static sf::MessageQ* q = [] {
    sftest::ensureInterp();
    return sf::mkQ("worker-test");
  }();
  return q;
}

// Processing defined by the test.
class TestWorker : public sf::Worker {
 public:
  std::function<void(sf::Message*, sf::Buffer&)> body;
  int calls = 0;
  TestWorker() : sf::Worker((testQueue(), "worker-test")) {}
  void processMessage1(sf::Message* msg, sf::Buffer& reply) override {
    ++calls;
    body(msg, reply);
  }
};

// The worker deletes the message; the context keeps the stale pointer until
// the next one, so tests forget it before the context could be dropped.
void handle(sf::Worker& w, sf::Message* m) {
  w.handle(m);
  sf::getContext()->message = nullptr;
}

TEST(Message, ContextOwnsItsMessage) {
  g_destroyed = 0;
  sf::TransactionContext* ctx = sf::getContext();
  ctx->message = new Counted;
  ctx->user1 = 4;
  ctx->user2 = 5;
  ctx->watchdog = reinterpret_cast<sf::TimeoutId*>(&ctx);  // only compared

  sf::TransactionContext taken(ctx);
  EXPECT_EQ(taken.message, ctx->message);
  EXPECT_EQ(taken.user1, 4);
  EXPECT_EQ(taken.user2, 0);
  EXPECT_EQ(taken.watchdog, nullptr);
  taken.message = nullptr;
  ctx->watchdog = nullptr;

  sf::setContext(nullptr);  // drops the work in hand, message included
  EXPECT_EQ(g_destroyed.load(), 1);
  EXPECT_EQ(sf::getContext()->message, nullptr);
  EXPECT_EQ(sf::getContext()->user1, 0);
}

TEST(Worker, RepliesRejectsAndDisposesEachMessage) {
  sftest::LogCapture log(3);
  Peer peer;
  TestWorker w;
  g_destroyed = 0;
  w.body = [](sf::Message*, sf::Buffer& reply) { reply.append("pong"); };
  handle(w, peer.message());
  EXPECT_EQ(peer.calls.written, std::vector<std::string>{"pong"});
  EXPECT_FALSE(peer.conn.isReserved());
  EXPECT_EQ(g_destroyed.load(), 1);

  // keep: processed, stamped and left alive.
  Counted* kept = peer.message();
  kept->keep = true;
  handle(w, kept);
  EXPECT_NE(kept->processedAt, 0);
  EXPECT_EQ(g_destroyed.load(), 1);
  delete kept;

  // Close notices are skipped, though unreserved and disposed, unless asked for.
  handle(w, peer.message(true));
  EXPECT_EQ(w.calls, 2);
  EXPECT_FALSE(peer.conn.isReserved());
  EXPECT_EQ(g_destroyed.load(), 3);
  w.skipCloseNotices = false;
  handle(w, peer.message(true));
  EXPECT_EQ(w.calls, 3);

  // A reject exception sends its reply instead, and may close.
  w.body = [](sf::Message*, sf::Buffer&) {
    sf::Xreject x;
    x.reply = new sf::Buffer;
    x.reply->append("HTTP/1.1 413 Too Large\r\n\r\n");
    x.close = true;
    throw x;
  };
  handle(w, peer.message());
  EXPECT_EQ(peer.calls.replyRejects, std::vector<std::string>{"HTTP/1.1 413 Too Large\r\n\r\n"});
  EXPECT_EQ(peer.calls.defaultRejects, 0);
  EXPECT_TRUE(log.contains("worker: reject exception during processing, rejecting"));
  EXPECT_EQ(peer.conn.socketNo(), sf::INVALID_SOCK);  // closed
  EXPECT_FALSE(peer.conn.isReserved());

  // Without a reply and without close: nothing is sent, nothing closed.
  Peer other;
  w.body = [](sf::Message*, sf::Buffer&) { throw sf::Xreject(); };
  handle(w, other.message());
  EXPECT_TRUE(other.calls.replyRejects.empty());
  EXPECT_EQ(other.calls.defaultRejects, 0);
  EXPECT_NE(other.conn.socketNo(), sf::INVALID_SOCK);

  // Other failures become default rejects. The base processMessage1 refuses
  // everything; a worker needs its queue.
  g_destroyed = 0;
  sf::Worker plain("worker-test");
  EXPECT_THROW(sf::Worker("no-such-queue"), sf::Xinvalid);
  EXPECT_TRUE(log.contains("no such queue no-such-queue"));
  handle(plain, other.message());
  EXPECT_EQ(other.calls.defaultRejects, 1);
  EXPECT_TRUE(other.calls.written.empty());
  EXPECT_TRUE(log.contains("worker: sf exception during processing, rejecting - 2-1"));
  EXPECT_FALSE(other.conn.isReserved());
  EXPECT_EQ(g_destroyed.load(), 1);

  // A reject that itself fails is logged and the worker carries on.
  other.calls.throwOnReject = true;
  w.body = [](sf::Message*, sf::Buffer&) { throw std::runtime_error("host bug"); };
  Counted* second = other.message();
  second->keep = true;
  handle(w, second);
  EXPECT_EQ(other.calls.defaultRejects, 2);
  EXPECT_TRUE(log.contains("worker: exception during processing, rejecting"));
  EXPECT_TRUE(log.contains("worker: error sending reject message, continuing"));
  EXPECT_EQ(second->processedAt, 0);  // not stamped when processing threw
  delete second;

  // A message without a connection (a timer's) gets no reject at all.
  handle(plain, new Counted);
  EXPECT_EQ(other.calls.defaultRejects, 2);
  EXPECT_EQ(g_destroyed.load(), 3);
}

TEST(Threads, PipeNamesAreCutTo31Characters) {
  EXPECT_EQ(sf::getUniqueP2PPipeName(12, 345), "\\\\.\\pipe\\id12-345");
  std::string longest = sf::getUniqueP2PPipeName(-2147483647, -2147483647);
  EXPECT_EQ(longest.size(), 31u);
  EXPECT_EQ(longest, std::string("\\\\.\\pipe\\id-2147483647--2147483647").substr(0, 31));
}

}  // namespace
