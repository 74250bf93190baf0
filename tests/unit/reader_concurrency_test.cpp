// The reader loop end to end on loopback: one reader thread with a line
// framing adaptor, a DummyWorker that echoes what it queues, and real client
// sockets. One scenario, since its last step stops the library for the whole
// process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <string>
#include <thread>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/platform/thread.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;
using sftest::connectTo;
using sftest::echoes;
using sftest::recvUpTo;
using sftest::sendAll;

namespace {

// Messages are lines: whole once their newline is there. Reads go through a
// pushback layer, which keeps what follows the line for the next read. A
// line that begins with "bad" is refused with a reply and a close, one that
// begins with "quiet" with a reply only.
class Lines : public sf::Adaptor {
 public:
  Lines() : sf::Adaptor(new sf::PushbackSandwich(nullptr)) {}
  sf::Framing frame(sf::Connection*, const char* data, size_t len) override {
    return memchr(data, '\n', len) ? sf::Framing::Whole : sf::Framing::Header;
  }
  void readPdu(sf::Connection* c, sf::Buffer& buf) override {
    sf::Buffer got(0);
    next->readUptoNB(c, got, 4096);
    std::string text(got.data, got.size());
    size_t end = text.find('\n') + 1;
    buf.append(got.data, end);
    if (end < got.size()) next->pushback(got.data + end, got.size() - end);
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

// Frames with Lines and asks for close notices on every connection. A line
// "boom" fails validation; a line that begins with a digit is held for the
// test, which notes the most messages of one connection ever in flight; the
// rest is queued for the echoing worker.
class TestReader : public sf::TclReader {
 public:
  sf::MessageQ* notices = sf::mkQ("notices");
  sf::MessageQ* held = sf::mkQ("held");
  std::atomic<int> most{0};
  void acceptHook(sf::Connection& c) override {
    c.push(new Lines);
    c.closeNotify(notices);
  }
  void validate(sf::Message* msg, const void* target) override {
    std::string line(msg->data->data, msg->data->size());
    if (line == "boom\n") SF_THROW("validate", sf::Xproto());
    if (!isdigit(static_cast<unsigned char>(line[0]))) return sf::TclReader::validate(msg, target);
    most = std::max(most.load(), msg->origin.record()->inFlight.load());
    held->enQ(msg);
    sf::getContext()->message = nullptr;  // delivered
  }
};

}  // namespace

TEST(Reader, ServesClientsThroughTheirLimitsAndMisuseUntilShutdown) {
  sftest::ensureCommands();
  sf::initTimer();
  sf::setVarInt("sf.reader.threads", 3);  // more than one, whatever the machine
  sf::setVarInt("sf.reader.readtimeout", 1);
  sf::setVarInt("sf.tcp.backlog", 128);  // no connection here waits on a dropped SYN
  sf::setVarInt("sf.qsize", 100);
  sf::mkQ("echo-q");
  // A port put in the shared table and taken back, as a script's bind does,
  // beside a shared port nobody takes.
  sf::Port port = sf::bindPort(sf::PortAddr("127.0.0.1", "0"));
  const int portno = pf::bound_port(port.socketNo());
  const sf::PortAddr named("127.0.0.1", std::to_string(portno).c_str());
  sf::setSharedPort(named, port);
  port = sf::bindSharedPort(named);
  sf::setSharedPort(sf::PortAddr("127.0.0.9", "1"), sf::bindPort(sf::PortAddr("127.0.0.1", "0")));
  // The reader thread stays alive once its loop returned: Tcl frees
  // per-thread data only for threads it is told about.
  TestReader* reader = new TestReader;
  static std::atomic<bool> returned{false};
  std::thread([reader, port]() mutable {
    reader->run(port, "enQ echo-q", nullptr);
    returned = true;
    for (;;) pf::sleep_ms(100000);
  }).detach();
  std::thread([] { sf::DummyWorker("echo-q", "sf_echo").run(); }).detach();

  // A client that sends part of a message delays nobody, may finish it, and
  // is cut off when it stays unfinished past the read time-out.
  pf::sock_t slow = connectTo(portno), good = connectTo(portno);
  ASSERT_TRUE(sendAll(slow, "part"));
  EXPECT_TRUE(echoes(good, "one\ntwo\n"));  // pipelined, served from what arrived
  ASSERT_TRUE(sendAll(slow, "ly\n"));
  EXPECT_EQ(recvUpTo(slow, 7), "partly\n");
  ASSERT_TRUE(sendAll(slow, "never finished"));
  EXPECT_EQ(recvUpTo(slow), "");  // closed at the deadline
  EXPECT_TRUE(echoes(good, "still served\n"));

  // Refusals from the adaptor chain answer and may close; a failed
  // validation gets the default reject, which closes.
  pf::sock_t closed = connectTo(portno), boom = connectTo(portno);
  ASSERT_TRUE(sendAll(good, "quiet please\n"));
  EXPECT_EQ(recvUpTo(good, 3), "NO\n");
  EXPECT_TRUE(echoes(good, "fine\n"));
  ASSERT_TRUE(sendAll(closed, "bad request\n"));
  EXPECT_EQ(recvUpTo(closed), "NO\n");  // the reply, then the end
  ASSERT_TRUE(sendAll(boom, "boom\n"));
  EXPECT_EQ(recvUpTo(boom), "");
  for (pf::sock_t s : {slow, closed, boom}) pf::sock_close(s);

  // Every connection the server closed has posted its notice; so do a
  // client's orderly close and its reset (linger 0 makes close send RST).
  EXPECT_EQ(reader->notices->size(), 3);
  while (reader->notices->size()) delete reader->notices->deQ();
  for (bool reset : {false, true}) {
    pf::sock_t s = connectTo(portno);
    ASSERT_TRUE(echoes(s, "hi\n"));
    if (reset) pf::set_linger(s, 1, 0);
    pf::sock_close(s);
    for (int i = 0; i < 2000 && reader->notices->size() == 0; ++i) pf::sleep_ms(10);
    ASSERT_EQ(reader->notices->size(), 1) << "reset " << reset;
    sf::Message* m = reader->notices->deQ();
    EXPECT_TRUE(m->isCloseNotice);
    EXPECT_EQ(m->data, nullptr);
    EXPECT_FALSE(m->sessionId.empty());
    delete m;
  }
  EXPECT_TRUE(echoes(good, "still here\n"));

  // A client that sends faster than its messages are taken has at most 16 in
  // flight; the rest waits in its connection, and nothing is lost.
  pf::sock_t flood = connectTo(portno);
  std::string lines;
  for (int i = 0; i < 40; ++i) lines += std::to_string(i) + "\n";
  ASSERT_TRUE(sendAll(flood, lines));
  for (int i = 0; i < 1000 && reader->held->size() < 16; ++i) pf::sleep_ms(10);
  for (int i = 0; i < 40; ++i) {
    sf::Message* m = reader->held->deQ();
    EXPECT_EQ(sftest::text(*m->data), std::to_string(i) + "\n");
    delete m;
  }
  EXPECT_EQ(reader->most.load(), 16);

  // Shutdown with clients connected closes the shared ports, the unused one
  // too, and the listening socket; it waits for the queues to drain, the
  // notices of the connections it closes too.
  std::thread([q = reader->notices] {
    for (;;) delete q->deQ();
  }).detach();
  sf::shutdown();  // wakes the reader; returns once it closed the port
  for (int i = 0; i < 1000 && !returned; ++i) pf::sleep_ms(10);
  EXPECT_TRUE(returned);
  EXPECT_EQ(port.socketNo(), sf::INVALID_SOCK);
  EXPECT_EQ(sf::sfi_sharedPortUses("127.0.0.9+1"), -1);
  EXPECT_EQ(connectTo(portno), pf::kNoSock);
  pf::sock_close(good);
  pf::sock_close(flood);
}
