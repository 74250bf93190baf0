// The reference for the echo benchmark: the smallest reasonable TCP echo
// server, one thread and one event loop, no queues, no workers, no Tcl.
//
//   event_echo PORT
#include <cstdio>
#include <cstdlib>

#include "sf/platform/events.h"
#include "sf/platform/socket.h"

namespace pf = sf::platform;

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: event_echo PORT\n");
    return 2;
  }
  char addr[pf::kIpv4AddrLen];
  pf::make_ipv4_addr("127.0.0.1", atoi(argv[1]), addr);
  pf::sock_t l = pf::sock_stream(pf::family_ipv4());
  pf::set_reuseaddr(l, 1);
  if (pf::sock_bind(l, addr, pf::kIpv4AddrLen) != 0 || pf::sock_listen(l, 1024) != 0) {
    perror("event_echo: bind");
    return 1;
  }
  pf::EventSet set;
  set.add(l, l, pf::EventSet::Level);
  char buf[4096];
  pf::EventSet::Ready ready[64];
  for (;;) {
    int n = set.wait(ready, 64, -1);
    for (int i = 0; i < n; ++i) {
      pf::sock_t s = ready[i].key;
      if (s == l) {
        pf::sock_t c = pf::sock_accept(l);
        if (c != pf::kNoSock) {
          pf::set_nodelay(c, 1);
          set.add(c, c, pf::EventSet::Level);
        }
        continue;
      }
      long r = pf::sock_recv(s, buf, sizeof buf);
      if (r <= 0 || pf::sock_send(s, buf, static_cast<size_t>(r)) != r) {
        set.remove(s);
        pf::sock_close(s);
      }
    }
  }
}
