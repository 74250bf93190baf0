// TCP receive modes, the adaptor chain's strict defaults and the pushback
// layer, over real loopback connections.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;
using sftest::text;

namespace {

// A loopback pair whose accepted Connection reads through a TcpAdaptor.
struct Pair : sftest::AcceptedPair {
  Pair() { conn.push(new sf::TcpAdaptor); }
  void send(const std::string& t) { ASSERT_TRUE(sftest::sendAll(client, t)); }
};

// A lower layer that delivers scripted PDUs, for the pushback layer.
class Script : public sf::Adaptor {
 public:
  std::deque<std::string> pdus;
  void readPdu(sf::Connection*, sf::Buffer& buf) override {
    if (pdus.empty()) SF_THROW("script", sf::Xclosed());
    buf.append(pdus.front().data(), pdus.front().size());
    pdus.pop_front();
  }
};

}  // namespace

TEST(TcpRecv, ThreeModesResetAndTimeOut) {
  Pair exact, upto, tillEof, reset, silent;
  sf::Buffer b1(0), b2(0), b3(0);
  exact.send("abcd");
  exact.closeClient();
  EXPECT_THROW(sf::tcp_recv(exact.conn, b1, sf::RecvExact, 10), sf::Xclosed);
  EXPECT_EQ(text(b1), "abcd");

  b2.append("x", 1);
  upto.send("hello");
  sf::tcp_recv(upto.conn, b2, sf::RecvUptoNB, 100);
  EXPECT_EQ(text(b2), "xhello");  // earlier contents kept, one chunk only
  EXPECT_THROW(sf::tcp_recv(upto.conn, b2, sf::RecvUptoNB, 0), sf::Xio);

  tillEof.send(std::string(20000, 'z') + "end");
  tillEof.closeClient();
  sf::tcp_recv(tillEof.conn, b3, sf::RecvTillEof, 0);
  EXPECT_EQ(b3.size(), 20003u);

  // A peer that resets (linger 0) has closed as surely as one that said so:
  // callers retry or drop on Xclosed, not on other I/O errors.
  pf::set_linger(reset.client, 1, 0);
  reset.closeClient();
  EXPECT_THROW(sf::tcp_recv(reset.conn, b1, sf::RecvUptoNB, 10), sf::Xclosed);

  // A silent peer times out with the event; the socket is blocking again and
  // still usable.
  silent.conn.setReadTimeout_s(1);
  sftest::LogCapture log(3);
  sf::Buffer b(0);
  EXPECT_THROW(sf::tcp_recv(silent.conn, b, sf::RecvExact, 4), sf::Xiotimeout);
  EXPECT_TRUE(log.contains("09_sf_readtimeout_s_s_d"));
  silent.send("ping");
  sf::tcp_recv(silent.conn, b, sf::RecvExact, 4);
  EXPECT_EQ(text(b), "ping");
}

TEST(Adaptor, StrictDefaultsAndTcpBottom) {
  Pair p;
  sf::Adaptor bare;
  sf::Buffer b(0);
  EXPECT_THROW(bare.readPdu(&p.conn, b), sf::Xstate);
  EXPECT_THROW(bare.readPduNext(&p.conn, b), sf::Xstate);
  EXPECT_THROW(bare.write(&p.conn, b), sf::Xstate);
  EXPECT_THROW(bare.pushback("x", 1), sf::Xstate);
  EXPECT_THROW(p.conn.getAdaptor()->pushback("x", 1), sf::Xstate);  // bare TcpAdaptor

  p.send(std::string(10000, 'q'));
  b.append("keep", 4);
  // A raw PDU is at most 4096 bytes, appended to what the buffer held.
  p.conn.read(b);
  EXPECT_LE(b.size(), 4u + 4096u);
  EXPECT_EQ(text(b).substr(0, 5), "keepq");

  sf::Buffer out(0);
  out.append("reply");
  p.conn.write(out);
  EXPECT_EQ(sftest::recvUpTo(p.client, 5), "reply");
  // The base reject(conn, code, text) closes.
  p.conn.getAdaptor()->reject(&p.conn, 0, nullptr);
  EXPECT_EQ(p.conn.socketNo(), sf::INVALID_SOCK);
}

TEST(PushbackSandwich, ServesPushedBytesFirstAndReusesSpace) {
  sftest::ensureInterp();
  Script* lower = new Script;
  sf::PushbackSandwich pb(lower);
  sf::Connection none;
  lower->pdus = {"socket"};
  pb.pushback("AAAAA", 5);
  pb.pushback("BBB", 3);
  EXPECT_TRUE(pb.hasBufferedData());
  sf::Buffer b(0);
  pb.readUptoNB(&none, b, 4);  // last pushed first, across runs
  EXPECT_EQ(text(b), "BBBA");
  pb.readUptoNB(&none, b, 100);
  EXPECT_EQ(text(b), "BBBAAAAA");
  EXPECT_FALSE(pb.hasBufferedData());
  pb.readUptoNB(&none, b, 3);  // from below; the excess is pushed back
  EXPECT_EQ(text(b), "BBBAAAAAsoc");
  EXPECT_EQ(pb.pending(), 3u);

  // Exact reads across PDUs keep the remainder.
  sf::Buffer e(0);
  lower->pdus = {"123456", "abcdefgh"};
  pb.init(&none);  // discards "ket"
  pb.read(&none, e, 10);
  EXPECT_EQ(text(e), "123456abcd");
  EXPECT_EQ(pb.pending(), 4u);

  // Pushing back into served space does not allocate a node: the bytes
  // come out before the rest of that node.
  sf::Buffer one(0);
  pb.readUptoNB(&none, one, 3);  // "efg" served, offset 3 in "efgh" node
  pb.pushback("XY", 2);
  sf::Buffer rest(0);
  pb.readUptoNB(&none, rest, 100);
  EXPECT_EQ(text(rest), "XYh");

  // readTillEof leaves pushed-back bytes queued.
  pb.pushback("Q", 1);
  EXPECT_THROW(pb.readTillEof(&none, rest, 0), sf::Xstate);  // Script has no readTillEof
  EXPECT_EQ(pb.pending(), 1u);
}
