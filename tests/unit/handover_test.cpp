// The hand-over wire format over a real pipe (edge cases a real hand-over
// does not show), and the port commands.
#include <gtest/gtest.h>

#include <string>

#include "sf/net/net.h"
#include "sf/platform/pipe.h"
#include "sf/platform/socket.h"
#include "sf/script/commands.h"
#include "sf/sflib.h"
#include "support/testsupport.h"

namespace pf = sf::platform;

namespace {

struct Pipe {
  int fd[2];
  Pipe() { EXPECT_TRUE(pf::pipe_create(fd)); }
  ~Pipe() {
    closeWriter();
    pf::fd_close(fd[0]);
  }
  void closeWriter() {
    if (fd[1] >= 0) pf::fd_close(fd[1]);
    fd[1] = -1;
  }
};

}  // namespace

// One pipe carries what a hand-over sends: values, the start-up result, the
// table of ports and pairs; and at the end a writer that went away.
TEST(PipeWire, ValuesStartupResultAndEnvironment) {
  sftest::ensureCommands();
  Pipe p;
  EXPECT_EQ(sf::pipewriteint(p.fd[1], -7), 4);
  EXPECT_EQ(sf::pipewriteSocket(p.fd[1], 0x1122334455667788ull), 8);
  EXPECT_EQ(sf::pipewritestr(p.fd[1], "hello"), 5);
  EXPECT_EQ(sf::pipewritestr(p.fd[1], ""), 0);
  EXPECT_EQ(sf::pipewritestr(p.fd[1], std::string("cut\0here", 8)), 8);

  int v = 0;
  size_t s = 0;
  EXPECT_EQ(sf::pipereadint(p.fd[0], v), 4);
  EXPECT_EQ(sf::pipereadSocket(p.fd[0], s), 8);
  EXPECT_EQ(v, -7);
  EXPECT_EQ(s, 0x1122334455667788ull);
  std::string text = "old";
  EXPECT_EQ(sf::pipereadstr(p.fd[0], text), 5);
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(sf::pipereadstr(p.fd[0], text), 0);  // empty: left alone
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(sf::pipereadstr(p.fd[0], text), 8);
  EXPECT_EQ(text, "cut");  // an embedded NUL ends the text

  sf::sendStartupOk(p.fd[1]);
  EXPECT_NO_THROW(sf::receiveStartupOk(p.fd[0]));
  sf::pipewriteint(p.fd[1], 2);
  sftest::LogCapture log(1);
  EXPECT_THROW(sf::receiveStartupOk(p.fd[0]), sf::Xio);
  EXPECT_TRUE(log.contains("did not recieve correct startup result message, got '2'"));

  pf::sock_t sock = pf::sock_stream(pf::family_ipv4());
  sf::pipewriteint(p.fd[1], 1);
  sf::pipewriteSocket(p.fd[1], static_cast<size_t>(sock));
  // A second k replaces the first; an empty name ends the pairs.
  for (const char* t : {"10.1.2.3+99", "k", "v1", "k", "v2", "", "after the end"})
    sf::pipewritestr(p.fd[1], t);
  sf::receiveEnv(p.fd[0]);
  EXPECT_EQ(sf::sfi_sharedPortUses("10.1.2.3+99"), 0);
  EXPECT_EQ(sf::getSymbiotic("k"), "v2");
  sf::Port taken = sf::bindSharedPort(sf::PortAddr("10.1.2.3", "99"));
  EXPECT_EQ(taken.socketNo(), sock);
  EXPECT_EQ(taken.name(), "10.1.2.3+99");
  EXPECT_EQ(sf::pipereadstr(p.fd[0], text), 13);  // left for the next reader
  EXPECT_EQ(text, "after the end");

  // A short read leaves the target as it was; a child that died before it
  // reported is a failed start-up.
  p.closeWriter();
  v = 42;
  EXPECT_EQ(sf::pipereadint(p.fd[0], v), 0);
  EXPECT_EQ(v, 42);
  EXPECT_THROW(sf::receiveStartupOk(p.fd[0]), sf::Xio);
}

TEST(NetCommands, BindOptionsAndArgumentCounts) {
  sftest::ensureCommands();
  sf::PortAddr probe("127.0.0.1", "0");
  sf::Port tmp = sf::bindPort(probe);
  std::string port = std::to_string(pf::bound_port(tmp.socketNo()));
  delete tmp.p;  // free the number again

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
  sf::Port first = sf::bindPort(sf::PortAddr("127.0.0.1", "0"));
  const std::string port = std::to_string(pf::bound_port(first.socketNo()));
  char addr[pf::kIpv4AddrLen];
  pf::make_ipv4_addr("127.0.0.1", pf::bound_port(first.socketNo()), addr);
  pf::sock_t client = pf::sock_stream(pf::family_ipv4());
  ASSERT_EQ(pf::sock_connect(client, addr, pf::kIpv4AddrLen), 0);
  {
    sf::Connection served = sf::tcp_accept(first);
    sf::tcp_close(served);
  }
  pf::sock_close(client);
  delete first.p;
  const sf::PortAddr same("127.0.0.1", port.c_str());
  sf::Port again = sf::bindPort(same);

  // While it listens, the port cannot be bound a second time.
  sftest::LogCapture log(0);
  EXPECT_THROW(sf::bindPort(same), sf::Xio);
  EXPECT_TRUE(log.contains("02_sf_bind_s"));
  delete again.p;
}
