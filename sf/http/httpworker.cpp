// sf::HttpWorker: forwards each message to an HTTP server and relays the
// answer as the reply.
#include "sf/http/httpreader.h"
#include "sf/message.h"

namespace sf {

HttpWorker::HttpWorker(const char* queueName, const char* nic, const char* port)
    : Worker(queueName), server(nic, port) {
  SF_LOG(3, "HTTP - Creating new worker module");
}

void HttpWorker::processMessage(Message* msg) {
  try {
    Connection backend = tcp_connect(server);
    SF_LOG(4, "HTTP - Connecting to HTTP server %s", server.str().c_str());
    backend.push(new TcpAdaptor);
    HttpAdaptor* http = new HttpAdaptor(true);
    backend.push(http);

    Buffer none;
    const Buffer& data = msg->data ? *msg->data : none;
    // A request read by a server-role adaptor is forwarded as it came: same
    // method and URL. Anything else is tunnelled as the adaptor's own
    // request (POST of the data to sf.http.requestURL, or GET when empty).
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
    Buffer answer;
    backend.read(answer);
    msg->conn.write(answer);
  } catch (X& x) {
    SF_LOG(3, "HTTP - forwarding to %s failed - %s", server.str().c_str(), x.str().c_str());
    Adaptor* a = msg->conn.getAdaptor();
    if (a) a->reject(&msg->conn, 0, nullptr);
  }
}

}  // namespace sf
