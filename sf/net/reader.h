// The reader loop: sf.reader.threads threads per listening port.
//
// Reader::run starts the port's other reader threads and serves as one of
// them. Each waits on the shared listening socket (one thread is woken per
// arrival), on the connections it accepted and on its mailbox, through the
// platform's event backend; it accepts new clients, and takes what arrives
// on a connection into its input without ever waiting for a client.
// Once the top adaptor's framing step says a whole message is there, it
// reads it through the adaptor chain (from memory), wraps it in a Message
// and hands it to validate(), which delivers it (normally onto a named
// queue; the name is the one hosts override, though nothing is checked). An unfinished message has
// a deadline (the read time-out); an adaptor that cannot frame gets a blocking read. A worker that
// gives a connection back, or closes one, wakes the thread that accepted it.
// A pass still ends after 10 seconds without activity. At shutdown accepting
// stops at once and what was received is answered (sf.shutdown.drain
// seconds at most) before the connections close. mkMsg, validate and
// acceptHook are called from all of a port's reader threads at once: a
// subclass with state of its own guards it, or its site sets
// sf.reader.threads to 1.
#pragma once

#include <string>

#include "sf/net/connection.h"
#include "sf/net/port.h"

namespace sf {

struct Message;

class Reader {
 public:
  Reader() = default;
  // A new plain Message.
  virtual Message* mkMsg();
  // Delivers msg; the base delivers nothing.
  virtual void validate(Message* msg, const void* target);
  // Called for each accepted connection after the accept action.
  virtual void acceptHook(Connection& c);
  virtual bool handleReject();
  virtual ~Reader();

  // Serves port with sf.reader.threads threads (this one among them) until
  // shutdown is requested and what was received is answered; then closes
  // the listening socket and notifies the port's closed event. target is
  // handed to every validate(); extra is ignored.
  void run(Port port, const char* target, const char* extra);
};

// A Reader whose validate evaluates a Tcl script with the message as the
// thread's current message (so the script can enQ it). With TcpAdaptor only,
// a PDU is whatever arrives; it serves raw TCP protocols from a configuration.
class TclReader : public Reader {
 public:
  void validate(Message* msg, const void* target) override;
};

}  // namespace sf
