// Load client for TCP echo servers: N keep-alive connections, each sending a
// 32-byte message and waiting for its echo before sending the next. Prints
// round trips per second and latency percentiles.
//
//   echo_load PORT CLIENTS SECONDS [WARMUP_SECONDS]
//
// One thread drives every connection with one event set, so the client itself stays
// cheap next to the server it measures.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sf/platform/events.h"
#include "sf/platform/socket.h"

namespace pf = sf::platform;
using Clock = std::chrono::steady_clock;

namespace {

const size_t kMsg = 32;

struct Client {
  pf::sock_t s = pf::kNoSock;
  Clock::time_point sentAt;
  size_t got = 0;
  char buf[kMsg];
};

bool sendOne(Client& c) {
  char msg[kMsg];
  memset(msg, 'a' + static_cast<int>(c.s % 26), kMsg);
  c.got = 0;
  c.sentAt = Clock::now();
  return pf::sock_send(c.s, msg, kMsg) == static_cast<long>(kMsg);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: echo_load PORT CLIENTS SECONDS [WARMUP_SECONDS]\n");
    return 2;
  }
  int port = atoi(argv[1]);
  int n = atoi(argv[2]);
  double seconds = atof(argv[3]);
  double warmup = argc > 4 ? atof(argv[4]) : 1.0;

  char addr[pf::kIpv4AddrLen];
  pf::make_ipv4_addr("127.0.0.1", port, addr);
  std::vector<Client> clients(static_cast<size_t>(n));
  for (Client& c : clients) {
    c.s = pf::sock_stream(pf::family_ipv4());
    if (pf::sock_connect(c.s, addr, pf::kIpv4AddrLen) != 0) {
      fprintf(stderr, "echo_load: connect failed\n");
      return 1;
    }
    pf::set_nodelay(c.s, 1);
  }
  pf::EventSet set;
  for (size_t i = 0; i < clients.size(); ++i) set.add(clients[i].s, i, pf::EventSet::Level);
  for (Client& c : clients) sendOne(c);

  std::vector<std::uint32_t> lat;
  lat.reserve(1 << 20);
  Clock::time_point start = Clock::now();
  Clock::time_point measureFrom =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(warmup));
  Clock::time_point end = measureFrom + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(seconds));
  long errors = 0;
  for (;;) {
    Clock::time_point now = Clock::now();
    if (now >= end) break;
    sf::platform::EventSet::Ready ready[64];
    int nready = set.wait(ready, 64, 100);
    for (int k = 0; k < nready; ++k) {
      Client& c = clients[ready[k].key];
      long r = pf::sock_recv(c.s, c.buf + c.got, kMsg - c.got);
      if (r <= 0) {
        ++errors;
        continue;
      }
      c.got += static_cast<size_t>(r);
      if (c.got < kMsg) continue;
      Clock::time_point done = Clock::now();
      if (c.sentAt >= measureFrom)
        lat.push_back(static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(done - c.sentAt).count()));
      if (!sendOne(c)) ++errors;
    }
  }
  for (Client& c : clients) pf::sock_close(c.s);
  if (lat.empty()) {
    printf("clients=%d round_trips=0 errors=%ld\n", n, errors);
    return 1;
  }
  std::sort(lat.begin(), lat.end());
  auto pct = [&](double p) {
    return lat[static_cast<size_t>(p * static_cast<double>(lat.size() - 1))];
  };
  printf("clients=%d round_trips=%zu rt_per_s=%.0f p50_us=%u p99_us=%u max_us=%u errors=%ld\n", n,
         lat.size(), static_cast<double>(lat.size()) / seconds, pct(0.50), pct(0.99), lat.back(),
         errors);
  return 0;
}
