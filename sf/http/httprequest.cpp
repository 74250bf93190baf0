// sf::HttpAdaptor, server role: requests through the incremental parser.
//
// The reader may ask frame() with the bytes that have arrived; they are fed
// to the parser once, and readPdu then consumes them from below without
// looking again. A reader that does not ask (a blocking one) gets the same
// parser fed from the connection by readPdu itself.
#include "sf/http/httpadaptor.h"
#include "sf/work/message.h"

namespace sf {

namespace {

const int kReadBlock = 4096;  // bytes asked of the lower adaptor per read

}  // namespace

std::string headerEntry(const std::string& name) {
  std::string entry = "header:";
  for (char ch : name) entry += (ch >= 'A' && ch <= 'Z') ? char(ch - 'A' + 'a') : ch;
  return entry;
}

void throwRefusal(const MessageParser::Error& e) {
  SF_LOG(1, "%s", e.text.c_str());
  std::string expression = std::string("makeReject(\"") + e.status + "\")";
  sfi_throwsite(e.site, expression.c_str(), __FILE__, __LINE__);
  throw makeReject(e.status);
}

void HttpAdaptor::startRequest() {
  request_.reset(settings_.maxHeader, settings_.maxBody);
  framed_ = 0;
  continueSent_ = false;
}

void HttpAdaptor::applyLimits() {
  // Limits set since the last message apply from its first byte.
  if (!request_.started()) request_.reset(settings_.maxHeader, settings_.maxBody);
}

Framing HttpAdaptor::frame(Connection* c, const char* data, size_t len) {
  if (isClient_) return frameResponse(data, len);
  applyLimits();
  if (len > framed_ && !request_.complete() && !request_.failed())
    framed_ += request_.feed(data + framed_, len - framed_);
  checkRequest(c);
  if (request_.complete()) return Framing::Whole;
  return request_.headerDone() ? Framing::Body : Framing::Header;
}

void HttpAdaptor::checkRequest(Connection* c) {
  if (request_.failed()) throwRefusal(request_.error());
  // A client waiting for leave to send its body gets it once the header
  // block is accepted (a body over the limit is refused before this).
  if (request_.headerDone() && request_.hasBody() && !request_.complete() &&
      request_.expectsContinue() && request_.version() == MessageParser::V11 && !continueSent_) {
    SF_LOG(8, "HTTP - Telling the client to continue with its body");
    Buffer cont;
    cont.append("HTTP/1.1 100 Continue\r\n\r\n");
    next->write(c, cont);
    continueSent_ = true;
  }
}

// What frame() has parsed is still below: it is taken without being parsed
// again.
void HttpAdaptor::skipFramed(Connection* c) {
  Buffer block(0);
  while (framed_ > 0) {
    block.resize(0);
    next->readUptoNB(c, block, static_cast<int>(std::min<size_t>(framed_, 1 << 16)));
    framed_ -= std::min<size_t>(framed_, block.size());
  }
}

void HttpAdaptor::receiveRequest(Connection* c) {
  skipFramed(c);
  applyLimits();
  checkRequest(c);
  Buffer block(0);
  while (!request_.complete() && !request_.paused()) {
    block.resize(0);
    next->readUptoNB(c, block, kReadBlock);
    size_t used = request_.feed(block.data, block.size());
    if (used < block.size()) next->pushback(block.data + used, block.size() - used);
    checkRequest(c);
  }
}

void HttpAdaptor::publishRequest(std::list<std::string>* headers) {
  const std::string& method = request_.methodWord();
  const std::string& url = request_.target();
  SF_LOG(7, "HTTP - Client sent a \"%s\" request for url %s", method.c_str(), url.c_str());
  // Each header goes under its own entry (headerEntry), where no header can
  // replace an entry of the reader or the adaptor; a repeated header is one
  // entry holding its values joined by ", ".
  Message* msg = getContext()->message;
  std::vector<std::string> seen;
  for (const auto& field : request_.fields()) {
    const std::string& name = field.first;
    std::string entry = headerEntry(name);
    std::string value = field.second;
    bool repeated = false;
    for (const std::string& e : seen) repeated = repeated || e == entry;
    if (repeated && msg) value = msg->getenv(entry.c_str()) + ", " + value;
    if (!repeated) seen.push_back(entry);
    SF_LOG(8, "HTTP - Saving application header \"%s: %s\"", name.c_str(), field.second.c_str());
    setEnv(entry.c_str(), value);
    if (headers) headers->push_back(name + ": " + field.second);
  }
  setEnv("HttpRequestURL", url);
  setEnv("HttpRequestMethod", method);

  static const HttpVer kVersions[] = {HTTP_0_9, HTTP_1_0, HTTP_1_1};
  static const int kMethods[] = {0, METHOD_GET, METHOD_POST, METHOD_HEAD};
  static const int kWishes[] = {CONN_KEEPALIVE, CONN_CLOSE, CONN_UNSTATED};
  lastRequest = ConnectionData();
  lastRequest.version = kVersions[request_.version()];
  lastRequest.connection = kWishes[request_.connection()];
  lastRequest.contentLength = request_.contentLength();
  lastRequest.chunked = request_.chunked();
  lastRequest.hasBody = request_.hasBody();
  lastMethod = kMethods[request_.method()];
  if (lastRequest.connection == CONN_CLOSE) closeAfter = true;
  // Replies follow the request: none of the framing for HTTP/0.9.
  version = lastRequest.version == HTTP_0_9 ? HTTP_0_9 : HTTP_1_1;
}

void HttpAdaptor::deliverBody(Buffer& body) {
  if (!request_.hasBody()) {
    if (request_.method() == MessageParser::GET) {
      SF_LOG(8, "HTTP - Putting requested URL %s in message body because no native body present",
             request_.target().c_str());
      body.append(request_.target().data(), request_.target().size());
    }
  } else {
    std::string& got = request_.body();
    body.append(got.data(), got.size());
    got.clear();
  }
  pduMore = !request_.complete();
  if (request_.complete()) startRequest();
}

void HttpAdaptor::readRequest(Connection* c, Buffer& body, std::list<std::string>* headers,
                              bool byChunk) {
  SF_LOG(4, "HTTP - Reading message");
  SF_LOG(7, "HTTP - Reading client request line");
  request_.pauseAtChunks(byChunk);
  receiveRequest(c);
  publishRequest(headers);
  deliverBody(body);
}

void HttpAdaptor::readNextChunk(Connection* c, Buffer& body) {
  if (!pduMore) return;
  request_.resume();
  receiveRequest(c);
  deliverBody(body);
}

}  // namespace sf
