// sf::RequestParser: the request line, the header block and the body
// framing of one HTTP/1.x request. The state machine steps one byte at a
// time where a byte can change the state; runs of bytes that are only kept
// (method, target, header names and values) and bodies are taken in bulk.
#include "sf/http/requestparser.h"

#include <cstring>
#include <utility>

#include "sf/http/httpadaptor.h"

namespace sf {

namespace {

const char* const kBareLineEnd = "HTTP - Line not ended by CR LF";
const char* const kBadChunk = "HTTP - Found inconsistancy in chunked encoding.";

bool isDigit(unsigned char c) {
  return c >= '0' && c <= '9';
}
bool isAlpha(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
// A character of a token (method, header name).
bool isTokenChar(unsigned char c) {
  return isDigit(c) || isAlpha(c) || (c != 0 && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}
// A visible character, or any byte above ASCII (obs-text).
bool isVisible(unsigned char c) {
  return (c > 0x20 && c < 0x7F) || c >= 0x80;
}
bool isBlank(unsigned char c) {
  return c == ' ' || c == '\t';
}
// Byte classes for the runs the parser takes in bulk: a table lookup per
// byte instead of a call through the state machine.
enum : unsigned char { kTokenByte = 1, kTargetByte = 2, kValueByte = 4 };
struct ByteClasses {
  unsigned char of[256];
  constexpr ByteClasses() : of() {
    const char* punctuation = "!#$%&'*+-.^_`|~";
    for (int c = 0; c < 256; ++c) {
      bool token = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      for (const char* q = punctuation; *q; ++q) token = token || c == *q;
      bool visible = (c > 0x20 && c < 0x7F) || c >= 0x80;
      of[c] = static_cast<unsigned char>((token ? kTokenByte : 0) | (visible ? kTargetByte : 0) |
                                         (visible || c == ' ' || c == '\t' ? kValueByte : 0));
    }
  }
};
constexpr ByteClasses kClasses;

int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string trimmed(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && isBlank(s[b])) ++b;
  while (e > b && isBlank(s[e - 1])) --e;
  return s.substr(b, e - b);
}

bool iequal(const std::string& s, const char* word) {
  return iequals(s.data(), s.size(), word);
}

// "HTTP/" digit "." digit: false when malformed; unsupported versions are
// well formed and reported through *supported.
bool versionOf(const std::string& text, RequestParser::Version* v, bool* supported) {
  if (text.size() != 8 || text.compare(0, 5, "HTTP/") != 0 || !isDigit(text[5]) || text[6] != '.' ||
      !isDigit(text[7]))
    return false;
  *supported = text[5] == '1' && (text[7] == '0' || text[7] == '1');
  *v = text[7] == '0' ? RequestParser::V10 : RequestParser::V11;
  return true;
}

RequestParser::Method methodOf(const std::string& word) {
  if (word == "GET") return RequestParser::GET;
  if (word == "POST") return RequestParser::POST;
  if (word == "HEAD") return RequestParser::HEAD;
  return RequestParser::NONE;
}

}  // namespace

// The headers that decide framing or the connection. Everything else is an
// application header, kept in arrival order; so is Connection, whose list
// tells a forwarding proxy which other headers belong to this hop only.
const RequestParser::FieldRule RequestParser::kFieldRules[] = {
    {"Host", &RequestParser::onHost, true},
    {"Content-Length", &RequestParser::onContentLength, false},
    {"Transfer-Encoding", &RequestParser::onTransferEncoding, false},
    {"Connection", &RequestParser::onConnection, true},
    {"Proxy-Connection", &RequestParser::onConnection, false},
    {"Keep-Alive", nullptr, false},
};

void RequestParser::reset(std::int64_t maxHeader, std::int64_t maxBody) {
  maxHeader_ = maxHeader;
  maxBody_ = maxBody < 0 ? 0 : maxBody;
  state_ = LEADING_CR_LF;
  error_ = Error();
  paused_ = false;
  headerBytes_ = extensionBytes_ = 0;
  inTrailer_ = headerDone_ = false;
  method_.clear();
  target_.clear();
  versionText_.clear();
  methodCode_ = NONE;
  version_ = V11;
  name_.clear();
  value_.clear();
  haveField_ = false;
  fields_.clear();
  hasHost_ = hasContentLength_ = hasTransferEncoding_ = chunked_ = false;
  expectContinue_ = hasBody_ = false;
  contentLength_ = 0;
  connection_ = UNSTATED;
  left_ = 0;
  sizeDigits_ = 0;
  body_.clear();
}

bool RequestParser::fail(const char* status, const char* site, std::string text) {
  error_.status = status;
  error_.site = site;
  error_.text = std::move(text);
  state_ = FAILED;
  return false;
}

size_t RequestParser::feed(const char* p, size_t n) {
  size_t i = 0;
  while (i < n && state_ != DONE && state_ != FAILED && !paused_) {
    if (state_ == LENGTH_BODY) {
      i += takeBody(p + i, n - i, &left_);
      if (left_ == 0) state_ = DONE;
    } else if (state_ == CHUNK_DATA) {
      i += takeBody(p + i, n - i, &left_);
      if (left_ == 0) state_ = CHUNK_DATA_CR;
    } else if (size_t run = takeRun(p + i, n - i)) {
      i += run;
    } else if (!step(p[i++])) {
      break;
    }
  }
  return i;
}

// In the states that collect a method, a target, a header name or value,
// takes the bytes that step() would only append, up to the first byte that
// changes state and within the header limit (the byte past the limit goes to
// step(), which refuses it). Returns how many it took.
size_t RequestParser::takeRun(const char* p, size_t n) {
  std::string* into;
  unsigned char cls;
  switch (state_) {
    case METHOD:
      into = &method_, cls = kTokenByte;
      break;
    case TARGET_START:
    case TARGET:
      into = &target_, cls = kTargetByte;
      break;
    case FIELD_NAME:
      into = &name_, cls = kTokenByte;
      break;
    case FIELD_VALUE:
      into = &value_, cls = kValueByte;
      break;
    default:
      return 0;
  }
  std::int64_t room = maxHeader_ - headerBytes_;
  size_t limit = room <= 0                              ? 0
                 : static_cast<std::uint64_t>(room) < n ? static_cast<size_t>(room)
                                                        : n;
  const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
  size_t run = 0;
  while (run < limit && (kClasses.of[u[run]] & cls)) ++run;
  if (run == 0) return 0;
  into->append(p, run);
  headerBytes_ += static_cast<std::int64_t>(run);
  if (state_ == TARGET_START) state_ = TARGET;
  return run;
}

size_t RequestParser::takeBody(const char* p, size_t n, std::int64_t* left) {
  size_t take = static_cast<std::uint64_t>(*left) < n ? static_cast<size_t>(*left) : n;
  body_.append(p, take);
  *left -= static_cast<std::int64_t>(take);
  return take;
}

// Counts one byte toward the header (or trailer) limit.
bool RequestParser::headerByte() {
  if (++headerBytes_ <= maxHeader_) return true;
  return fail("413", "http: Maximum header size reached",
              "HTTP - Request exceeded maximum header size of " + std::to_string(maxHeader_));
}

bool RequestParser::step(char ch) {
  const unsigned char c = static_cast<unsigned char>(ch);
  if (state_ <= BLOCK_END_LF && !headerByte()) return false;
  switch (state_) {
    case LEADING_CR_LF:
      if (c == '\r') {
        state_ = LEADING_LF;
      } else if (isTokenChar(c)) {
        method_.push_back(ch);
        state_ = METHOD;
      } else {
        return fail("400", c == '\n' ? "bareLF" : "expMeth",
                    c == '\n' ? kBareLineEnd : "HTTP - Expeced method in header");
      }
      return true;
    case LEADING_LF:
      if (c != '\n') return fail("400", "bareCR", kBareLineEnd);
      state_ = LEADING_CR_LF;
      return true;
    case METHOD:
      if (isTokenChar(c)) {
        method_.push_back(ch);
        return true;
      }
      if (c != ' ') return fail("400", "expMeth", "HTTP - Expeced method in header");
      methodCode_ = methodOf(method_);
      if (methodCode_ == NONE)
        return fail("501", "badmeth",
                    "HTTP - Can't understand method on request (\"" + method_ + "\")");
      state_ = TARGET_START;
      return true;
    case TARGET_START:
    case TARGET:
      if (isVisible(c)) {
        target_.push_back(ch);
        state_ = TARGET;
        return true;
      }
      if (state_ == TARGET && c == ' ') {
        state_ = VERSION;
        return true;
      }
      if (state_ == TARGET && c == '\r') {
        state_ = SIMPLE_REQUEST_LF;
        return true;
      }
      return fail("400", "badURL", "HTTP - Invalid character in request target");
    case VERSION:
      if (c == '\r') {
        state_ = REQUEST_LINE_LF;
        return true;
      }
      if (versionText_.size() >= 8 || !isVisible(c))
        return fail("400", "expVER", "HTTP - Expected version number in header");
      versionText_.push_back(ch);
      return true;
    case SIMPLE_REQUEST_LF:
      if (c != '\n') return fail("400", "bareCR", kBareLineEnd);
      if (methodCode_ != GET) return fail("400", "expGET", "HTTP - Expected GET token in header");
      version_ = V09;
      headerDone_ = true;
      state_ = DONE;
      return true;
    case REQUEST_LINE_LF:
      if (c != '\n') return fail("400", "bareCR", kBareLineEnd);
      return endRequestLine();
    case FIELD_START:
      if (c == '\r') {
        state_ = BLOCK_END_LF;
      } else if (isBlank(c)) {
        return fail("400", "obsFold", "HTTP - Header line folded onto a second line");
      } else if (isTokenChar(c)) {
        if (!finishField()) return false;
        name_.assign(1, ch);
        state_ = FIELD_NAME;
      } else {
        return fail("400", c == '\n' ? "bareLF" : "badHeader",
                    c == '\n' ? kBareLineEnd : "HTTP - Invalid character in header name");
      }
      return true;
    case FIELD_NAME:
      if (isTokenChar(c)) {
        name_.push_back(ch);
      } else if (c == ':') {
        value_.clear();
        haveField_ = true;
        state_ = FIELD_VALUE;
      } else if (isBlank(c)) {
        return fail("400", "blankColon", "HTTP - White space before the colon of a header");
      } else if (c == '\r' || c == '\n') {
        return fail("400", "http: Colon missing in header line",
                    "HTTP - Request received without valid header line (colon missing)");
      } else {
        return fail("400", "badHeader", "HTTP - Invalid character in header name");
      }
      return true;
    case FIELD_VALUE:
      if (isVisible(c) || isBlank(c)) {
        value_.push_back(ch);
      } else if (c == '\r') {
        state_ = FIELD_LF;
      } else {
        return fail("400", c == '\n' ? "bareLF" : "badValue",
                    c == '\n' ? kBareLineEnd : "HTTP - Control character in header value");
      }
      return true;
    case FIELD_LF:
      if (c != '\n') return fail("400", "bareCR", kBareLineEnd);
      state_ = FIELD_START;
      return true;
    case BLOCK_END_LF:
      if (c != '\n') return fail("400", "bareCR", kBareLineEnd);
      if (!finishField()) return false;
      return inTrailer_ ? endTrailer() : endHeaderBlock();
    case CHUNK_SIZE_START:
    case CHUNK_SIZE: {
      int d = hexValue(c);
      if (d >= 0) {
        // Refused as soon as the size passes what the body may still hold.
        left_ = left_ * 16 + d;
        if (++sizeDigits_ > 16 || left_ > maxBody_ - static_cast<std::int64_t>(body_.size()))
          return fail("413", "http: Size of body exceeded bounds",
                      "HTTP - Message body exceeds size boundary");
        state_ = CHUNK_SIZE;
      } else if (state_ == CHUNK_SIZE && c == '\r') {
        state_ = CHUNK_SIZE_LF;
      } else if (state_ == CHUNK_SIZE && c == ';') {
        state_ = CHUNK_EXTENSION;
      } else if (state_ == CHUNK_SIZE && isBlank(c)) {
        state_ = CHUNK_SIZE_BLANK;
      } else {
        return fail("400", "chunked", kBadChunk);
      }
      return true;
    }
    case CHUNK_SIZE_BLANK:
      if (c == ';') {
        state_ = CHUNK_EXTENSION;
      } else if (!isBlank(c)) {
        return fail("400", "chunked", kBadChunk);
      }
      return true;
    case CHUNK_EXTENSION:
      if (c == '\r') {
        state_ = CHUNK_SIZE_LF;
        return true;
      }
      if (!isVisible(c) && !isBlank(c)) return fail("400", "chunked", kBadChunk);
      if (++extensionBytes_ > maxHeader_)
        return fail("413", "http: Maximum header size reached",
                    "HTTP - Chunk extensions exceed the header size limit");
      return true;
    case CHUNK_SIZE_LF:
      if (c != '\n') return fail("400", "chunked", kBadChunk);
      if (left_ == 0) {
        inTrailer_ = true;  // the trailer has a header block's syntax and limit
        headerBytes_ = 0;
        haveField_ = false;
        state_ = FIELD_START;
      } else {
        state_ = CHUNK_DATA;
      }
      return true;
    case CHUNK_DATA_CR:
      if (c != '\r') return fail("400", "chunked", kBadChunk);
      state_ = CHUNK_DATA_LF;
      return true;
    case CHUNK_DATA_LF:
      if (c != '\n') return fail("400", "chunked", kBadChunk);
      sizeDigits_ = 0;
      state_ = CHUNK_SIZE_START;
      paused_ = pauseAtChunks_;
      return true;
    default:
      return false;
  }
}

bool RequestParser::endRequestLine() {
  bool supported = false;
  if (!versionOf(versionText_, &version_, &supported))
    return fail("400", "expVER", "HTTP - Expected version number in header");
  if (!supported) return fail("505", "unexpVER", "HTTP - Unexpected version number in header");
  state_ = FIELD_START;
  return true;
}

// Acts on the header just read (its value now complete) through the table,
// or keeps it as an application header. In a trailer nothing is kept.
bool RequestParser::finishField() {
  if (!haveField_) return true;
  haveField_ = false;
  if (inTrailer_) return true;
  std::string value = trimmed(value_);
  for (const FieldRule& rule : kFieldRules) {
    if (!iequal(name_, rule.name)) continue;
    if (rule.action && !(this->*rule.action)(value)) return false;
    if (rule.publish) fields_.emplace_back(std::move(name_), std::move(value));
    return true;
  }
  if (iequal(name_, "Expect") && iequal(value, "100-continue")) expectContinue_ = true;
  fields_.emplace_back(std::move(name_), std::move(value));
  return true;
}

bool RequestParser::onHost(const std::string&) {
  if (hasHost_) return fail("400", "twoHosts", "HTTP - Request with two Host headers");
  hasHost_ = true;
  return true;
}

bool RequestParser::onContentLength(const std::string& value) {
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos)
    return fail("400", "badLength", "HTTP - Content-Length is not a decimal number");
  std::int64_t n = 0;
  for (char d : value) {
    // Saturates: any value this large is refused by the body limit.
    n = n > (INT64_MAX - 9) / 10 ? INT64_MAX : n * 10 + (d - '0');
  }
  if (hasContentLength_)
    return fail("400", "twoLengths", "HTTP - Request with two Content-Length headers");
  hasContentLength_ = true;
  contentLength_ = n;
  return true;
}

bool RequestParser::onTransferEncoding(const std::string& value) {
  // Only one coding is understood, and only on its own: anything else would
  // leave the body's end to a guess.
  if (hasTransferEncoding_ || !iequal(value, "chunked"))
    return fail("400", "badCoding", "HTTP - Transfer-Encoding other than chunked alone");
  hasTransferEncoding_ = chunked_ = true;
  return true;
}

bool RequestParser::onConnection(const std::string& value) {
  // A list of options; close wins over keep-alive.
  size_t start = 0;
  while (start <= value.size()) {
    size_t comma = value.find(',', start);
    if (comma == std::string::npos) comma = value.size();
    std::string option = trimmed(value.substr(start, comma - start));
    if (iequal(option, "Close")) {
      connection_ = CLOSE;
    } else if (iequal(option, "Keep-Alive") && connection_ != CLOSE) {
      connection_ = KEEP_ALIVE;
    }
    start = comma + 1;
  }
  return true;
}

bool RequestParser::endHeaderBlock() {
  headerDone_ = true;
  if (!hasHost_ && version_ == V11)
    return fail("400", "nohost",
                "HTTP - Version 1.1 client did not send a Host header line.  Rejecting with 400");
  if (chunked_ && (hasContentLength_ || version_ == V10))
    return fail("400", "badFraming", "HTTP - Transfer-Encoding with Content-Length or HTTP/1.0");
  if (chunked_) {
    hasBody_ = true;
    state_ = CHUNK_SIZE_START;
    return true;
  }
  if (contentLength_ > maxBody_)
    return fail("413", "http: Size of body exceeded bounds",
                "HTTP - Request received without valid header line (colon missing)");
  if (!hasContentLength_ && methodCode_ == POST)
    return fail("411", "http: keep alive post request without content length",
                "HTTP - POST request without Content-Length or chunked encoding");
  hasBody_ = contentLength_ > 0;
  left_ = contentLength_;
  state_ = hasBody_ ? LENGTH_BODY : DONE;
  return true;
}

bool RequestParser::endTrailer() {
  state_ = DONE;
  return true;
}

bool RequestParser::parseRequestLine(const std::string& line, std::string& method,
                                     std::string& target, Version& version, Error* error) {
  RequestParser p(static_cast<std::int64_t>(line.size()) + 2, 0);
  p.feed(line.data(), line.size());
  p.feed("\r\n", 2);
  if (p.failed()) {
    *error = p.error();
    return false;
  }
  method = p.method_;
  target = p.target_;
  version = p.version_;
  return true;
}

}  // namespace sf
