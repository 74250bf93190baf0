// libFuzzer target: HTTP message reading in both roles over an in-memory
// lower adaptor. Byte 0: bit 0 client role, bits 1-2 smaller limits, bit 3
// HEAD, bit 4 read as fragments. Byte 1: the largest segment one lower read
// delivers. The rest is the peer's stream, read until it ends or a message is
// refused; a server-side refusal is answered through reject().
#include <cstddef>
#include <cstdint>
#include <string>

#include "sf/detail/net.h"
#include "sf/http/httpadaptor.h"
#include "sf/message.h"
#include "sf/platform/socket.h"
#include "sf/sflib.h"

namespace {

class Feed : public sf::Adaptor {
 public:
  const std::uint8_t* p = nullptr;
  size_t left = 0;
  size_t segment = 1;
  size_t written = 0;

  void take(sf::Buffer& b, size_t n) {
    n = std::min(left, n);
    b.append(p, n);
    p += n;
    left -= n;
  }
  void readPdu(sf::Connection*, sf::Buffer& b) override {
    if (left == 0) throw sf::Xclosed();
    take(b, segment);
  }
  void readTillEof(sf::Connection*, sf::Buffer& b, int n) override {
    take(b, n > 0 ? static_cast<size_t>(n) : left);
  }
  void write(sf::Connection*, const sf::Buffer& b) override { written += b.size(); }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sf::sfi_tclCreate();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  if (size < 2) return 0;
  bool client = data[0] & 1;
  sf::Connection conn(new sf::i_Connection(sf::platform::sock_stream(sf::platform::family_ipv4())));
  Feed* feed = new Feed;
  feed->segment = 1 + data[1];
  feed->p = data + 2;
  feed->left = size - 2;
  conn.push(feed);
  sf::HttpAdaptor* http = new sf::HttpAdaptor(client);
  http->setMaxHeader((data[0] & 2) ? 256 : 1024);
  http->setMaxBody((data[0] & 4) ? 300 : 4096);
  conn.push(http);
  if (client && (data[0] & 8)) http->requestHeader.method = sf::HttpAdaptor::METHOD_HEAD;
  bool fragments = data[0] & 16;

  sf::getContext()->message = new sf::Message;
  for (int messages = 0; messages < 64; ++messages) {
    sf::Buffer body;
    try {
      if (fragments) {
        http->readPduFirst(&conn, body);
        while (http->readPduIsMore(&conn)) http->readPduNext(&conn, body);
      } else {
        http->readPdu(&conn, body);
      }
      if (body.size() > static_cast<size_t>(http->maxBody) + 4096) __builtin_trap();
      if (!client) conn.write(body);
    } catch (sf::Xreject& x) {
      if (!client && x.reply) {
        try {
          http->reject(&conn, *x.reply);
        } catch (sf::X&) {
        }
      }
      delete x.reply;
      break;
    } catch (sf::X&) {
      break;
    }
    if (conn.socketNo() == sf::INVALID_SOCK) break;
  }
  sf::setContext(nullptr);
  return 0;
}
