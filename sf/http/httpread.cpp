// sf::HttpAdaptor, reading: request and status lines, the header block and
// the three kinds of body (Content-Length, chunked, until end of stream).
#include <cstdlib>
#include <cstring>

#include "sf/http/httpadaptor.h"
#include "sf/message.h"

namespace sf {

namespace {

const int kReadBlock = 1024;  // bytes asked of the lower adaptor per refill

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// The leading decimal number of text (after blanks and an optional sign),
// saturating instead of overflowing.
std::int64_t leadingNumber(const char* text) {
  const char* p = text;
  while (isBlank(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = (*p++ == '-');
  std::int64_t v = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (v > (INT64_MAX - 9) / 10) {
      v = INT64_MAX;
      continue;
    }
    v = v * 10 + (*p - '0');
  }
  return negative ? -v : v;
}

bool hasControl(const std::string& line) {
  for (char ch : line)
    if (ch == '\r' || ch == '\n' || ch == '\0') return true;
  return false;
}

bool onlyVersionChars(const std::string& s) {
  return s.find_first_not_of("0123456789.") == std::string::npos;
}

HttpAdaptor::HttpVer versionOf(int major, int minor) {
  if (major > 1) return HttpAdaptor::HTTP_LATER;
  return minor > 0 ? HttpAdaptor::HTTP_1_1 : HttpAdaptor::HTTP_1_0;
}

}  // namespace

void HttpAdaptor::refuseResponse(const char* why) {
  SF_LOG(1, "HTTP - Refusing the response: %s", why);
  SF_THROW("badresponse", Xproto());
}

void HttpAdaptor::setEnv(const char* name, const std::string& value) {
  TransactionContext* ctx = getContext();
  if (ctx->message) ctx->message->setenv(name, value.c_str());
}

bool HttpAdaptor::GetFullLine(std::string* line, Connection* c, Buffer* buf, size_t* pos,
                              bool checkHttp, bool allowFolding) {
  SF_LOG(8, "HTTP - Getting a header line");
  line->clear();
  size_t start = *pos;
  char expect = '\r';
  if (buf->size() < *pos + 2) next->readUptoNB(c, *buf, kReadBlock);
  if (checkHttp && *pos == 0) {
    // A status line is recognised by its first five bytes; wait for them
    // unless the line has already ended.
    while (buf->size() < 5 && (buf->size() == 0 || !memchr(buf->data, '\n', buf->size())))
      next->readUptoNB(c, *buf, kReadBlock);
    if (buf->size() >= 5 && memcmp(buf->data, "HTTP/", 5) != 0) {
      SF_LOG(7, "HTTP - No header present, only data");
      return true;
    }
  }
  size_t scan = *pos;
  for (;;) {
    bool found = false;
    while (scan < buf->size()) {
      char ch = buf->data[scan++];
      if (ch == expect && expect == '\n') {
        found = true;
        break;
      }
      expect = (ch == '\r') ? '\n' : '\r';
    }
    *pos = scan;
    if (static_cast<std::int64_t>(*pos) > maxHeader) {
      SF_LOG(1, "HTTP - Request exceeded maximum header size of %d", static_cast<int>(maxHeader));
      SF_THROW("http: Maximum header size reached", makeReject("413"));
    }
    if (!found) {
      next->readUptoNB(c, *buf, kReadBlock);
      continue;
    }
    line->append(buf->data + start, scan - 2 - start);
    if (allowFolding && !line->empty()) {
      while (buf->size() < scan + 1) next->readUptoNB(c, *buf, kReadBlock);
      if (isBlank(buf->data[scan])) {
        start = scan;  // the continuation keeps its leading blank
        expect = '\r';
        continue;
      }
    }
    SF_LOG(7, "HTTP - Header line: \"%s\".", line->c_str());
    return false;
  }
}

HttpAdaptor::HttpVer HttpAdaptor::parseRequest(const std::string& line, std::string& method,
                                               std::string& url) {
  RequestParser::Version v;
  RequestParser::Error e;
  if (!RequestParser::parseRequestLine(line, method, url, v, &e)) throwRefusal(e);
  static const HttpVer kVersions[] = {HTTP_0_9, HTTP_1_0, HTTP_1_1};
  return kVersions[v];
}

HttpAdaptor::HttpVer HttpAdaptor::parseStatus(const std::string& line, std::string& code,
                                              std::string& reason) {
  size_t h = line.find("HTTP/");
  if (line.size() < 5 || h == std::string::npos) {
    code = "null";
    reason = "null";
    return HTTP_0_9;
  }
  size_t sp1 = line.find(' ');
  size_t sp2 = sp1 == std::string::npos ? std::string::npos : line.find(' ', sp1 + 1);
  std::string digits;
  if (sp1 != std::string::npos)
    digits = line.substr(sp1 + 1, sp2 == std::string::npos ? std::string::npos : sp2 - sp1 - 1);
  if (digits.size() != 3 || digits.find_first_not_of("0123456789") != std::string::npos) {
    SF_LOG(3, "HTTP - Expected a 3 digit status code in the header");
    SF_THROW("3dgtstat", Xproto());
  }
  std::string ver = h + 5 <= sp1 ? line.substr(h + 5, sp1 - h - 5) : "";
  if (!onlyVersionChars(ver)) {
    SF_LOG(3, "HTTP - Expected a version number in the header");
    SF_THROW("expVER", Xproto());
  }
  size_t dot = ver.find('.');
  if (dot == std::string::npos) {
    SF_LOG(3, "HTTP - Expected period in version in the header");
    SF_THROW("expVER.", Xproto());
  }
  int major = atoi(ver.substr(0, dot).c_str());
  int minor = atoi(ver.substr(dot + 1).c_str());
  if (major < 1) {
    SF_LOG(3, "HTTP - Unexpected version number in header");
    SF_THROW("unexpVer", Xproto());
  }
  code = digits;
  reason = sp2 == std::string::npos ? "" : line.substr(sp2 + 1);
  return versionOf(major, minor);
}

void HttpAdaptor::readMessage(Connection* c, Buffer& body, std::list<std::string>* headers) {
  if (isClient)
    readResponse(c, body, headers);
  else
    readRequest(c, body, headers, false);
}

void HttpAdaptor::readResponse(Connection* c, Buffer& body, std::list<std::string>* headers) {
  SF_LOG(4, "HTTP - Reading message");
  Buffer hbuf;
  size_t pos = 0;
  ConnectionData cd;
  if (readStatusLine(c, hbuf, pos, cd))
    decideResponseBody(cd, readResponseHeaders(c, hbuf, pos, cd, headers));
  if (hbuf.size() > pos) {
    SF_LOG(8, "HTTP - Saving additional data read back on the connection");
    next->pushback(hbuf.data + pos, hbuf.size() - pos);
    SF_LOG(8, "HTTP - Done saving data");
  }
  if (!cd.hasBody) {
    pduMore = false;
  } else {
    SF_LOG(8, "HTTP - Retriving request body");
    readMessageBody(c, &body, cd);
  }
  closeConnection(c, &cd);
}

// The status line: fills cd from the status and the request just sent.
// False for an HTTP/0.9 response, which has no header block.
bool HttpAdaptor::readStatusLine(Connection* c, Buffer& hbuf, size_t& pos, ConnectionData& cd) {
  SF_LOG(7, "HTTP - Reading response status from server");
  std::string line;
  if (GetFullLine(&line, c, &hbuf, &pos, true, false)) {
    if (strictResponse) refuseResponse("no status line");
    SF_LOG(4, "HTTP - Reading a HTTP/0.9 response");
    cd.version = HTTP_0_9;
    cd.readToEof = true;
    lastStatus = 200;  // a bare body is the answer
    return false;
  }
  if (strictResponse && hasControl(line)) refuseResponse("control character in the status line");
  std::string code, reason;
  cd.version = parseStatus(line, code, reason);
  setEnv("HttpResultCode", code);
  setEnv("HttpResultReason", reason);
  lastStatus = atoi(code.c_str());
  cd.readToEof = cd.version == HTTP_0_9 || cd.version == HTTP_1_0;
  if (lastStatus < 200 || lastStatus == 204 || lastStatus == 304) cd.hasBody = false;
  // A response to HEAD never carries a body, whatever its status.
  if (requestHeader.method == METHOD_HEAD) cd.hasBody = false;
  if (requestHeader.method == METHOD_CONNECT && lastStatus == 200) {
    cd.connection = CONN_KEEPALIVE;  // the tunnel is open
    cd.readToEof = false;
    cd.hasBody = false;
  }
  return true;
}

// The header block of a response; true when it gave a Content-Length.
bool HttpAdaptor::readResponseHeaders(Connection* c, Buffer& hbuf, size_t& pos, ConnectionData& cd,
                                      std::list<std::string>* headers) {
  bool hasContentLength = false;
  std::string line;
  for (;;) {
    GetFullLine(&line, c, &hbuf, &pos, false, true);
    if (line.empty()) break;
    if (strictResponse && hasControl(line)) refuseResponse("control character in a header line");
    size_t colon = line.find(':');
    if (colon == std::string::npos) {
      SF_LOG(1, "HTTP - Request received without valid header line (colon missing)");
      SF_THROW("http: Colon missing in header line", makeReject("400"));
    }
    const char* name = line.data();
    size_t vstart = colon + 1;
    while (vstart < line.size() && isBlank(line[vstart])) ++vstart;
    std::string value = line.substr(vstart);
    if (iequals(name, colon, "Content-Length")) {
      std::int64_t length = leadingNumber(value.c_str());
      // Two lengths that differ, or one that is not a plain number, leave
      // the end of the body open to interpretation.
      if (strictResponse &&
          (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
           (hasContentLength && length != cd.contentLength)))
        refuseResponse("ambiguous Content-Length");
      cd.contentLength = length;
      hasContentLength = true;
      cd.readToEof = false;
      SF_LOG(8, "HTTP - Found a Content-Length for the request (%d)",
             static_cast<int>(cd.contentLength));
      if (cd.contentLength < 0) {
        SF_LOG(1, "HTTP - Negative Content-Length");
        SF_THROW("http: negative content length", makeReject("400"));
      }
      continue;
    }
    if (iequals(name, colon, "Connection") || iequals(name, colon, "Proxy-Connection")) {
      if (iequals(value.data(), value.size(), "Keep-Alive")) {
        cd.connection = CONN_KEEPALIVE;
        cd.readToEof = false;
      } else if (iequals(value.data(), value.size(), "Close")) {
        cd.connection = CONN_CLOSE;
      }
      SF_LOG(8, "HTTP - Found a Connection line (%s = \"%s\")", line.substr(0, colon).c_str(),
             value.c_str());
      continue;
    }
    if (iequals(name, colon, "Keep-Alive")) continue;
    if (iequals(name, colon, "Transfer-Encoding")) {
      // Only a plain "chunked" has a framing this reader knows.
      if (strictResponse && (cd.chunked || !iequals(value.data(), value.size(), "chunked")))
        refuseResponse("unsupported Transfer-Encoding");
      std::basic_string<char, ichar_traits> v(value.data(), value.size());
      if (value.size() >= 7 && v.find("chunked") != std::basic_string<char, ichar_traits>::npos) {
        cd.chunked = true;
        cd.readToEof = false;
        SF_LOG(8, "HTTP - Found a chunked transfer encoding header.  (entire header = \"%s\")",
               line.c_str());
        continue;
      }
    }
    std::string hname = line.substr(0, colon);
    SF_LOG(8, "HTTP - Saving application header \"%s: %s\"", hname.c_str(), value.c_str());
    setEnv(headerEntry(hname).c_str(), value);
    if (headers) headers->push_back(hname + ": " + value);
  }
  if (strictResponse && hasContentLength && cd.chunked)
    refuseResponse("both Content-Length and chunked");
  return hasContentLength;
}

// A response keeps the framing its status and the request allow (a HEAD
// answer announces a length it never sends).
void HttpAdaptor::decideResponseBody(ConnectionData& cd, bool hasContentLength) {
  bool noLength = hasContentLength ? cd.contentLength == 0 : true;
  if (noLength && !cd.chunked && !cd.readToEof) {
    cd.hasBody = false;
    pduMore = false;
  }
}

void HttpAdaptor::readMessageBody(Connection* c, Buffer* body, ConnectionData& cd) {
  if (!cd.hasBody) return;
  if (cd.readToEof) {
    SF_LOG(8, "HTTP - Reading until client sends EOF.");
    pduMore = false;
    readBodyToEof(c, body);
    return;
  }
  if (cd.chunked) {
    SF_LOG(8, "HTTP - Reading chunked message body.");
    readChunked(c, body, cd);
    return;
  }
  pduMore = false;
  if (cd.contentLength > maxBody) {
    SF_LOG(1, "HTTP - Request received without valid header line (colon missing)");
    SF_THROW("http: Size of body exceeded bounds", makeReject("413"));
  }
  SF_LOG(7, "HTTP - Reading message body.");
  if (cd.contentLength > 0) next->read(c, *body, static_cast<int>(cd.contentLength));
}

void HttpAdaptor::readBodyToEof(Connection* c, Buffer* body) {
  // Bytes read ahead with the header block start the body: take them first,
  // then read the socket until the peer closes, never past maxBody.
  size_t start = body->size();
  auto room = [&]() { return maxBody - static_cast<std::int64_t>(body->size() - start); };
  while (room() > 0 && next->hasBufferedData())
    next->readUptoNB(c, *body, static_cast<int>(std::min<std::int64_t>(room(), 1 << 20)));
  if (room() > 0) next->readTillEof(c, *body, static_cast<int>(room()));
}

void HttpAdaptor::readChunked(Connection* c, Buffer* body, ConnectionData& cd) {
  Buffer cbuf;
  size_t cpos = 0;
  std::string line;
  for (;;) {
    // Chunk data already taken is dropped, so that the header limit guards
    // each size line (and the trailer) rather than the whole body.
    if (cpos > 0) {
      if (cpos >= cbuf.size())
        cbuf.resize(0);
      else
        cbuf.remove(0, cpos);
      cpos = 0;
    }
    cd.stage = 2;
    // No folding here: chunk data that starts with a blank is not a
    // continuation of the size line.
    GetFullLine(&line, c, &cbuf, &cpos, false, false);
    const char* digits = line.c_str();
    char* end = nullptr;
    unsigned long long size = strtoull(digits, &end, 16);
    if (end == digits) {
      SF_LOG(1, "HTTP - Found inconsistancy in chunked encoding.");
      SF_THROW("chunked", makeReject("400"));
    }
    std::uint64_t have = body->size();
    if (maxBody < 0 || size > static_cast<std::uint64_t>(maxBody) ||
        have + size > static_cast<std::uint64_t>(maxBody)) {
      SF_LOG(1, "HTTP - Message body exceeds size boundary");
      SF_THROW("http: Size of body exceeded bounds", makeReject("413"));
    }
    if (size == 0) {
      SF_LOG(8, "HTTP - Reading transfer headers after chunked encoding.");
      do {
        GetFullLine(&line, c, &cbuf, &cpos, false, true);
      } while (!line.empty());
      pduMore = false;
      cd.stage = 0;
      break;
    }
    cd.stage = 1;
    size_t buffered = cbuf.size() - cpos;
    if (buffered < size + 2) next->read(c, cbuf, static_cast<int>(size + 2 - buffered));
    body->append(cbuf.data + cpos, size);
    if (cbuf.data[cpos + size] != '\r' || cbuf.data[cpos + size + 1] != '\n') {
      SF_LOG(1, "HTTP - Found inconsistancy in chunked encoding.");
      SF_THROW("chunked", makeReject("400"));
    }
    cpos += size + 2;
    SF_LOG(8, "HTTP - Received chunked section of %d length.", static_cast<int>(size));
    if (pduMore) break;
  }
  if (cbuf.size() > cpos) next->pushback(cbuf.data + cpos, cbuf.size() - cpos);
}

// --- the Adaptor read operations ---

void HttpAdaptor::readPdu(Connection* c, Buffer& body) {
  std::list<std::string> headers;
  size_t start = body.size();
  readMessage(c, body, &headers);
  if (!isClient) return;
  // Proxy challenges first, then the server's own.
  for (int challenge : {407, 401}) {
    if (lastStatus != challenge) continue;
    if (!resendWithAuth(c, headers)) break;
    headers.clear();
    body.resize(start);
    readMessage(c, body, &headers);
  }
  if (lastStatus != 200) {
    SF_LOG(1, "HTTP - Server answered with status %d", lastStatus);
    SF_THROW("http response error", Xio());
  }
}

void HttpAdaptor::readPduFirst(Connection* c, Buffer& body) {
  pduMore = true;
  if (isClient)
    readResponse(c, body, nullptr);
  else
    readRequest(c, body, nullptr, true);
}

void HttpAdaptor::readPduNext(Connection* c, Buffer& body) {
  if (!isClient) {
    readNextChunk(c, body);
    return;
  }
  ConnectionData cd = ConnectionData::nextFragment();
  readMessageBody(c, &body, cd);
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
