#include "support/loopback.h"

#include <gtest/gtest.h>

#include "support/testsupport.h"

namespace pf = sf::platform;

namespace sftest {

Listener::Listener() {
  ensureInterp();
  port = sf::bindPort(sf::PortAddr("127.0.0.1", "0"));
  portno = pf::bound_port(port.socketNo());
}
Listener::~Listener() {
  delete port.p;  // records normally live until process end
}

pf::sock_t connectTo(int port) {
  char addr[pf::kIpv4AddrLen];
  pf::make_ipv4_addr("127.0.0.1", port, addr);
  pf::sock_t s = pf::sock_stream(pf::family_ipv4());
  if (pf::sock_connect(s, addr, pf::kIpv4AddrLen) != 0) {
    pf::sock_close(s);
    return pf::kNoSock;
  }
  pf::set_rcvtimeo_ms(s, 20000);
  return s;
}

bool sendAll(pf::sock_t s, const std::string& text) {
  return pf::sock_send(s, text.data(), text.size()) == static_cast<long>(text.size());
}

std::string recvUpTo(pf::sock_t s, size_t n) {
  std::string out;
  char buf[4096];
  while (out.size() < n) {
    long r = pf::sock_recv(s, buf, sizeof buf);
    if (r == 0) break;
    if (r < 0) return out + "<not closed>";
    out.append(buf, static_cast<size_t>(r));
  }
  return out;
}

bool echoes(pf::sock_t s, const std::string& text) {
  return sendAll(s, text) && recvUpTo(s, text.size()) == text;
}

AcceptedPair::AcceptedPair() : client(connectTo(listener.portno)) {
  EXPECT_NE(client, pf::kNoSock);
  conn = sf::tcp_accept(listener.port);
}
AcceptedPair::~AcceptedPair() {
  closeClient();
}
void AcceptedPair::closeClient() {
  if (client != pf::kNoSock) pf::sock_close(client);
  client = pf::kNoSock;
}

}  // namespace sftest
