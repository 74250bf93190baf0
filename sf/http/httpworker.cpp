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
// The exchanges themselves, many at once, are in exchanges.cpp.
#include <string_view>
#include <utility>

#include "sf/http/exchanges.h"
#include "sf/platform/thread.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/watchdog.h"

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

}  // namespace

HttpWorker::HttpWorker(const char* queueName, const char* nic, const char* port)
    : Worker(queueName), server(nic, port) {
  SF_LOG(3, "HTTP - Creating new worker module");
}

HttpWorker::~HttpWorker() = default;

HttpWorker::Exchanges& HttpWorker::exchanges() {
  if (!exchanges_) exchanges_.reset(new Exchanges(*this));
  return *exchanges_;
}

void writeForwardedRequest(HttpAdaptor* http, Connection& backend, Message* msg,
                           HttpWorker::Mode mode) {
  Buffer none;
  const Buffer& data = msg->data ? *msg->data : none;
  std::string method = msg->getenv("HttpRequestMethod");
  if (mode == HttpWorker::Mode::Tunnel || method.empty()) {
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

void HttpWorker::processMessage(Message* msg) {
  Exchanges& x = exchanges();
  int slot = x.start(msg, false);
  while (x.serving(slot, msg)) x.pass(-1);
}

void HttpWorker::serve() {
  Exchanges& x = exchanges();
  watchdog_set();
  for (;;) {
    // Every message there is, up to the bound. Once the queue looks empty
    // the bell is hung on it, and it is looked at once more: a message that
    // came in between is taken now, one that comes later rings.
    bool watching = false;
    int wait_ms = -1;
    while (!x.full()) {
      Message* msg;
      try {
        msg = queue->tryDeQ();
      } catch (X& e) {
        SF_LOG(1, "worker: cannot take a message from queue %s - %s", queue->name(),
               e.str().c_str());
        platform::sleep_ms(1000);
        break;
      }
      if (!msg && watching) break;
      if (!msg && !queue->watch(&x.bell())) {
        wait_ms = 1;  // a message is still being put there: look again soon
        break;
      }
      if (!msg) {
        watching = true;
      } else if (msg->isCloseNotice) {
        watchdog_clr();
        handle(msg);
      } else {
        x.start(msg, true);
      }
    }
    x.pass(wait_ms);
    if (watching) queue->unwatch(&x.bell());
  }
}

}  // namespace sf
