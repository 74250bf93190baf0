// The hand-over wire format over a real pipe (edge cases a real hand-over
// does not show), the shared-port table and the port commands.
#include <gtest/gtest.h>

#include <string>

#include "sf/net/net.h"
#include "sf/platform/pipe.h"
#include "sf/platform/socket.h"
#include "sf/script/commands.h"
#include "sf/sflib.h"
#include "support/loopback.h"
#include "support/testsupport.h"

namespace pf = sf::platform;

// One pipe carries what a hand-over sends: values, the start-up result, the
// table of ports and pairs; and at the end a writer that went away.
TEST(PipeWire, ValuesStartupResultAndEnvironment) {
  sftest::ensureCommands();
  int fd[2];
  ASSERT_TRUE(pf::pipe_create(fd));
  EXPECT_EQ(sf::pipewriteint(fd[1], -7), 4);
  EXPECT_EQ(sf::pipewriteSocket(fd[1], 0x1122334455667788ull), 8);
  EXPECT_EQ(sf::pipewritestr(fd[1], "hello"), 5);
  EXPECT_EQ(sf::pipewritestr(fd[1], ""), 0);
  EXPECT_EQ(sf::pipewritestr(fd[1], std::string("cut\0here", 8)), 8);

  int v = 0;
  size_t s = 0;
  EXPECT_EQ(sf::pipereadint(fd[0], v), 4);
  EXPECT_EQ(sf::pipereadSocket(fd[0], s), 8);
  EXPECT_EQ(v, -7);
  EXPECT_EQ(s, 0x1122334455667788ull);
  std::string text = "old";
  EXPECT_EQ(sf::pipereadstr(fd[0], text), 5);
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(sf::pipereadstr(fd[0], text), 0);  // empty: left alone
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(sf::pipereadstr(fd[0], text), 8);
  EXPECT_EQ(text, "cut");  // an embedded NUL ends the text

  sf::sendStartupOk(fd[1]);
  EXPECT_NO_THROW(sf::receiveStartupOk(fd[0]));
  sf::pipewriteint(fd[1], 2);
  EXPECT_THROW(sf::receiveStartupOk(fd[0]), sf::Xio);

  pf::sock_t sock = pf::sock_stream(pf::family_ipv4());
  sf::pipewriteint(fd[1], 1);
  sf::pipewriteSocket(fd[1], static_cast<size_t>(sock));
  // A second k replaces the first; an empty name ends the pairs.
  for (const char* t : {"10.1.2.3+99", "k", "v1", "k", "v2", "", "after the end"})
    sf::pipewritestr(fd[1], t);
  sf::receiveEnv(fd[0]);
  EXPECT_EQ(sf::sfi_sharedPortUses("10.1.2.3+99"), 0);
  EXPECT_EQ(sf::getSymbiotic("k"), "v2");
  sf::Port taken = sf::bindSharedPort(sf::PortAddr("10.1.2.3", "99"));
  EXPECT_EQ(taken.socketNo(), sock);
  EXPECT_EQ(taken.name(), "10.1.2.3+99");
  EXPECT_EQ(sf::pipereadstr(fd[0], text), 13);  // left for the next reader
  EXPECT_EQ(text, "after the end");

  // A short read leaves the target as it was; a child that died before it
  // reported is a failed start-up.
  pf::fd_close(fd[1]);
  v = 42;
  EXPECT_EQ(sf::pipereadint(fd[0], v), 0);
  EXPECT_EQ(v, 42);
  EXPECT_THROW(sf::receiveStartupOk(fd[0]), sf::Xio);
}

// `bind` and the shared-port table with its sweep, sf_ping's read time-out,
// and the commands' argument checks.
TEST(NetCommands, BindSharesPortsAndPingReadsWithTheReadTimeout) {
  sftest::ensureCommands();
  std::string port;
  {
    sftest::Listener probe;  // a free number, free again after the block
    port = std::to_string(probe.portno);
  }
  sf::eval(("bind 127.0.0.1 " + port + " -idletimeout 30").c_str());
  sf::Port p = sf::bindSharedPort(sf::PortAddr("127.0.0.1", port.c_str()));
  EXPECT_EQ(p.p->idleTimeout_s.load(), 30);
  EXPECT_EQ(p.p->getAcceptAction(), "");
  // Bound again: the shared port is taken, not bound anew.
  sf::eval(("bind 127.0.0.1 " + port + " {set accepted 1}").c_str());
  EXPECT_EQ(p.p->getAcceptAction(), "set accepted 1");
  EXPECT_EQ(p.p->idleTimeout_s.load(), 30);
  EXPECT_EQ(sf::sfi_sharedPortUses("127.0.0.1+" + port), 2);
  // A first word that is not -idletimeout is the accept action.
  sf::eval(("bind 127.0.0.1 " + port + " -idle x").c_str());
  EXPECT_EQ(p.p->getAcceptAction(), "-idle");
  // The sweep closes the shared ports nobody took and keeps the others.
  sf::setSharedPort(sf::PortAddr("127.0.0.2", "0"), sf::bindPort(sf::PortAddr("127.0.0.2", "0")));
  sf::sfi_closeUnusedSharedPorts();
  EXPECT_EQ(sf::sfi_sharedPortUses("127.0.0.2+0"), -1);
  EXPECT_EQ(sf::sfi_sharedPortUses("127.0.0.1+" + port), 3);

  // sf_ping's outgoing connection reads with sf.readtimeout (the event's
  // last word): a peer that never answers fails it, after it got the data.
  sf::setVarInt("sf.readtimeout", 1);
  sftest::LogCapture log(3);
  EXPECT_THROW(sf::eval(("sf_ping 127.0.0.1 " + port + " hello").c_str()), sf::Xtcl);
  EXPECT_TRUE(log.contains("} { 1 }"));
  sf::Connection pinged = sf::tcp_accept(p);
  sf::Buffer got(0);
  sf::tcp_recv(pinged, got, sf::RecvExact, 5);
  EXPECT_EQ(sftest::text(got), "hello");

  const char* pingArgs[] = {"sf_ping", "a", "b"};
  EXPECT_EQ(sf::sfi_cmd_sf_ping(3, pingArgs), -1);
  const char* loadArgs[] = {"sfload"};
  EXPECT_EQ(sf::sfi_cmd_sfload(1, loadArgs), 1);
  EXPECT_THROW(sf::eval("sfload /no/such/library"), sf::Xtcl);
  const char* echoArgs[] = {"sf_echo"};
  sf::setContext(nullptr);
  EXPECT_EQ(sf::sfi_cmd_sf_echo(1, echoArgs), -1);  // no current message
}

TEST(Ports, RestartAfterOwnClosesButNeverBesideAListener) {
  sftest::ensureCommands();
  // A server that closed a connection itself leaves it in TIME_WAIT on the
  // port; a restart must bind the port again at once.
  std::string port;
  {
    sftest::AcceptedPair served;
    sf::tcp_close(served.conn);
    port = std::to_string(served.listener.portno);
  }
  const sf::PortAddr same("127.0.0.1", port.c_str());
  sf::Port again = sf::bindPort(same);

  // While it listens, the port cannot be bound a second time.
  sftest::LogCapture log(0);
  EXPECT_THROW(sf::bindPort(same), sf::Xio);
  EXPECT_TRUE(log.contains("02_sf_bind_s"));
  delete again.p;
}
