// Ports, connections and TCP I/O against real loopback sockets.
#include <gtest/gtest.h>

#include <string>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;

using sftest::Listener;

TEST(PortAddr, ResolvesAndRefusesWhatItMust) {
  sftest::ensureInterp();
  sf::PortAddr any("", "8080");
  EXPECT_EQ(any.str(), "+8080");
  EXPECT_EQ(any.addr->addrlen(), 16);
  sf::PortAddr named("localhost", "http");  // not a number: port 0
  EXPECT_EQ(named.str(), "localhost+http");
  EXPECT_EQ(named.backlog, 5);
  EXPECT_THROW(sf::PortAddr("/local", "1"), sf::Xstate);
  EXPECT_THROW(sf::PortAddr("no-such-host.invalid", "1"), sf::Xsys);

  sf::setVarInt("sf.tcp.backlog", 64);
  sf::PortAddr later("127.0.0.1", "1");
  EXPECT_EQ(later.backlog, 64);  // read at every construction
}

TEST(Connection, IdsReservationAndLastRelease) {
  Listener l;
  pf::sock_t client = sftest::connectTo(l.portno);
  size_t before = sf::sfi_connectionCount();
  int id = 0;
  {
    sf::Connection c = sf::tcp_accept(l.port);
    id = c.nonce();
    EXPECT_EQ(c.getSid(), std::to_string(static_cast<unsigned>(id)));
    EXPECT_EQ(sf::sfi_connectionCount(), before + 1);
    EXPECT_EQ(c.localinfo(), "127.0.0.1+" + std::to_string(l.portno));
    EXPECT_EQ(c.remoteinfo().rfind("127.0.0.1+", 0), 0u);
    EXPECT_EQ(c.readTimeout_s(), 5u);               // sf.reader.readtimeout's default
    EXPECT_THROW(sf::tcp_accept(l.port), sf::Xio);  // nothing pending
  }
  // The handle went out of scope: record destroyed and socket closed.
  EXPECT_EQ(sf::sfi_connectionCount(), before);
  EXPECT_EQ(sftest::recvToClose(client), "");
  pf::sock_close(client);

  client = sftest::connectTo(l.portno);
  sf::Connection c = sf::tcp_accept(l.port);
  EXPECT_GT(c.nonce(), id);
  EXPECT_FALSE(c.isReserved());
  EXPECT_THROW(c.unreserve(false), sf::Xstate);
  c.reserve();
  c.reserve();
  c.unreserve(false);
  EXPECT_TRUE(c.isReserved());
  c.unreserve(true);
  EXPECT_FALSE(c.isReserved());

  sf::Connection copy;
  copy = c;
  EXPECT_TRUE(c.check());
  sf::tcp_close(copy);  // closes for every handle; the record stays
  EXPECT_EQ(c.socketNo(), sf::INVALID_SOCK);
  EXPECT_FALSE(c.check());
  EXPECT_EQ(sftest::recvToClose(client), "");
  sf::Buffer buf(0);
  EXPECT_THROW(sf::tcp_recv(c, buf, sf::RecvUptoNB, 10), sf::Xsys);
  pf::sock_close(client);

  // Outgoing connections read with sf.readtimeout, 60 s unless set.
  const sf::PortAddr addr("127.0.0.1", std::to_string(l.portno).c_str());
  EXPECT_EQ(sf::tcp_connect(addr).readTimeout_s(), 60u);
}

// The dump switches are read once per process: CTest runs each case alone.
TEST(Connection, IoDumpRecordsEveryWriteEvenAnEmptyOne) {
  sftest::ensureInterp();
  sftest::TempDir dir;
  sf::setVarStr("sf.datdir", dir.str().c_str());
  setenv("SF_IOLOG", "1", 1);
  std::string port;
  {
    sftest::AcceptedPair p;
    sf::tcp_write(p.conn, sf::Buffer(0));
    sf::Buffer b(0);
    b.append("payload", 7);
    sf::tcp_write(p.conn, b);
    pf::sock_send(p.client, "in", 2);
    sf::Buffer got(0);
    sf::tcp_recv(p.conn, got, sf::RecvExact, 2);
    port = std::to_string(p.listener.portno);
  }
  std::string log = sftest::readFile(dir.path() / "io.log");
  for (const std::string& want :
       {std::string("send["), "] 0 bytes on 127.0.0.1+" + port, "] 7 bytes on 127.0.0.1+" + port,
        std::string("payload\n"),  // raw bytes with SF_IOLOG
        std::string("recv["), "] 2 bytes on 127.0.0.1+" + port + " from 127.0.0.1+"})
    EXPECT_NE(log.find(want), std::string::npos) << want;
}
