// Ports, connections and TCP I/O against real loopback sockets.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

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
  sf::setVarInt("sf.tcp.backlog", 5);
}

TEST(Port, SharedTableCountsUsesAndSweepsUnused) {
  sftest::ensureInterp();
  sf::PortAddr a("127.0.0.1", "0");
  sf::Port taken = sf::bindPort(a);
  sf::setSharedPort(a, taken);
  sf::PortAddr b("127.0.0.2", "0");
  sf::Port idle = sf::bindPort(b);
  sf::setSharedPort(b, idle);

  sf::Port first = sf::bindSharedPort(a);
  sf::Port second = sf::bindSharedPort(a);
  EXPECT_EQ(first.p, taken.p);
  EXPECT_EQ(second.p, taken.p);
  EXPECT_EQ(sf::sfi_sharedPortUses(a.str()), 2);
  sf::PortAddr c("127.0.0.3", "0");
  EXPECT_THROW(sf::bindSharedPort(c), sf::Xio);

  sf::sfi_closeUnusedSharedPorts();
  EXPECT_EQ(sf::sfi_sharedPortUses(b.str()), -1);
  EXPECT_EQ(sf::sfi_sharedPortUses(a.str()), 2);
}

TEST(Connection, IdsReservationAndLastRelease) {
  Listener l;
  pf::sock_t client = sftest::connectTo(l.portno);
  size_t before = sf::sfi_connectionCount();
  int id = 0;
  try {
    sf::Connection c = sf::tcp_accept(l.port);
    id = c.nonce();
    EXPECT_EQ(c.getSid(), std::to_string(static_cast<unsigned>(id)));
    EXPECT_EQ(sf::sfi_connectionCount(), before + 1);
    EXPECT_EQ(c.localinfo(), "127.0.0.1+" + std::to_string(l.portno));
    EXPECT_EQ(c.remoteinfo().rfind("127.0.0.1+", 0), 0u);
    EXPECT_EQ(c.readTimeout_s(), 5u);  // sf.reader.readtimeout's default

    sf::Connection other = sf::tcp_accept(l.port);  // nothing pending: accept fails
    FAIL() << "accept without a client returned";
  } catch (const sf::Xio&) {
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
}

// The dump switches are read once per process: CTest runs each case alone.
TEST(Connection, IoDumpRecordsEveryWriteEvenAnEmptyOne) {
  sftest::ensureInterp();
  sftest::TempDir dir;
  sf::setVarStr("sf.datdir", dir.str().c_str());
  setenv("SF_IOLOG", "1", 1);
  Listener l;
  pf::sock_t client = sftest::connectTo(l.portno);
  {
    sf::Connection c = sf::tcp_accept(l.port);
    sf::Buffer empty(0);
    sf::tcp_write(c, empty);
    sf::Buffer b(0);
    b.append("payload", 7);
    sf::tcp_write(c, b);
    pf::sock_send(client, "in", 2);
    sf::Buffer got(0);
    sf::tcp_recv(c, got, sf::RecvExact, 2);
  }
  pf::sock_close(client);
  std::string log = sftest::readFile(dir.path() / "io.log");
  for (const std::string& want :
       {std::string("send["), "] 0 bytes on 127.0.0.1+" + std::to_string(l.portno),
        "] 7 bytes on 127.0.0.1+" + std::to_string(l.portno),
        std::string("payload\n"),  // raw bytes with SF_IOLOG
        std::string("recv["),
        "] 2 bytes on 127.0.0.1+" + std::to_string(l.portno) + " from 127.0.0.1+"})
    EXPECT_NE(log.find(want), std::string::npos) << want;
  unsetenv("SF_IOLOG");
}
