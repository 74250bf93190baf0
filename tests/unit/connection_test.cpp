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
  EXPECT_EQ(sf::PortAddr("127.0.0.1", "1").backlog,
            64);  // read at every construction
}

// The raw I/O log's switch is read once per process: CTest runs each case
// alone.
TEST(Connection, IdsReservationIoLogAndLastRelease) {
  sftest::TempDir dir;
  Listener l;
  const std::string port = std::to_string(l.portno);
  sf::setVarStr("sf.datdir", dir.str().c_str());
  setenv("SF_IOLOG", "1", 1);
  pf::sock_t client = sftest::connectTo(l.portno);
  size_t before = sf::sfi_connectionCount();
  int id = 0;
  {
    sf::Connection c = sf::tcp_accept(l.port);
    id = c.nonce();
    EXPECT_EQ(c.getSid(), std::to_string(static_cast<unsigned>(id)));
    EXPECT_EQ(sf::sfi_connectionCount(), before + 1);
    EXPECT_EQ(c.localinfo(), "127.0.0.1+" + port);
    EXPECT_EQ(c.remoteinfo().rfind("127.0.0.1+", 0), 0u);
    EXPECT_EQ(c.readTimeout_s(), 5u);               // sf.reader.readtimeout's default
    EXPECT_THROW(sf::tcp_accept(l.port), sf::Xio);  // nothing pending
  }
  // The handle went out of scope: record destroyed and socket closed.
  EXPECT_EQ(sf::sfi_connectionCount(), before);
  EXPECT_EQ(sftest::recvUpTo(client), "");
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

  // The raw I/O log has every write, even an empty one, and every read.
  sf::tcp_write(c, sf::Buffer(0));
  sf::Buffer b(0);
  b.append("payload");
  sf::tcp_write(c, b);
  ASSERT_TRUE(sftest::sendAll(client, "in"));
  sf::tcp_recv(c, b, sf::RecvExact, 2);
  std::string log = sftest::readFile(dir.path() / "io.log");
  for (const std::string& want :
       {std::string("send["), "] 0 bytes on 127.0.0.1+" + port, "] 7 bytes on 127.0.0.1+" + port,
        std::string("payload\n"),  // raw bytes with SF_IOLOG
        std::string("recv["), "] 2 bytes on 127.0.0.1+" + port + " from 127.0.0.1+"})
    EXPECT_NE(log.find(want), std::string::npos) << want;

  sf::Connection copy;
  copy = c;
  EXPECT_TRUE(c.check());
  sf::tcp_close(copy);  // closes for every handle; the record stays
  EXPECT_EQ(c.socketNo(), sf::INVALID_SOCK);
  EXPECT_FALSE(c.check());
  EXPECT_EQ(sftest::recvUpTo(client), "payload");
  EXPECT_THROW(sf::tcp_recv(c, b, sf::RecvUptoNB, 10), sf::Xsys);
  pf::sock_close(client);

  // Outgoing connections read with sf.readtimeout, 60 s unless set.
  EXPECT_EQ(sf::tcp_connect(sf::PortAddr("127.0.0.1", port.c_str())).readTimeout_s(), 60u);
}
