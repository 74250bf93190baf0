// sf::HttpReader and sf::HttpWorker: HTTP on the reader and worker machinery.
//
// An HttpReader serves a listening port whose connections speak HTTP as
// servers: every accepted connection gets a server-role HttpAdaptor, so each
// message read is one request's body, and its delivery step (validate) runs a Tcl
// script that decides where the message goes (normally "enQ queue").
//
// An HttpWorker forwards each message of its queue to an HTTP server and
// relays the answer to the message's own connection as the reply. One worker
// thread has many exchanges in flight, and keeps its connections to the
// server open while the server allows.
#pragma once

#include <memory>

#include "sf/http/httpadaptor.h"
#include "sf/net/port.h"
#include "sf/net/reader.h"
#include "sf/work/worker.h"

namespace sf {

class HttpAdaptor;

class HttpReader : public Reader {
 public:
  HttpReader();
  // Pushes a server-role HttpAdaptor on every accepted connection.
  void acceptHook(Connection& c) override;
  // Evaluates script (a C string) with msg as the current message; its
  // result is discarded.
  void validate(Message* msg, const void* script) override;
};

class HttpWorker : public Worker {
 public:
  // Serves queueName, forwarding to the HTTP server at nic/port.
  HttpWorker(const char* queueName, const char* nic, const char* port);
  ~HttpWorker() override;
  HttpWorker(const HttpWorker&) = delete;
  HttpWorker& operator=(const HttpWorker&) = delete;

  // The worker loop of httpWorker; never returns. Takes every message the
  // queue holds, up to kMaxExchanges at once, sends each request to the
  // server on a connection of its own, and relays each answer as soon as it
  // is complete, so that one slow answer holds up no other. Close notices
  // are disposed of as Worker::handle does.
  [[noreturn]] void serve();
  // One message, start to finish: sends the request, and writes the answer's
  // body back on msg->conn; any failure becomes the default rejection there
  // (502 for an answer that may not be relayed).
  void processMessage(Message* msg) override;

  // Tunnel: the message's data is the adaptor's own request. Forward: a
  // request read by an HTTP reader goes out with its own method, URL and
  // end-to-end headers (docs/commands.md).
  enum class Mode { Tunnel, Forward };

  // Exchanges one worker has in flight at most, and so connections to the
  // server it keeps at most.
  static const int kMaxExchanges = 64;

  PortAddr server;
  Mode mode = Mode::Tunnel;

 private:
  class Exchanges;  // sf/http/exchanges.h
  Exchanges& exchanges();
  std::unique_ptr<Exchanges> exchanges_;
};

}  // namespace sf
