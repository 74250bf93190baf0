// sf_httpclient: HttpAdaptor's client role from the command line, for the
// integration tests: GET url. -n repeats the request on one connection; -p
// tunnels through a proxy with CONNECT, -a gives it the credentials for any
// realm. Prints "status CODE", "length N", the N body bytes and a newline per
// response, or "error TEXT" and exits 1.
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>

#include "sf/http/httpadaptor.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"

namespace {

void usage() {
  fprintf(stderr,
          "usage: sf_httpclient [-n count] [-p proxyhost proxyport] [-a user password]\n"
          "                     host port url\n");
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  std::string proxyHost, proxyPort, user, password;
  std::list<std::string> headers;
  int count = 1;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string o = argv[i];
    if (o == "-n" && i + 1 < argc) {
      count = atoi(argv[++i]);
    } else if (o == "-p" && i + 2 < argc) {
      proxyHost = argv[++i];
      proxyPort = argv[++i];
    } else if (o == "-a" && i + 2 < argc) {
      user = argv[++i];
      password = argv[++i];
    } else {
      usage();
    }
  }
  if (argc - i != 3) usage();
  std::string host = argv[i], port = argv[i + 1], url = argv[i + 2];

  sf::sfi_tclCreate();
  if (!user.empty()) {
    sf::setVarStr("sf.http.authname(*)", user.c_str());
    sf::setVarStr("sf.http.authpasswd(*)", password.c_str());
  }
  try {
    bool proxy = !proxyHost.empty();
    sf::PortAddr addr((proxy ? proxyHost : host).c_str(), (proxy ? proxyPort : port).c_str());
    sf::Connection c = sf::tcp_connect(addr);
    sf::HttpAdaptor* http = new sf::HttpAdaptor(true);
    c.push(new sf::TcpAdaptor);
    c.push(http);
    if (proxy) {
      // Through the open tunnel the same adaptor speaks HTTP/1.1 to its far
      // end: init() starts it afresh, as on a new connection.
      http->httpConnect(c, (host + ":" + port).c_str());
      http->init(&c);
      headers.push_back("Host: " + host + ":" + port);
    }
    for (int n = 0; n < count; ++n) {
      http->get(&c, url.c_str(), headers);
      sf::Buffer answer;
      http->readMessage(&c, answer, nullptr);
      printf("status %d\nlength %zu\n", http->lastStatus(), answer.size());
      fwrite(answer.data ? answer.data : "", 1, answer.size(), stdout);
      puts("");
    }
  } catch (sf::X& x) {
    printf("error %s\n", x.str().c_str());
    return 1;
  }
  return 0;
}
