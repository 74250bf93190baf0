// The exchanges of one forwarding worker with its HTTP server. Internal to
// the library; sf::HttpWorker drives them.
//
// An exchange is one message's request, sent on a server connection of its
// own, and the answer awaited there. Server sockets are non-blocking: a new
// connection is made in the background, the answer's bytes are taken as they
// arrive and the client-role adaptor's framing step says when it is whole;
// only then is it read (from memory), checked and relayed. So one worker
// thread has many exchanges in flight and a slow server connection or answer
// holds up no other. Writing a request is the one step that may wait (for
// room in the socket's send buffer, at most the connection's read time-out).
//
// Connections to the server are kept between exchanges while the server
// allows. An idle one stays watched: bytes or a close from it mean that it is
// no longer at a message boundary, and it is closed. A kept connection that
// the server closed before the answer began is replaced once; after that the
// client gets 502.
#pragma once

#include <cstdint>
#include <vector>

#include "sf/http/httpreader.h"
#include "sf/platform/events.h"

namespace sf {

// Writes msg's request on backend through its client-role adaptor http, as
// mode says (httpworker.cpp).
void writeForwardedRequest(HttpAdaptor* http, Connection& backend, Message* msg,
                           HttpWorker::Mode mode);

class HttpWorker::Exchanges {
 public:
  explicit Exchanges(HttpWorker& worker);
  ~Exchanges();
  Exchanges(const Exchanges&) = delete;
  Exchanges& operator=(const Exchanges&) = delete;

  // Sends msg's request. With owned, the exchange disposes of msg when it
  // ends (Worker::dispose); otherwise the caller does. Returns the
  // exchange's slot, or -1 when it ended at once (the client was answered).
  int start(Message* msg, bool owned);
  // Whether slot still serves msg.
  bool serving(int slot, const Message* msg) const;
  bool full() const { return busy_ >= kMaxExchanges; }
  // Rung by the worker's queue (MessageQ::watch): wakes a pass.
  platform::Wakeup& bell() { return bell_; }
  // Waits for answers (at most timeout_ms; -1: until something happens)
  // and finishes what is there: answers complete, idle connections closed,
  // time-outs and clients gone.
  void pass(int timeout_ms);

 private:
  typedef std::int64_t Ms;  // monotonic milliseconds

  struct Slot {
    Connection backend;          // no record while the slot is free
    socket_t fd = INVALID_SOCK;  // as registered in the event set
    Message* msg = nullptr;      // null while the connection waits idle
    bool owned = false;
    bool wasReserved = false;  // msg->reserved when the exchange began
    bool kept = false;         // the connection served an earlier exchange
    bool connecting = false;   // the connection is still being made
    bool ended = false;        // the server closed its side
    Ms since = 0;              // the request went out, or the answer's last bytes came
    Ms clientChecked = 0;      // when the client was last seen alive
  };

  int takeSlot();
  void begin(int k);
  bool connect(int k);
  void connected(int k);
  void send(int k);
  void dropConnection(int k);
  void closeSlot(int k);
  void onReady(const platform::EventSet::Ready& ready, Ms now);
  void finish(int k);
  void end(int k, int status, Buffer& answer);
  void sweep(Ms now);
  int waitMs(int timeout_ms, Ms now) const;

  HttpWorker& worker_;
  platform::EventSet set_;
  platform::Wakeup bell_;
  std::vector<Slot> slots_;  // index: the event key
  std::vector<int> idle_;    // connected, waiting for a request; the last is the warmest
  std::vector<int> free_;    // without a connection
  int busy_ = 0;
  Ms nextSweep_ = 0;
  Ms lastArmed_ = 0;  // the watchdog was last armed or restarted
};

}  // namespace sf
