// sf::HttpAdaptor, client role: responses through the incremental parser,
// and the Adaptor read operations of both roles.
#include "sf/http/httpadaptor.h"
#include "sf/work/message.h"

namespace sf {

namespace {

const int kReadBlock = 4096;  // bytes asked of the lower adaptor per read

}  // namespace

void HttpAdaptor::refuseResponse(const MessageParser::Error& e) {
  SF_LOG(1, "HTTP - Refusing the response: %s", e.text.c_str());
  sfi_throwsite(e.site, "Xproto()", __FILE__, __LINE__);
  throw Xproto();
}

void HttpAdaptor::setEnv(const char* name, const std::string& value) {
  TransactionContext* ctx = getContext();
  if (ctx->message) ctx->message->setenv(name, value.c_str());
}

HttpAdaptor::HttpVer HttpAdaptor::parseRequest(const std::string& line, std::string& method,
                                               std::string& url) {
  MessageParser::Version v;
  MessageParser::Error e;
  if (!MessageParser::parseRequestLine(line, method, url, v, &e)) throwRefusal(e);
  static const HttpVer kVersions[] = {HTTP_0_9, HTTP_1_0, HTTP_1_1};
  return kVersions[v];
}

HttpAdaptor::HttpVer HttpAdaptor::parseStatus(const std::string& line, std::string& code,
                                              std::string& reason) {
  if (line.compare(0, 5, "HTTP/") != 0) {
    code = "null";
    reason = "null";
    return HTTP_0_9;
  }
  int status = 0;
  MessageParser::Version v;
  MessageParser::Error e;
  if (!MessageParser::parseStatusLine(line, status, reason, v, &e)) refuseResponse(e);
  code = std::to_string(status);
  return v == MessageParser::V10 ? HTTP_1_0 : HTTP_1_1;
}

void HttpAdaptor::readMessage(Connection* c, Buffer& body, std::list<std::string>* headers) {
  if (isClient_)
    readResponse(c, body, headers);
  else
    readRequest(c, body, headers, false);
}

void HttpAdaptor::readResponse(Connection* c, Buffer& body, std::list<std::string>* headers) {
  SF_LOG(4, "HTTP - Reading message");
  SF_LOG(7, "HTTP - Reading response status from server");
  if (!responseFramed_) startResponse();
  responseFramed_ = false;
  response_->pauseAtChunks(pduMore);
  receiveResponse(c);
  publishResponse(headers);
  deliverResponse(c, body);
}

// The parser starts over for the answer to the request last written.
void HttpAdaptor::startResponse() {
  if (!response_)
    response_.reset(
        new MessageParser(settings_.maxHeader, settings_.maxBody, MessageParser::RESPONSE));
  MessageParser& p = *response_;
  p.reset(settings_.maxHeader, settings_.maxBody);
  p.answering(requestHeader.method == METHOD_HEAD      ? MessageParser::HEAD
              : requestHeader.method == METHOD_CONNECT ? MessageParser::CONNECT
                                                       : MessageParser::GET,
              !strictResponse);
  framed_ = 0;
}

// The framing step of the client role: a whole answer is never delivered a
// chunk at a time, so the parser does not pause at chunks.
Framing HttpAdaptor::frameResponse(const char* data, size_t len) {
  if (!responseFramed_) {
    startResponse();
    response_->pauseAtChunks(false);
    responseFramed_ = true;
  }
  MessageParser& p = *response_;
  if (len > framed_ && !p.complete() && !p.failed())
    framed_ += p.feed(data + framed_, len - framed_);
  checkResponse();
  if (p.complete()) return Framing::Whole;
  return p.headerDone() ? Framing::Body : Framing::Header;
}

void HttpAdaptor::checkResponse() {
  MessageParser& p = *response_;
  if (p.failed()) refuseResponse(p.error());
  // A strict client relays bodies as they are: one still under a coding it
  // does not undo would reach its reader as something else.
  if (strictResponse && p.headerDone() && p.otherCoding())
    refuseResponse({"502", "coding", "HTTP - Transfer coding other than chunked"});
}

void HttpAdaptor::receiveResponse(Connection* c) {
  MessageParser& p = *response_;
  skipFramed(c);
  Buffer& block = received_;
  while (!p.complete() && !p.paused() && !p.failed()) {
    block.resize(0);
    try {
      next->readUptoNB(c, block, kReadBlock);
    } catch (Xclosed&) {
      if (!p.started()) throw;  // no answer at all: the caller may ask again
      p.finish();
      break;
    }
    size_t used = p.feed(block.data, block.size());
    if (used < block.size()) next->pushback(block.data + used, block.size() - used);
    checkResponse();
  }
  if (p.failed()) refuseResponse(p.error());
}

void HttpAdaptor::publishResponse(std::list<std::string>* headers) {
  MessageParser& p = *response_;
  if (p.version() == MessageParser::V09) {
    SF_LOG(4, "HTTP - Reading a HTTP/0.9 response");
    lastStatus_ = 200;  // a bare body is the answer
    return;
  }
  lastStatus_ = p.status();
  Message* msg = getContext()->message;
  if (msg) {
    msg->setenv("HttpResultCode", std::to_string(lastStatus_).c_str());
    msg->setenv("HttpResultReason", p.reason().c_str());
  }
  for (const auto& field : p.fields()) {
    SF_LOG(8, "HTTP - Saving application header \"%s: %s\"", field.first.c_str(),
           field.second.c_str());
    if (msg) msg->setenv(headerEntry(field.first).c_str(), field.second.c_str());
    if (headers) headers->push_back(field.first + ": " + field.second);
  }
}

void HttpAdaptor::deliverResponse(Connection* c, Buffer& body) {
  MessageParser& p = *response_;
  std::string& got = p.body();
  body.append(got.data(), got.size());
  // A kept connection holds no large body's room while it waits.
  if (got.capacity() > size_t{4} * kReadBlock)
    std::string().swap(got);
  else
    got.clear();
  pduMore = !p.complete();
  if (pduMore) return;
  // A persistent answer leaves the connection open: HTTP/1.1 unless it says
  // close, HTTP/1.0 only when it says keep-alive, never one that ran until
  // the close. An open tunnel stays open whatever the proxy's version.
  ConnectionData cd;
  bool keep = p.version() == MessageParser::V11 ? p.connection() != MessageParser::CLOSE
                                                : p.connection() == MessageParser::KEEP_ALIVE;
  if (requestHeader.method == METHOD_CONNECT && p.status() / 100 == 2) keep = true;
  cd.connection = keep ? CONN_KEEPALIVE : CONN_CLOSE;
  cd.readToEof = p.untilClose();
  closeConnection(c, &cd);
}

// --- the Adaptor read operations ---

void HttpAdaptor::readPdu(Connection* c, Buffer& body) {
  size_t start = body.size();
  readMessage(c, body, nullptr);
  if (!isClient_) return;
  // Proxy challenges first, then the server's own, each from the headers of
  // the answer that made it.
  for (int challenge : {407, 401}) {
    if (lastStatus_ != challenge) continue;
    std::list<std::string> headers;
    for (const auto& field : response_->fields())
      headers.push_back(field.first + ": " + field.second);
    if (!resendWithAuth(c, headers)) break;
    body.resize(start);
    readMessage(c, body, nullptr);
  }
  if (lastStatus_ != 200) {
    SF_LOG(1, "HTTP - Server answered with status %d", lastStatus_);
    SF_THROW("http response error", Xio());
  }
}

void HttpAdaptor::readPduFirst(Connection* c, Buffer& body) {
  pduMore = true;
  if (isClient_)
    readResponse(c, body, nullptr);
  else
    readRequest(c, body, nullptr, true);
}

void HttpAdaptor::readPduNext(Connection* c, Buffer& body) {
  if (!isClient_) {
    readNextChunk(c, body);
    return;
  }
  if (!pduMore) return;
  response_->resume();
  receiveResponse(c);
  deliverResponse(c, body);
}

bool HttpAdaptor::readPduIsMore(Connection*) {
  return pduMore;
}

void HttpAdaptor::readUptoNB(Connection* c, Buffer& body, int) {
  readMessage(c, body, nullptr);
}

void HttpAdaptor::readTillEof(Connection* c, Buffer& body, int) {
  readMessage(c, body, nullptr);
}

void HttpAdaptor::read(Connection* c, Buffer& body, int n) {
  Buffer scratch;
  readMessage(c, scratch, nullptr);
  if (static_cast<std::int64_t>(scratch.size()) != n) {
    SF_LOG(1, "HTTP - read expected %d bytes, message held %d", n,
           static_cast<int>(scratch.size()));
    SF_THROW("read size mismatch", Xio());
  }
  body.append(scratch.data, scratch.size());
}

}  // namespace sf
