// sf::HttpAdaptor, writing: requests, replies, rejections, chunked bodies
// and the rule that closes a connection after a message.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "sf/http/httpadaptor.h"
#include "sf/net/shutdown.h"
#include "sf/runtime.h"

namespace sf {

namespace {

const size_t kLineMax = 1024;      // formatted header lines are cut to this
const size_t kCoalesce = 16384;    // bodies up to this size go out with the headers
const size_t kHeaderBlock = 1024;  // room for a usual header block, grown line by line

const char* methodWord(HttpAdaptor::HttpDataType type) {
  switch (type) {
    case HttpAdaptor::GET_REQUEST:
      return "GET";
    case HttpAdaptor::POST_REQUEST:
    case HttpAdaptor::CHUNKED_POST:
      return "POST";
    case HttpAdaptor::HEAD_REQUEST:
      return "HEAD";
    case HttpAdaptor::CONNECT_REQUEST:
      return "CONNECT";
    default:
      return nullptr;
  }
}

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

// Appends one header line joined from parts, cut to the line limit, and its
// CR LF. A line break inside a part would start a header (or a message) of
// the part's choosing, and a NUL ends a line early for some readers: such a
// line is refused, nothing of it written.
void addLine(Buffer& block, std::initializer_list<std::string_view> parts) {
  for (std::string_view part : parts) {
    for (char ch : part) {
      if (ch == '\r' || ch == '\n' || ch == '\0') {
        SF_LOG(1, "HTTP - Refusing to write a header line that holds CR or LF");
        SF_THROW("crlf", Xinvalid());
      }
    }
  }
  size_t start = block.size(), room = kLineMax - 1;
  for (std::string_view part : parts) {
    size_t n = std::min(part.size(), room);
    block.append(part.data(), n);
    room -= n;
  }
  SF_LOG(7, "HTTP - Writing header line: \"%.*s\"", static_cast<int>(block.size() - start),
         block.data + start);
  block.append("\r\n", 2);
}

// A status as written in a status line: three digits, zero-padded.
std::string statusDigits(int status) {
  if (status < 0 || status > 999) return std::to_string(status);
  char d[3] = {char('0' + status / 100), char('0' + status / 10 % 10), char('0' + status % 10)};
  return std::string(d, 3);
}

const char* versionText(HttpAdaptor::HttpVer v) {
  switch (v) {
    case HttpAdaptor::HTTP_0_9:
      return "HTTP/0.9";
    case HttpAdaptor::HTTP_1_0:
      return "HTTP/1.0";
    case HttpAdaptor::HTTP_1_1:
      return "HTTP/1.1";
    default:
      return "HTTP/";  // a later version is written as the bare prefix
  }
}

// Gives back the reservation of an owed reply when the reply is over, also
// when writing it failed.
struct ReplyGuard {
  HttpAdaptor* a;
  Connection* c;
  ~ReplyGuard() { a->releaseReservation(c); }
};

}  // namespace

void HttpAdaptor::reserveForReply(Connection& c) {
  c.reserve();
  replyOwed = true;
}

void HttpAdaptor::releaseReservation(Connection* c) {
  if (!replyOwed.exchange(false)) return;
  try {
    c->unreserve(false);
  } catch (X&) {
    // somebody gave every reservation back already
  }
}

void HttpAdaptor::appendVer(Buffer& b, HttpVer v) {
  b.append(versionText(v));
}

void HttpAdaptor::writeLine(Buffer& block, const char* text) {
  // A line break inside a value would start a header (or a message) of the
  // value's choosing: such a line is never written.
  if (strpbrk(text, "\r\n")) {
    SF_LOG(1, "HTTP - Refusing to write a header line that holds CR or LF");
    SF_THROW("crlf", Xinvalid());
  }
  SF_LOG(7, "HTTP - Writing header line: \"%s\"", text);
  block.append(text);
  block.append("\r\n", 2);
}

void HttpAdaptor::writeBody(Connection* c, const Buffer& body) {
  SF_LOG(8, "HTTP - Writing message body");
  if (body.size() > 0) next->write(c, body);
}

bool HttpAdaptor::requestEndsConnection() const {
  if (isClient_) return false;
  return lastRequest.version == HTTP_0_9 ||
         (lastRequest.version == HTTP_1_0 && lastRequest.connection != CONN_KEEPALIVE);
}

bool HttpAdaptor::buildHeaders(Connection* c, const Buffer* body, HttpDataType type,
                               HttpHeader* header, Buffer& block) {
  SF_LOG(7, "HTTP - Writing message headers");
  if (type < GET_REQUEST || type > CONNECT_REQUEST) {
    SF_LOG(1, "HTTP - Unknown message type %d", static_cast<int>(type));
    SF_THROW("badtype", Xinvalid());
  }
  bool replyType = type == REPLY || type == CHUNKED_REPLY;
  if (isClient_ && replyType) SF_THROW("notsrvr", Xinvalid());
  if (!isClient_ && !replyType) SF_THROW("notcli", Xinvalid());
  if (!isClient_ && version == HTTP_0_9) {
    SF_LOG(8, "HTTP - Not writing headers, is a HTTP/0.9 response");
    return true;
  }

  bool result = true;
  int status = 0;
  if (isClient_) {
    const std::string& url = header && !header->url.empty() ? header->url : settings_.requestURL;
    if (version > HTTP_0_9)
      addLine(block, {methodWord(type), " ", url, " ", versionText(version)});
    else
      addLine(block, {methodWord(type), " ", url});
    if (version == HTTP_0_9) return true;  // the request line is all there is
    for (const std::string* credentials : {&proxyHeaderLine, &extraHeaderLine}) {
      // Credentials: written, never logged.
      if (credentials->empty()) continue;
      if (credentials->find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
        SF_THROW("crlf", Xinvalid());
      SF_LOG(7, "HTTP - Writing header line: \"%s: ...\"",
             credentials->substr(0, credentials->find(':')).c_str());
      block.append(credentials->data(), credentials->size());
      block.append("\r\n", 2);
    }
  } else {
    status = header ? header->status : settings_.statusResult;
    const std::string& reason = header ? header->reason : settings_.statusReason;
    // The status line always says HTTP/1.1.
    addLine(block, {"HTTP/1.1 ", statusDigits(status), " ", reason});
    if (status == 204 || status == 205 || status == 304) result = false;
  }
  if (type == HEAD_REQUEST) result = false;

  if (version == HTTP_1_1) {
    std::uint64_t length = body ? body->size() : 0;
    switch (type) {
      case POST_REQUEST:
      case REPLY:
      case CONNECT_REQUEST:
        addLine(block, {"Content-Length: ", std::to_string(length)});
        break;
      case CHUNKED_REPLY:
      case CHUNKED_POST:
        writeLine(block, "Transfer-Encoding: chunked");
        break;
      default:
        result = false;  // GET and HEAD carry no body
        break;
    }
    if (!isClient_) {
      // A stopping server closes every connection after the reply it is
      // writing now, so the reply says so.
      if (sfi_shuttingDown()) closeAfter = true;
      if (closeAfter || requestEndsConnection() || (header && getStatusClose(header->status)))
        writeLine(block, "Connection: Close");
      else if (lastRequest.version == HTTP_1_0)
        writeLine(block, "Connection: Keep-Alive");
    }
  }

  bool ownType = false, ownHost = false;
  auto stuff = [&](const std::list<std::string>& lines) {
    for (const std::string& l : lines) {
      if (startsWith(l, "Content-Type:")) ownType = true;
      if (startsWith(l, "Host:")) ownHost = true;
      writeLine(block, l.c_str());
    }
  };
  stuff(settings_.stuffHeaders);
  if (header) stuff(header->headers);

  if (isClient_)
    addLine(block, {"User-Agent: ", settings_.userAgent});
  else
    addLine(block, {"Server: ", settings_.serverType});

  if (!ownType && type != GET_REQUEST && type != HEAD_REQUEST) {
    const std::string& ct =
        header && !header->contentType.empty() ? header->contentType : settings_.contentType;
    addLine(block, {"Content-Type: ", ct});
  }

  if (isClient_ && version == HTTP_1_1 && !ownHost) {
    // The peer text is host and port joined by a plus sign.
    std::string host = c ? c->remoteinfo() : std::string();
    size_t plus = host.find('+');
    if (plus != std::string::npos) host[plus] = ':';
    addLine(block, {"Host: ", host});
  }
  block.append("\r\n", 2);
  return result;
}

bool HttpAdaptor::writeHeaders(Connection* c, const Buffer* body, HttpDataType type,
                               HttpHeader* header) {
  Buffer block(kHeaderBlock);
  bodyAllowed = buildHeaders(c, body, type, header, block);
  if (block.size() > 0) next->write(c, block);
  return bodyAllowed;
}

// Headers and a small body leave in one write.
void HttpAdaptor::sendMessage(Connection* c, const Buffer& body, HttpDataType type,
                              HttpHeader* header) {
  Buffer block(kHeaderBlock);
  bodyAllowed = buildHeaders(c, &body, type, header, block);
  // A reply to HEAD announces its body but does not send it.
  bool sendBody = bodyAllowed && !(type == REPLY && lastMethod == METHOD_HEAD);
  if (sendBody && body.size() > 0 && body.size() <= kCoalesce) {
    SF_LOG(8, "HTTP - Writing message body");
    block.append(body.data, body.size());
    sendBody = false;
  }
  if (block.size() > 0) next->write(c, block);
  if (sendBody) writeBody(c, body);
}

void HttpAdaptor::writeTransferChunk(Connection* c, const Buffer* data) {
  if (!bodyAllowed) {
    SF_LOG(4, "HTTP - Can not write body on request for which only headers are returned.");
    SF_THROW("writeTransferChunk", makeReject("500"));
  }
  Buffer out;
  if (data) {
    if (data->size() == 0) return;
    char hex[40];
    snprintf(hex, sizeof hex, "%X%s", static_cast<unsigned>(data->size()), "\r\n");
    SF_LOG(8, "HTTP - Writing a transfer chunk of %d bytes", static_cast<int>(data->size()));
    out.append(hex);
    out.append(data->data, data->size());
    out.append("\r\n", 2);
  } else {
    SF_LOG(8, "HTTP - Writing the terminating transfer chunk in response");
    char last[40];
    snprintf(last, sizeof last, "0%s%s", "\r\n", "\r\n");
    out.append(last);
  }
  next->write(c, out);
}

void HttpAdaptor::closeConnection(Connection* c, ConnectionData* cd) {
  SF_LOG(6, "HTTP - Determining whether connection needs to be closed");
  bool close = false;
  if ((version == HTTP_1_0 || version == HTTP_0_9) && cd) close = cd->connection != CONN_KEEPALIVE;
  if (closeAfter && !isClient_) close = true;
  if (cd && !close) close = cd->connection == CONN_CLOSE || cd->readToEof;
  if (close) {
    SF_LOG(2, "HTTP - Closing connection");
    tcp_close(*c);
  }
}

void HttpAdaptor::closeAfterReply(Connection* c) {
  // A request without framing for a persistent connection (HTTP/0.9, or
  // HTTP/1.0 without Keep-Alive) ends with its reply.
  if (requestEndsConnection()) {
    SF_LOG(2, "HTTP - Closing connection");
    tcp_close(*c);
  } else {
    closeConnection(c, nullptr);
  }
}

// --- server role ---

void HttpAdaptor::write(Connection* c, const Buffer& body) {
  if (isClient_) {
    request(*c, body);
  } else {
    ReplyGuard done{this, c};
    reply(*c, body);
    closeAfterReply(c);
  }
}

void HttpAdaptor::reply(Connection& c, const Buffer& body) {
  SF_LOG(9, "HTTP - Issuing reply to request.");
  if (version != HTTP_0_9)
    sendMessage(&c, body, REPLY, nullptr);
  else
    writeBody(&c, body);
}

void HttpAdaptor::replyOk(Connection* c) {
  Buffer empty;
  replyGen(c, 200, "OK", nullptr, empty, std::list<std::string>());
}

void HttpAdaptor::replyOk(Connection* c, const char* type, const Buffer& body) {
  replyGen(c, 200, "OK", type, body, std::list<std::string>());
}

void HttpAdaptor::replyGen(Connection* c, int status, const char* reason, const char* type,
                           const Buffer& body, const std::list<std::string>& headers) {
  if (isClient_) SF_THROW("notserv", Xinvalid());
  ReplyGuard done{this, c};
  SF_LOG(9, "HTTP - Issuing reply to request.");
  if (version != HTTP_0_9) {
    HttpHeader h;
    if (type) h.contentType = type;
    h.status = status;
    h.reason = reason ? reason : getStatusReason(status);
    h.headers = headers;
    sendMessage(c, body, REPLY, &h);
  } else {
    writeBody(c, body);
  }
  if (getStatusClose(status)) {
    SF_LOG(5, "HTTP - Closing connection because of status result: %d", status);
    tcp_close(*c);
  } else if (requestEndsConnection()) {
    closeAfterReply(c);
  }
}

void HttpAdaptor::reject(Connection* c, int status, const char* reason) {
  if (status == 0) status = settings_.rejectStatus;
  if (!reason) reason = settings_.rejectReason.c_str();
  SF_LOG(3, "HTTP - Rejecting request due to error.  Status = %d", status);
  size_t n = strlen(reason);
  // The reason text is the body, sent from where it lies.
  ExtBuffer text(const_cast<char*>(reason), static_cast<int>(n), static_cast<int>(n));
  Buffer empty;
  const Buffer& body = n ? static_cast<const Buffer&>(text) : empty;
  std::list<std::string> headers;
  if (status == 503) headers.push_back("Retry-After: 1");  // overload: try again shortly
  replyGen(c, status, getStatusReason(status), nullptr, body, headers);
}

void HttpAdaptor::reject(Connection* c, Buffer& payload) {
  std::string digits(payload.data ? payload.data : "", payload.size());
  reject(c, atoi(digits.c_str()), nullptr);
}

// --- client role ---

void HttpAdaptor::request(Connection& c, const Buffer& body) {
  if (body.size() > 0)
    post(c, body);
  else
    get(c, body);
}

void HttpAdaptor::get(Connection& c, const Buffer&) {
  get(&c, nullptr, std::list<std::string>());
}

void HttpAdaptor::post(Connection& c, const Buffer& body) {
  post(&c, nullptr, nullptr, body, std::list<std::string>());
}

void HttpAdaptor::get(Connection* c, const char* url, std::list<std::string> headers) {
  SF_LOG(7, "HTTP - Issuing users GET request.");
  pending.resize(0);
  requestHeader.headers = std::move(headers);
  requestHeader.url = url ? url : "";
  requestHeader.method = METHOD_GET;
  writeHeaders(c, nullptr, GET_REQUEST, &requestHeader);
}

void HttpAdaptor::head(Connection* c, const char* url, std::list<std::string> headers) {
  SF_LOG(7, "HTTP - Issuing users HEAD request.");
  pending.resize(0);
  requestHeader.headers = std::move(headers);
  requestHeader.url = url ? url : "";
  requestHeader.method = METHOD_HEAD;
  writeHeaders(c, nullptr, HEAD_REQUEST, &requestHeader);
}

void HttpAdaptor::post(Connection* c, const char* url, const char* type, const Buffer& body,
                       std::list<std::string> headers) {
  SF_LOG(7, "HTTP - Issuing users POST request.");
  requestHeader.headers = std::move(headers);
  requestHeader.url = url ? url : "";
  requestHeader.contentType = type ? type : "";
  requestHeader.method = METHOD_POST;
  // Kept to be sent again if the server asks for credentials.
  pending.resize(0);
  pending.append(body.data, body.size());
  sendMessage(c, body, POST_REQUEST, &requestHeader);
}

void HttpAdaptor::httpConnect(Connection& c, const char* target) {
  version = HTTP_1_0;
  SF_LOG(4, "HTTP - Issuing CONNECT %s request", target);
  if (!isClient_) SF_THROW("notcli", Xinvalid());
  work_.resize(0);
  pending.resize(0);
  requestHeader.reset();
  requestHeader.method = METHOD_CONNECT;
  requestHeader.url = target;
  requestHeader.headers.push_back("Connection: Keep-Alive");
  writeHeaders(&c, nullptr, CONNECT_REQUEST, &requestHeader);
  std::list<std::string> headers;
  readMessage(&c, work_, &headers);
  if (lastStatus_ == 407 && resendWithAuth(&c, headers)) {
    work_.resize(0);
    readMessage(&c, work_, &headers);
  }
  if (lastStatus_ >= 200 && lastStatus_ <= 299) {
    // The proxy's credentials are for the proxy: nothing sent through the
    // tunnel carries them.
    proxyHeaderLine.clear();
    extraHeaderLine.clear();
    SF_LOG(4, "http connect successful");
  } else {
    SF_LOG(1, "http connect failed, code %d", lastStatus_);
    SF_THROW("http connect failed", Xio());
  }
}

// --- fragmented bodies ---

void HttpAdaptor::writePduFirst(Connection* c, const Buffer& frag) {
  SF_LOG(4, "HTTP - Writing first frag pdu transfer chunk");
  if (isClient_) {
    requestHeader.method = METHOD_POST;
    writeHeaders(c, &frag, CHUNKED_POST, &requestHeader);
  } else {
    writeHeaders(c, &frag, CHUNKED_REPLY, nullptr);
  }
  writeTransferChunk(c, &frag);
}

void HttpAdaptor::writePduNext(Connection* c, const Buffer& frag) {
  SF_LOG(4, "HTTP - Writing frag pdu transfer chunk");
  writeTransferChunk(c, &frag);
}

void HttpAdaptor::writePduLast(Connection* c, const Buffer& frag) {
  SF_LOG(4, "HTTP - Writing last frag pdu transfer chunk");
  if (!isClient_) {
    ReplyGuard done{this, c};
    writeTransferChunk(c, &frag);
    writeTransferChunk(c, nullptr);
    closeAfterReply(c);
    return;
  }
  writeTransferChunk(c, &frag);
  writeTransferChunk(c, nullptr);
}

}  // namespace sf
