// sf::HttpReader and sf::HttpWorker: HTTP on the reader and worker machinery.
//
// An HttpReader serves a listening port whose connections speak HTTP as
// servers: every accepted connection gets a server-role HttpAdaptor, so each
// message read is one request's body, and its validate step evaluates a Tcl
// script that decides where the message goes (normally "enQ queue").
//
// An HttpWorker forwards each message of its queue to an HTTP server and
// relays the answer to the message's own connection as the reply. Each
// worker keeps its connection to the server open while the server allows.
#pragma once

#include "sf/http/httpadaptor.h"
#include "sf/port.h"
#include "sf/reader.h"
#include "sf/worker.h"

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
  // Connects to the server, sends the request, and writes the response body
  // back on msg->conn; any failure becomes the default rejection there.
  void processMessage(Message* msg) override;

  // Tunnel: the message's data is the adaptor's own request. Forward: a
  // request read by an HTTP reader goes out with its own method, URL and
  // end-to-end headers (docs/commands.md).
  enum class Mode { Tunnel, Forward };

  PortAddr server;
  Mode mode = Mode::Tunnel;
  Connection backend;  // kept between messages while the server allows

 private:
  HttpAdaptor* connectBackend();
  HttpAdaptor* keptBackend();
  void sendRequest(HttpAdaptor* http, Message* msg);
  void awaitAnswer(Connection& client);
  void readAnswer(Buffer& answer);
  void exchange(Message* msg, Buffer& answer);
};

}  // namespace sf
