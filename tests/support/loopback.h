// Real loopback sockets for the unit tests: a listening port, raw clients,
// and an accepted Connection paired with its client.
#pragma once

#include <string>

#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"

namespace sftest {

// A port bound on 127.0.0.1 to a free number, closed with the object.
struct Listener {
  sf::Port port;
  int portno;
  Listener();
  ~Listener();
};

// A client connected to 127.0.0.1:port whose receives give up after 20 s
// (a hung server fails the test, not the run); kNoSock if refused.
sf::platform::sock_t connectTo(int port);
bool sendAll(sf::platform::sock_t s, const std::string& text);
// Reads until n bytes came or the peer closed (by default, everything until
// it closes); "<not closed>" is appended when the receive timed out first.
std::string recvUpTo(sf::platform::sock_t s, size_t n = std::string::npos);
bool echoes(sf::platform::sock_t s, const std::string& text);

// A client and the Connection its server side accepted (no adaptor yet).
struct AcceptedPair {
  Listener listener;
  sf::platform::sock_t client;
  sf::Connection conn;
  AcceptedPair();
  ~AcceptedPair();
  void closeClient();
};

}  // namespace sftest
