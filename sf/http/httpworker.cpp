// sf::HttpWorker: forwards each message to an HTTP server and relays the
// answer as the reply.
//
// Two modes. A tunnel (the default) sends the message's data as the client
// adaptor's own request: a POST of the data to sf.http.requestURL with
// sf.http.contentType, or a GET when the data is empty. A forwarding worker
// (a reverse proxy) sends a request read by an HTTP reader with its own
// method, URL and end-to-end headers.
//
// Whatever the mode, the backend's answer is checked before a byte of it is
// relayed: a status line, one framing, and nothing after the message. A
// backend that breaks any of these gets the client a 502 and loses its
// connection, so no later client can be served bytes meant for another.
#include <string_view>
#include <utility>

#include "sf/http/httpreader.h"
#include "sf/message.h"

namespace sf {

namespace {

// Connection-specific fields (RFC 9110 section 7.6.1) and the ones the
// adaptor writes itself: never copied from the client's request.
const std::string_view kNotForwarded[] = {"connection",
                                          "keep-alive",
                                          "proxy-connection",
                                          "proxy-authenticate",
                                          "proxy-authorization",
                                          "te",
                                          "trailer",
                                          "transfer-encoding",
                                          "upgrade",
                                          "content-length",
                                          "expect",
                                          "content-type",
                                          "x-forwarded-for",
                                          "user-agent"};

// The client's Connection header names further fields that are meant for
// this hop only: its options, lower-cased, each between commas.
std::string hopOptions(const std::string& connection) {
  std::string options = ",";
  for (char ch : connection) {
    if (ch == ' ' || ch == '\t') continue;
    options += ch >= 'A' && ch <= 'Z' ? char(ch - 'A' + 'a') : ch;
  }
  return options + ",";
}

bool forwarded(const std::string& name, const std::string& hopOptions) {
  for (std::string_view n : kNotForwarded)
    if (name == n) return false;
  return hopOptions.size() <= 2 || hopOptions.find("," + name + ",") == std::string::npos;
}

// "x-forwarded-for" -> "X-Forwarded-For".
std::string displayName(const std::string& lower) {
  std::string name = lower;
  bool start = true;
  for (char& ch : name) {
    if (start && ch >= 'a' && ch <= 'z') ch = char(ch - 'a' + 'A');
    start = ch == '-';
  }
  return name;
}

bool hasControl(const std::string& value) {
  return value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
}

// While the backend's answer is read, the message being served is not the
// thread's current one, so the backend's headers never land in the client's
// environment.
struct DetachMessage {
  TransactionContext* ctx = getContext();
  Message* saved = ctx->message;
  DetachMessage() { ctx->message = nullptr; }
  ~DetachMessage() { ctx->message = saved; }
};

// Thrown when the backend's answer may not be relayed: the client gets 502.
struct BadGateway {};

// Thrown when the client went away before the backend began to answer.
struct ClientGone {};

// How often a client is looked at while its backend is silent.
const unsigned kClientCheck_ms = 500;

}  // namespace

HttpWorker::HttpWorker(const char* queueName, const char* nic, const char* port)
    : Worker(queueName), server(nic, port) {
  SF_LOG(3, "HTTP - Creating new worker module");
}

HttpAdaptor* HttpWorker::connectBackend() {
  backend = tcp_connect(server);
  SF_LOG(4, "HTTP - Connecting to HTTP server %s", server.str().c_str());
  backend.push(new TcpAdaptor);
  HttpAdaptor* http = new HttpAdaptor(true);
  http->strictResponse = true;
  backend.push(http);
  return http;
}

// A kept connection carries the next request only when the last exchange
// ended exactly at a message boundary: nothing buffered, nothing arrived
// since (a late second answer, or the server's close).
HttpAdaptor* HttpWorker::keptBackend() {
  if (backend.socketNo() == INVALID_SOCK) return nullptr;
  if (backend.hasBufferedData() || backend.isReadReady(0)) {
    SF_LOG(4, "HTTP - kept connection to %s is not at a message boundary, closing it",
           server.str().c_str());
    tcp_close(backend);
    backend = Connection();
    return nullptr;
  }
  return dynamic_cast<HttpAdaptor*>(backend.getAdaptor());
}

void HttpWorker::sendRequest(HttpAdaptor* http, Message* msg) {
  Buffer none;
  const Buffer& data = msg->data ? *msg->data : none;
  std::string method = msg->getenv("HttpRequestMethod");
  if (mode == Mode::Tunnel || method.empty()) {
    http->request(backend, data);
    return;
  }
  std::list<std::string> headers;
  std::string type;
  std::string forwardedFor;
  if (msg->env) {
    // The header entries sort together, after the reader's own entries.
    static const std::string prefix = headerEntry("");
    static const std::string connectionEntry = headerEntry("connection");
    auto connection = msg->env->find(connectionEntry);
    const std::string hop =
        hopOptions(connection == msg->env->end() ? std::string() : connection->second);
    for (auto entry = msg->env->lower_bound(prefix);
         entry != msg->env->end() && entry->first.compare(0, prefix.size(), prefix) == 0; ++entry) {
      std::string name = entry->first.substr(prefix.size());
      const std::string& value = entry->second;
      if (hasControl(value)) {
        SF_LOG(1, "HTTP - Header %s holds a control character, not forwarding", name.c_str());
        SF_THROW("forward", Xinvalid());
      }
      if (name == std::string_view("content-type")) type = value;
      if (name == std::string_view("x-forwarded-for")) forwardedFor = value + ", ";
      if (!forwarded(name, hop)) continue;
      std::string line = displayName(name);
      line.reserve(line.size() + 2 + value.size());
      headers.push_back(std::move(line.append(": ").append(value)));
    }
  }
  std::string peer = msg->conn.remoteinfo();
  headers.push_back("X-Forwarded-For: " + forwardedFor + peer.substr(0, peer.find('+')));
  std::string url = msg->getenv("HttpRequestURL");
  // A HEAD is asked as a GET, so that the reply announces the length a GET
  // would get; the reply to HEAD then leaves the body out.
  if (method == "GET" || method == "HEAD")
    http->get(&backend, url.c_str(), std::move(headers));
  else
    http->post(&backend, url.c_str(), type.empty() ? nullptr : type.c_str(), data,
               std::move(headers));
}

// Until the backend's first byte, the client is watched: one that closed
// has nobody to relay the answer to, and waiting out the backend's read
// time-out would hold this worker from every client behind it. Once the
// answer has begun, it is read as usual. A client that only half-closes
// after its request counts as gone.
void HttpWorker::awaitAnswer(Connection& client) {
  if (client.socketNo() == INVALID_SOCK) return;  // no client socket to watch
  unsigned waited_ms = 0;
  const unsigned limit_ms = backend.readTimeout_s() * 1000;
  while (!backend.hasBufferedData() && !backend.isReadReady(kClientCheck_ms)) {
    if (!client.check()) throw ClientGone();
    waited_ms += kClientCheck_ms;
    if (limit_ms != 0 && waited_ms >= limit_ms) return;  // the read times out as before
  }
}

void HttpWorker::readAnswer(Buffer& answer) {
  try {
    backend.read(answer);
  } catch (Xproto&) {
    throw BadGateway();  // refused by the response parser
  }
  // Bytes read past the answer mean more than one message: nothing of this
  // exchange can be trusted. Bytes still on their way are not waited for:
  // they keep the connection from being used again (keptBackend).
  if (backend.socketNo() != INVALID_SOCK && backend.hasBufferedData()) {
    SF_LOG(1, "HTTP - Server %s sent bytes after its answer", server.str().c_str());
    throw BadGateway();
  }
}

void HttpWorker::exchange(Message* msg, Buffer& answer) {
  DetachMessage detached;
  HttpAdaptor* http = keptBackend();
  bool kept = http != nullptr;
  if (!kept) http = connectBackend();
  try {
    sendRequest(http, msg);
    awaitAnswer(msg->conn);
    readAnswer(answer);
  } catch (Xclosed&) {
    // A server may close an idle connection at any moment: a kept one
    // that fails before answering is replaced once.
    if (!kept) throw BadGateway();
    SF_LOG(4, "HTTP - kept connection to %s was closed, connecting again", server.str().c_str());
    answer.resize(0);
    http = connectBackend();
    sendRequest(http, msg);
    awaitAnswer(msg->conn);
    try {
      readAnswer(answer);
    } catch (Xclosed&) {
      throw BadGateway();
    }
  }
  if (backend.socketNo() == INVALID_SOCK) backend = Connection();
}

void HttpWorker::processMessage(Message* msg) {
  int status = 0;  // the adaptor's configured rejection
  Buffer answer;
  try {
    exchange(msg, answer);
  } catch (BadGateway&) {
    SF_LOG(1, "HTTP - invalid answer from %s, replying 502", server.str().c_str());
    status = 502;
  } catch (ClientGone&) {
    SF_LOG(3, "HTTP - client went away before %s answered, dropping the request",
           server.str().c_str());
    status = -1;
  } catch (X& x) {
    SF_LOG(3, "HTTP - forwarding to %s failed - %s", server.str().c_str(), x.str().c_str());
    status = -1;
  }
  Adaptor* a = msg->conn.getAdaptor();
  try {
    if (status == 0) {
      msg->conn.write(answer);
      return;
    }
    // The backend connection of a failed exchange is never used again.
    if (backend.socketNo() != INVALID_SOCK) tcp_close(backend);
    backend = Connection();
    if (a) a->reject(&msg->conn, status < 0 ? 0 : status, nullptr);
  } catch (X& x) {
    SF_LOG(3, "HTTP - replying to the client failed - %s", x.str().c_str());
  }
}

}  // namespace sf
