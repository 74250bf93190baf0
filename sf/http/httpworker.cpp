// sf::HttpWorker: forwards each message to an HTTP server and relays the
// answer as the reply.
#include "sf/http/httpreader.h"
#include "sf/message.h"

namespace sf {

HttpWorker::HttpWorker(const char* queueName, const char* nic, const char* port)
    : Worker(queueName), server(nic, port) {
  SF_LOG(3, "HTTP - Creating new worker module");
}

HttpAdaptor* HttpWorker::connectBackend() {
  backend = tcp_connect(server);
  SF_LOG(4, "HTTP - Connecting to HTTP server %s", server.str().c_str());
  backend.push(new TcpAdaptor);
  HttpAdaptor* http = new HttpAdaptor(true);
  backend.push(http);
  return http;
}

void HttpWorker::forward(HttpAdaptor* http, Message* msg, Buffer& answer) {
  Buffer none;
  const Buffer& data = msg->data ? *msg->data : none;
  // A request read by a server-role adaptor is forwarded as it came: same
  // method and URL. Anything else is tunnelled as the adaptor's own request
  // (POST of the data to sf.http.requestURL, or GET when it is empty).
  std::string url = msg->getenv("HttpRequestURL");
  std::string method = msg->getenv("HttpRequestMethod");
  std::list<std::string> headers;
  if (url.empty()) {
    backend.write(data);
  } else if (method == "GET") {
    http->get(&backend, url.c_str(), headers);
  } else if (method == "HEAD") {
    http->head(&backend, url.c_str(), headers);
  } else {
    std::string type = msg->getenv("Content-Type");
    http->post(&backend, url.c_str(), type.empty() ? nullptr : type.c_str(), data, headers);
  }
  backend.read(answer);
}

void HttpWorker::processMessage(Message* msg) {
  try {
    Buffer answer;
    // The connection of the previous message is used again while the
    // server keeps it open. A server may close an idle one at any moment,
    // so a kept connection that fails before answering is replaced once.
    bool kept = backend.socketNo() != INVALID_SOCK && backend.check();
    HttpAdaptor* http = kept ? dynamic_cast<HttpAdaptor*>(backend.getAdaptor()) : nullptr;
    if (!http) {
      kept = false;
      http = connectBackend();
    }
    try {
      forward(http, msg, answer);
    } catch (Xclosed&) {
      if (!kept) throw;
      SF_LOG(4, "HTTP - kept connection to %s was closed, connecting again", server.str().c_str());
      answer.resize(0);
      http = connectBackend();
      forward(http, msg, answer);
    }
    if (backend.socketNo() == INVALID_SOCK) backend = Connection();
    msg->conn.write(answer);
  } catch (X& x) {
    SF_LOG(3, "HTTP - forwarding to %s failed - %s", server.str().c_str(), x.str().c_str());
    backend = Connection();
    Adaptor* a = msg->conn.getAdaptor();
    if (a) a->reject(&msg->conn, 0, nullptr);
  }
}

}  // namespace sf
