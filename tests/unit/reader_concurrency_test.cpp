// The reader loop end to end on loopback: a TclReader that queues each PDU,
// a DummyWorker that echoes it, and real client sockets.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/platform/thread.h"
#include "sf/script/commands.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;
using sftest::connectTo;
using sftest::echoes;
using sftest::recvN;
using sftest::sendAll;

namespace {

void setUp() {
  static bool done = false;
  sftest::ensureInterp();
  if (!done) {
    sf::sfi_registerCommands();
    sf::initTimer();
    sf::setVarInt("sf.reader.threads", 3);  // more than one, whatever the machine
  }
  done = true;
}

// A bound port (shared: put in the shared table and taken back, as a
// script's bind does) served by a reader thread, a TclReader by default, that
// queues on queue, and one echoing DummyWorker. The reader thread sets
// *returned when its loop ends and stays alive: Tcl frees per-thread data only
// for threads it is told about.
struct Service {
  sf::Port port;
  int portno = 0;
  std::atomic<bool>* returned = new std::atomic<bool>(false);
  explicit Service(const std::string& queue, sf::Reader* r = nullptr, bool shared = false) {
    setUp();
    if (!sf::getQ(queue.c_str())) sf::mkQ(queue.c_str());
    sf::setVarInt("sf.tcp.backlog", 128);  // the default 5 drops SYNs of a crowd
    sf::PortAddr addr("127.0.0.1", "0");
    port = sf::bindPort(addr);
    portno = pf::bound_port(port.socketNo());
    if (shared) {
      sf::PortAddr named("127.0.0.1", std::to_string(portno).c_str());
      sf::setSharedPort(named, port);
      port = sf::bindSharedPort(named);
    }
    sf::Reader* reader = r ? r : new sf::TclReader;
    std::thread([reader, p = port, script = "enQ " + queue, done = returned]() mutable {
      reader->run(p, script.c_str(), nullptr);
      *done = true;
      for (;;) pf::sleep_ms(100000);
    }).detach();
    std::thread([queue] { sf::DummyWorker(queue.c_str(), "sf_echo").run(); }).detach();
  }
};

}  // namespace

namespace {
// Messages are lines: whole once their newline is there. Reads go through a
// pushback layer, which keeps what follows the line for the next read.
class Lines : public sf::Adaptor {
 public:
  Lines() : sf::Adaptor(new sf::PushbackSandwich(nullptr)) {}
  sf::Framing frame(sf::Connection*, const char* data, size_t len) override {
    return memchr(data, '\n', len) ? sf::Framing::Whole : sf::Framing::Header;
  }
  void readPdu(sf::Connection* c, sf::Buffer& buf) override {
    sf::Buffer got(0);
    next->readUptoNB(c, got, 4096);
    size_t end = std::string(got.data, got.size()).find('\n') + 1;
    buf.append(got.data, end);
    if (end < got.size()) next->pushback(got.data + end, got.size() - end);
  }
  void write(sf::Connection* c, const sf::Buffer& buf) override { next->write(c, buf); }
};
class LineReader : public sf::TclReader {
 public:
  void acceptHook(sf::Connection& c) override { c.push(new Lines); }
};
}  // namespace

// A client that sends part of a message delays nobody, may finish it, and
// is cut off when it stays unfinished past the read time-out.
TEST(Reader, UnfinishedMessagesWaitWithoutDelayingOthersUntilTheirDeadline) {
  setUp();
  sf::setVarInt("sf.reader.readtimeout", 1);
  Service svc("line-q", new LineReader);
  pf::sock_t slow = connectTo(svc.portno), good = connectTo(svc.portno);
  ASSERT_TRUE(sendAll(slow, "part"));
  EXPECT_TRUE(echoes(good, "one\ntwo\n"));  // pipelined, served from what arrived
  ASSERT_TRUE(sendAll(slow, "ly\n"));
  EXPECT_EQ(recvN(slow, 7), "partly\n");
  ASSERT_TRUE(sendAll(slow, "never finished"));
  EXPECT_EQ(sftest::recvToClose(slow), "");  // closed at the deadline
  EXPECT_TRUE(echoes(good, "still served\n"));
  for (pf::sock_t s : {slow, good}) pf::sock_close(s);
}

namespace {
// Lines, queued for nobody but the test; notes the most messages of one
// connection ever in flight.
class HoldingReader : public LineReader {
 public:
  sf::MessageQ* q;
  std::atomic<int> most{0};
  explicit HoldingReader(sf::MessageQ* q_) : q(q_) {}
  void validate(sf::Message* msg, const void*) override {
    most = std::max(most.load(), msg->origin.record()->inFlight.load());
    q->enQ(msg);
    sf::getContext()->message = nullptr;  // delivered
  }
};
}  // namespace

// A client that sends faster than its messages are taken has at most 16 in
// flight; the rest waits in its connection, and nothing is lost.
TEST(Reader, AClientHasAtMostSixteenMessagesInFlight) {
  setUp();
  sf::MessageQ* held = sf::mkQ("held-q");
  HoldingReader* reader = new HoldingReader(held);
  Service svc("flood-q", reader);
  pf::sock_t s = connectTo(svc.portno);
  std::string lines;
  for (int i = 0; i < 40; ++i) lines += std::to_string(i) + "\n";
  ASSERT_TRUE(sendAll(s, lines));
  for (int i = 0; i < 1000 && held->size() < 16; ++i) pf::sleep_ms(10);
  for (int i = 0; i < 40; ++i) {
    sf::Message* m = held->deQ();
    EXPECT_EQ(std::string(m->data->data, m->data->size()), std::to_string(i) + "\n");
    delete m;
  }
  EXPECT_EQ(reader->most.load(), 16);
  pf::sock_close(s);
}

namespace {
// Asks for close notices on every accepted connection.
class NotifyingReader : public sf::TclReader {
 public:
  sf::MessageQ* q;
  explicit NotifyingReader(sf::MessageQ* q_) : q(q_) {}
  void acceptHook(sf::Connection& c) override { c.closeNotify(q); }
};
}  // namespace

TEST(Reader, ClosedAndResetClientsPostCloseNotices) {
  setUp();
  sf::MessageQ* notices = sf::mkQ("notice-q");
  Service svc("data-q", new NotifyingReader(notices));
  pf::sock_t s = connectTo(svc.portno);
  ASSERT_TRUE(echoes(s, "hi"));
  pf::sock_close(s);  // orderly close
  sf::Message* m = notices->deQ();
  EXPECT_TRUE(m->isCloseNotice);
  EXPECT_EQ(m->data, nullptr);
  EXPECT_FALSE(m->sessionId.empty());
  delete m;

  // A reset mid-stream (linger 0 makes close send RST) is a close too, and
  // the reader goes on serving others.
  s = connectTo(svc.portno);
  ASSERT_TRUE(echoes(s, "partial"));
  pf::set_linger(s, 1, 0);
  pf::sock_close(s);
  m = notices->deQ();
  EXPECT_TRUE(m->isCloseNotice);
  delete m;
  pf::sock_t t = connectTo(svc.portno);
  EXPECT_TRUE(echoes(t, "still"));
  pf::sock_close(t);
  delete notices->deQ();
}

namespace {
// Refuses PDUs that begin with "bad" with a reply and a close, and PDUs that
// begin with "quiet" with a reply only; passes the rest on.
class Refusing : public sf::Adaptor {
 public:
  void readPdu(sf::Connection* c, sf::Buffer& buf) override {
    next->readPdu(c, buf);
    std::string text(buf.data, buf.size());
    if (text.rfind("bad", 0) == 0 || text.rfind("quiet", 0) == 0) {
      sf::Xreject x;
      x.reply = new sf::Buffer(0);
      x.reply->append("NO\n");
      x.close = text[0] == 'b';
      SF_THROW("refuse", x);
    }
  }
  void write(sf::Connection* c, const sf::Buffer& buf) override { next->write(c, buf); }
};
class RefusingReader : public sf::TclReader {
 public:
  void acceptHook(sf::Connection& c) override { c.push(new Refusing); }
  void validate(sf::Message* msg, const void* target) override {
    if (std::string(msg->data->data, msg->data->size()) == "boom")
      SF_THROW("validate", sf::Xproto());
    sf::TclReader::validate(msg, target);
  }
};
}  // namespace

TEST(Reader, RejectsFromTheChainAndFromValidate) {
  Service svc("reject-q", new RefusingReader);
  pf::sock_t keep = connectTo(svc.portno), closed = connectTo(svc.portno),
             boom = connectTo(svc.portno);
  ASSERT_TRUE(sendAll(keep, "quiet please"));
  EXPECT_EQ(recvN(keep, 3), "NO\n");  // answered, connection kept
  EXPECT_TRUE(echoes(keep, "fine"));
  ASSERT_TRUE(sendAll(closed, "bad request"));
  EXPECT_EQ(sftest::recvToClose(closed), "NO\n");  // the reply, then the end
  ASSERT_TRUE(sendAll(boom, "boom"));
  EXPECT_EQ(sftest::recvToClose(boom), "");  // the default reject closes
  EXPECT_TRUE(echoes(keep, "still here"));
  for (pf::sock_t s : {keep, closed, boom}) pf::sock_close(s);
}

// Stops the library for the whole process, so it comes last: a program run
// whole (as under Wine) runs its cases in this order.
TEST(Reader, ShutdownClosesSharedPortsWithClientsConnected) {
  Service svc("stop-q", nullptr, true);
  sf::PortAddr unusedAddr("127.0.0.1", "0");
  sf::setSharedPort(sf::PortAddr("127.0.0.9", "1"), sf::bindPort(unusedAddr));
  pf::sock_t idle = connectTo(svc.portno);
  pf::sock_t busy = connectTo(svc.portno);
  ASSERT_TRUE(echoes(busy, "x"));

  sf::shutdown();  // wakes the reader; returns once it closed the port
  for (int i = 0; i < 1000 && !svc.returned->load(); ++i) pf::sleep_ms(10);
  EXPECT_TRUE(svc.returned->load());
  EXPECT_EQ(svc.port.socketNo(), sf::INVALID_SOCK);
  EXPECT_EQ(sf::sfi_sharedPortUses("127.0.0.9+1"), -1);  // never taken: closed
  EXPECT_EQ(connectTo(svc.portno), pf::kNoSock);         // the listening socket is gone
  pf::sock_close(idle);
  pf::sock_close(busy);
}
