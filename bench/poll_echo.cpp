// The reference for the echo benchmark: the smallest reasonable TCP echo
// server, one thread and one poll loop, no queues, no workers, no Tcl.
//
//   poll_echo PORT
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "sf/platform/poll.h"
#include "sf/platform/socket.h"

namespace pf = sf::platform;

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: poll_echo PORT\n");
    return 2;
  }
  char addr[pf::kIpv4AddrLen];
  pf::make_ipv4_addr("127.0.0.1", atoi(argv[1]), addr);
  pf::sock_t l = pf::sock_stream(pf::family_ipv4());
  pf::set_reuseaddr(l, 1);
  if (pf::sock_bind(l, addr, pf::kIpv4AddrLen) != 0 || pf::sock_listen(l, 1024) != 0) {
    perror("poll_echo: bind");
    return 1;
  }
  std::vector<pf::sock_t> conns;
  pf::PollSet set;
  char buf[4096];
  for (;;) {
    set.clear();
    set.add(l);
    for (pf::sock_t c : conns) set.add(c);
    if (set.wait(-1) <= 0) continue;
    if (set.readySlot(0)) {
      pf::sock_t c = pf::sock_accept(l);
      if (c != pf::kNoSock) {
        pf::set_nodelay(c, 1);
        conns.push_back(c);
      }
    }
    for (size_t i = 0; i < conns.size();) {
      if (!set.ready(conns[i])) {
        ++i;
        continue;
      }
      long r = pf::sock_recv(conns[i], buf, sizeof buf);
      if (r <= 0 || pf::sock_send(conns[i], buf, static_cast<size_t>(r)) != r) {
        pf::sock_close(conns[i]);
        conns.erase(conns.begin() + static_cast<long>(i));
        continue;
      }
      ++i;
    }
  }
}
