// libFuzzer target: HTTP message reading in both roles over an in-memory
// lower adaptor. Byte 0: bit 0 client role, bits 1-2 smaller limits, bit 3
// HEAD, bit 4 read as fragments, bit 5 (server role) framed as the
// event-driven reader does, (client role) a strict client. Byte 1: the
// largest segment one lower read delivers (each read a random size up to
// it), and the seed of the random splits. The rest is the peer's stream,
// read until it ends or a message is refused (at most 64 messages); the
// server role answers each request, a refusal through reject(). Framed, the
// stream is also fed to frame() in random splits and each Whole message read
// with readPdu; the requests, answers and verdicts must be those of the
// blocking path over the same stream.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "sf/http/httpadaptor.h"
#include "sf/net/net.h"
#include "sf/platform/socket.h"
#include "sf/script/interp.h"
#include "sf/sflib.h"
#include "sf/work/message.h"

namespace {

class Feed : public sf::Adaptor {
 public:
  const std::uint8_t* p = nullptr;
  size_t left = 0;
  size_t segment = 1;
  std::mt19937 rng;

  void take(sf::Buffer& b, size_t n) {
    n = std::min(left, n);
    b.append(p, n);
    p += n;
    left -= n;
  }
  void readPdu(sf::Connection*, sf::Buffer& b) override {
    if (left == 0) throw sf::Xclosed();
    take(b, 1 + rng() % segment);
  }
  void readTillEof(sf::Connection*, sf::Buffer& b, int n) override {
    take(b, n > 0 ? static_cast<size_t>(n) : left);
  }
  void write(sf::Connection*, const sf::Buffer&) override {}
};

// An adaptor in the role and with the limits of byte 0 over the whole stream.
struct Peer {
  sf::Connection conn{new sf::i_Connection(sf::platform::sock_stream(sf::platform::family_ipv4()))};
  Feed* feed = new Feed;
  sf::HttpAdaptor* http;

  Peer(std::uint8_t control, const std::uint8_t* p, size_t n, size_t segment)
      : http(new sf::HttpAdaptor(control & 1)) {
    sf::getContext()->message = new sf::Message;
    feed->p = p;
    feed->left = n;
    feed->segment = segment;
    feed->rng.seed(segment);
    conn.push(feed);
    http->setMaxHeader((control & 2) ? 256 : 1024);
    http->setMaxBody((control & 4) ? 300 : 4096);
    conn.push(http);
  }
  ~Peer() { sf::setContext(nullptr); }

  // Reads the next message (once whole() says it has arrived, if given) and
  // in the server role answers it; adds its body or its refusal to outcome.
  // False once no message follows.
  bool read(std::string& outcome, bool fragments, const std::function<bool()>& whole = nullptr) {
    sf::Buffer body;
    try {
      if (whole && !whole()) return false;
      if (fragments) {
        http->readPduFirst(&conn, body);
        while (http->readPduIsMore(&conn)) http->readPduNext(&conn, body);
      } else {
        http->readPdu(&conn, body);
      }
      if (body.size() > static_cast<size_t>(http->settings().maxBody) + 4096) __builtin_trap();
      outcome += "body " + std::string(body.data ? body.data : "", body.size()) + "\n";
      if (!http->isClient()) conn.write(body);
    } catch (sf::Xreject& x) {
      outcome += "refused " + (x.reply ? std::string(x.reply->data, x.reply->size()) : "");
      try {
        if (!http->isClient() && x.reply) http->reject(&conn, *x.reply);
      } catch (sf::X&) {
      }
      delete x.reply;
      return false;
    } catch (sf::X&) {
      return false;
    }
    return conn.socketNo() != sf::INVALID_SOCK;
  }
};

// The outcomes of the framed path: frame() on what has arrived, grown in
// random splits, and readPdu once it answers Whole.
std::string framed(std::uint8_t control, const std::uint8_t* p, size_t n, unsigned seed) {
  Peer s(control, p, n, 4096);
  auto* below = static_cast<sf::PushbackSandwich*>(s.http->next);
  std::mt19937 rng(seed);
  size_t arrived = 0;
  auto whole = [&] {
    size_t consumed = static_cast<size_t>(s.feed->p - p) - below->pending();
    while (s.http->frame(&s.conn, reinterpret_cast<const char*>(p) + consumed,
                         arrived - consumed) != sf::Framing::Whole) {
      if (arrived == n) return false;
      arrived = std::min(n, arrived + 1 + rng() % 64);
    }
    return true;
  };
  std::string outcome;
  for (int messages = 0; messages < 64 && s.read(outcome, false, whole); ++messages) {
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  sf::sfi_tclCreate();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const bool client = data[0] & 1;
  const bool compared = !client && (data[0] & 32);
  std::string outcome;
  {
    Peer s(data[0], data + 2, size - 2, 1 + data[1]);
    if (client && (data[0] & 8)) s.http->head(&s.conn, "/", {});
    s.http->setStrictResponse(client && (data[0] & 32));
    const bool fragments = (data[0] & 16) && !compared;
    for (int messages = 0; messages < 64 && s.read(outcome, fragments); ++messages) {
    }
  }
  if (compared && framed(data[0], data + 2, size - 2, data[1]) != outcome) __builtin_trap();
  return 0;
}
