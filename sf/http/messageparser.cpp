// sf::MessageParser: the start line, the header block and the body framing
// of one HTTP/1.x request or response. The state machine steps one byte at a
// time where a byte can change the state; runs of bytes that are only kept
// (method, target, reason, header names and values) and bodies are taken in
// bulk.
#include "sf/http/messageparser.h"

#include <algorithm>
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

// Calls f with each element of a comma-separated list, trimmed; empty
// elements are skipped. Stops at the first element f refuses.
template <class F>
bool eachElement(const std::string& list, F f) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    size_t b = start, e = comma;
    while (b < e && isBlank(list[b])) ++b;
    while (e > b && isBlank(list[e - 1])) --e;
    if (e > b && !f(list.substr(b, e - b))) return false;
    start = comma + 1;
  }
  return true;
}

// Drops the blanks around a header value, in place.
void trim(std::string& s) {
  size_t e = s.size();
  while (e > 0 && isBlank(s[e - 1])) --e;
  s.resize(e);
  size_t b = 0;
  while (b < e && isBlank(s[b])) ++b;
  s.erase(0, b);
}

bool iequal(const std::string& s, const char* word) {
  return iequals(s.data(), s.size(), word);
}

// "HTTP/" digit "." digit: false when malformed; unsupported versions are
// well formed and reported through *supported.
bool versionOf(const std::string& text, MessageParser::Version* v, bool* supported) {
  if (text.size() != 8 || text.compare(0, 5, "HTTP/") != 0 || !isDigit(text[5]) || text[6] != '.' ||
      !isDigit(text[7]))
    return false;
  *supported = text[5] == '1' && (text[7] == '0' || text[7] == '1');
  *v = text[7] == '0' ? MessageParser::V10 : MessageParser::V11;
  return true;
}

MessageParser::Method methodOf(const std::string& word) {
  if (word == "GET") return MessageParser::GET;
  if (word == "POST") return MessageParser::POST;
  if (word == "HEAD") return MessageParser::HEAD;
  return MessageParser::NONE;
}

}  // namespace

// The headers that decide framing or the connection. Everything else is an
// application header, kept in arrival order; so is Connection, whose list
// tells a forwarding proxy which other headers belong to this hop only.
const MessageParser::FieldRule MessageParser::kFieldRules[] = {
    {"Host", &MessageParser::onHost, true},
    {"Content-Length", &MessageParser::onContentLength, false},
    {"Transfer-Encoding", &MessageParser::onTransferEncoding, false},
    {"Connection", &MessageParser::onConnection, true},
    {"Proxy-Connection", &MessageParser::onConnection, false},
    {"Keep-Alive", nullptr, false},
};

void MessageParser::reset(std::int64_t maxHeader, std::int64_t maxBody) {
  maxHeader_ = maxHeader;
  maxBody_ = maxBody < 0 ? 0 : maxBody;
  state_ = role_ == REQUEST ? LEADING_CR_LF : STATUS_VERSION;
  answering_ = GET;
  allowSimple_ = false;
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
  expectContinue_ = hasBody_ = untilClose_ = otherCoding_ = false;
  status_ = 0;
  reason_.clear();
  contentLength_ = 0;
  connection_ = UNSTATED;
  left_ = 0;
  sizeDigits_ = 0;
  body_.clear();
}

bool MessageParser::fail(const char* status, const char* site, std::string text) {
  // A response that cannot be read as sent is a bad gateway, whatever
  // was wrong with it.
  error_.status = role_ == RESPONSE ? "502" : status;
  error_.site = site;
  error_.text = std::move(text);
  state_ = FAILED;
  return false;
}

size_t MessageParser::feed(const char* p, size_t n) {
  size_t i = 0;
  while (i < n && state_ != DONE && state_ != FAILED && !paused_) {
    if (state_ == LENGTH_BODY) {
      i += takeBody(p + i, n - i, &left_);
      if (left_ == 0) state_ = DONE;
    } else if (state_ == CHUNK_DATA) {
      i += takeBody(p + i, n - i, &left_);
      if (left_ == 0) state_ = CHUNK_DATA_CR;
    } else if (state_ == UNTIL_CLOSE) {
      i += takeBody(p + i, n - i, &left_);
      if (left_ == 0 && i < n)
        fail("502", "http: Size of body exceeded bounds",
             "HTTP - Message body exceeds size boundary");
    } else if (size_t run = takeRun(p + i, n - i)) {
      i += run;
    } else if (state_ == FAILED || !step(p[i++])) {
      break;
    }
  }
  return i;
}

// In the states that collect a method, a target, a header name or value,
// takes the bytes that step() would only append, up to the first byte that
// changes state and within the header limit (the byte past the limit goes to
// step(), which refuses it). Returns how many it took.
size_t MessageParser::takeRun(const char* p, size_t n) {
  if (state_ == STATUS_VERSION) return takeStatusStart(p, n);
  const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
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
    case FIELD_START:
      // A token starts the next header's name, so the header before it is
      // complete (acted on here, which may refuse the message).
      if (!(kClasses.of[u[0]] & kTokenByte) || headerBytes_ >= maxHeader_ || !finishField())
        return 0;
      name_.clear();
      state_ = FIELD_NAME;
      into = &name_, cls = kTokenByte;
      break;
    case FIELD_NAME:
      into = &name_, cls = kTokenByte;
      break;
    case FIELD_VALUE:
      into = &value_, cls = kValueByte;
      break;
    case STATUS_REASON:
      into = &reason_, cls = kValueByte;
      break;
    default:
      return 0;
  }
  std::int64_t room = maxHeader_ - headerBytes_;
  size_t limit = room <= 0                              ? 0
                 : static_cast<std::uint64_t>(room) < n ? static_cast<size_t>(room)
                                                        : n;
  size_t run = 0;
  while (run < limit && (kClasses.of[u[run]] & cls)) ++run;
  if ((state_ == FIELD_VALUE || state_ == STATUS_REASON) && run + 2 <= limit && u[run] == '\r' &&
      u[run + 1] == '\n') {
    // The line's CR LF, both here and within the limit: the next line starts.
    into->append(p, run);
    headerBytes_ += static_cast<std::int64_t>(run) + 2;
    state_ = FIELD_START;
    return run + 2;
  }
  if (run == 0) return 0;
  into->append(p, run);
  headerBytes_ += static_cast<std::int64_t>(run);
  if (state_ == TARGET_START) state_ = TARGET;
  return run;
}

// The usual start of a status line, "HTTP/1.x NNN ", when all of it is in
// this piece and within the header limit: taken at once, by the rules
// statusByte() applies one byte at a time to anything else.
size_t MessageParser::takeStatusStart(const char* p, size_t n) {
  const size_t kStart = 13;
  if (!versionText_.empty() || n < kStart || maxHeader_ - headerBytes_ < std::int64_t(kStart) ||
      memcmp(p, "HTTP/1.", 7) != 0 || (p[7] != '0' && p[7] != '1') || p[8] != ' ' || p[9] < '1' ||
      p[9] > '9' || !isDigit(p[10]) || !isDigit(p[11]) || p[12] != ' ')
    return 0;
  version_ = p[7] == '1' ? V11 : V10;
  status_ = (p[9] - '0') * 100 + (p[10] - '0') * 10 + (p[11] - '0');
  sizeDigits_ = 3;
  headerBytes_ += std::int64_t(kStart);
  state_ = STATUS_REASON;
  return kStart;
}

size_t MessageParser::takeBody(const char* p, size_t n, std::int64_t* left) {
  size_t take = static_cast<std::uint64_t>(*left) < n ? static_cast<size_t>(*left) : n;
  body_.append(p, take);
  *left -= static_cast<std::int64_t>(take);
  return take;
}

// Counts one byte toward the header (or trailer) limit.
bool MessageParser::headerByte() {
  if (++headerBytes_ <= maxHeader_) return true;
  return fail("413", "http: Maximum header size reached",
              std::string("HTTP - ") + noun() + " exceeded maximum header size of " +
                  std::to_string(maxHeader_));
}

void MessageParser::finish() {
  if (state_ == UNTIL_CLOSE) {
    state_ = DONE;
  } else if (state_ != DONE && state_ != FAILED) {
    fail("502", "cutShort", "HTTP - The peer closed before the end of the message");
  }
}

// One byte of a status line: "HTTP/" digit "." digit, SP, three digits, and
// SP and a reason (taken in runs by takeRun) or the line's end.
bool MessageParser::statusByte(char ch) {
  const unsigned char c = static_cast<unsigned char>(ch);
  switch (state_) {
    case STATUS_VERSION:
      if (versionText_.size() < 5 &&
          c != static_cast<unsigned char>("HTTP/"[versionText_.size()])) {
        // (after an interim answer the stream is past its start)
        bool atStart = headerBytes_ == static_cast<std::int64_t>(versionText_.size()) + 1;
        if (!allowSimple_ || !atStart)
          return fail("502", "nostatus", "HTTP - The answer does not start with a status line");
        // No status line at all: an HTTP/0.9 answer, all of it the body.
        body_ = versionText_;
        body_.push_back(ch);
        headerBytes_ = 0;
        version_ = V09;
        headerDone_ = hasBody_ = untilClose_ = true;
        left_ = std::max<std::int64_t>(0, maxBody_ - static_cast<std::int64_t>(body_.size()));
        state_ = UNTIL_CLOSE;
        return true;
      }
      if (c == ' ') return endStatusLine();
      if (versionText_.size() >= 8 || !isVisible(c))
        return fail("502", "expVER", "HTTP - Expected a version number in the status line");
      versionText_.push_back(ch);
      return true;
    case STATUS_CODE:
      if (isDigit(c) && sizeDigits_ < 3) {
        status_ = status_ * 10 + (c - '0');
        ++sizeDigits_;
        return true;
      }
      if (sizeDigits_ == 3 && status_ >= 100 && (c == ' ' || c == '\r')) {
        state_ = c == ' ' ? STATUS_REASON : STATUS_LF;
        return true;
      }
      return fail("502", "3dgtstat", "HTTP - Expected a 3 digit status code in the header");
    case STATUS_REASON:
      if (c == '\r') {
        state_ = STATUS_LF;
        return true;
      }
      return fail("502", "badReason", "HTTP - Control character in the status line");
    default:  // STATUS_LF
      if (c != '\n') return fail("502", "bareCR", kBareLineEnd);
      state_ = FIELD_START;
      return true;
  }
}

bool MessageParser::endStatusLine() {
  bool supported = false;
  if (!versionOf(versionText_, &version_, &supported) || !supported)
    return fail("502", "expVER", "HTTP - Expected a version number in the status line");
  state_ = STATUS_CODE;
  return true;
}

bool MessageParser::step(char ch) {
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
    case STATUS_VERSION:
    case STATUS_CODE:
    case STATUS_REASON:
    case STATUS_LF:
      return statusByte(ch);
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
      if (inTrailer_) return endTrailer();
      return role_ == REQUEST ? endHeaderBlock() : endResponseHead();
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

bool MessageParser::endRequestLine() {
  bool supported = false;
  if (!versionOf(versionText_, &version_, &supported))
    return fail("400", "expVER", "HTTP - Expected version number in header");
  if (!supported) return fail("505", "unexpVER", "HTTP - Unexpected version number in header");
  state_ = FIELD_START;
  return true;
}

// Acts on the header just read (its value now complete) through the table,
// or keeps it as an application header. In a trailer nothing is kept.
bool MessageParser::finishField() {
  if (!haveField_) return true;
  haveField_ = false;
  if (inTrailer_) return true;
  trim(value_);
  std::string& value = value_;
  for (const FieldRule& rule : kFieldRules) {
    if (name_.size() != rule.name.size() || !iequals(name_.data(), name_.size(), rule.name.data()))
      continue;
    if (rule.action && !(this->*rule.action)(value)) return false;
    if (rule.publish) fields_.emplace_back(std::move(name_), std::move(value));
    return true;
  }
  if (iequal(name_, "Expect") && iequal(value, "100-continue")) expectContinue_ = true;
  fields_.emplace_back(std::move(name_), std::move(value));
  return true;
}

bool MessageParser::onHost(const std::string&) {
  if (role_ == RESPONSE) return true;  // only a request names its host
  if (hasHost_) return fail("400", "twoHosts", "HTTP - Request with two Host headers");
  hasHost_ = true;
  return true;
}

bool MessageParser::onContentLength(const std::string& value) {
  if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos)
    return fail("400", "badLength", "HTTP - Content-Length is not a decimal number");
  std::int64_t n = 0;
  for (char d : value) {
    // Saturates: any value this large is refused by the body limit.
    n = n > (INT64_MAX - 9) / 10 ? INT64_MAX : n * 10 + (d - '0');
  }
  if (hasContentLength_)
    return fail("400", "twoLengths",
                std::string("HTTP - ") + noun() + " with two Content-Length headers");
  hasContentLength_ = true;
  contentLength_ = n;
  return true;
}

bool MessageParser::onTransferEncoding(const std::string& value) {
  if (role_ == RESPONSE) {
    // Codings may be stacked, over one or more lines; chunked frames the
    // body only as the last of them, and is never applied twice.
    hasTransferEncoding_ = true;
    bool any = false;
    return eachElement(value,
                       [&](const std::string& coding) {
                         if (chunked_)
                           return fail("502", "badCoding",
                                       "HTTP - Transfer-Encoding with a coding after chunked");
                         chunked_ = iequal(coding, "chunked");
                         otherCoding_ = otherCoding_ || !chunked_;
                         return any = true;
                       }) &&
           (any || fail("502", "badCoding", "HTTP - Transfer-Encoding without a coding"));
  }
  // A request may use one coding only, on its own: anything else would
  // leave the body's end to a guess.
  if (hasTransferEncoding_ || !iequal(value, "chunked"))
    return fail("400", "badCoding", "HTTP - Transfer-Encoding other than chunked alone");
  hasTransferEncoding_ = chunked_ = true;
  return true;
}

bool MessageParser::onConnection(const std::string& value) {
  // A list of options; close wins over keep-alive.
  return eachElement(value, [this](const std::string& option) {
    if (iequal(option, "Close")) {
      connection_ = CLOSE;
    } else if (iequal(option, "Keep-Alive") && connection_ != CLOSE) {
      connection_ = KEEP_ALIVE;
    }
    return true;
  });
}

bool MessageParser::endHeaderBlock() {
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

// The framing of a response's body, decided once its header block is read.
bool MessageParser::endResponseHead() {
  if (status_ < 200) {
    if (status_ == 101)
      return fail("502", "upgrade", "HTTP - Switching protocols, which was never asked for");
    // An interim answer: the final one follows. Its bytes still count
    // toward the header limit, so a stream of them stays bounded.
    versionText_.clear();
    reason_.clear();
    fields_.clear();
    status_ = sizeDigits_ = 0;
    hasContentLength_ = hasTransferEncoding_ = chunked_ = otherCoding_ = false;
    contentLength_ = 0;
    connection_ = UNSTATED;
    state_ = STATUS_VERSION;
    return true;
  }
  headerDone_ = true;
  if (hasTransferEncoding_ && (hasContentLength_ || version_ == V10))
    return fail("502", "badFraming", "HTTP - Transfer-Encoding with Content-Length or HTTP/1.0");
  if (answering_ == HEAD || status_ == 204 || status_ == 304 ||
      (answering_ == CONNECT && status_ / 100 == 2)) {
    state_ = DONE;  // whatever the header block announced
    return true;
  }
  hasBody_ = true;
  if (chunked_) {
    state_ = CHUNK_SIZE_START;
    return true;
  }
  if (hasTransferEncoding_ || !hasContentLength_) {
    untilClose_ = true;
    left_ = maxBody_;
    state_ = UNTIL_CLOSE;
    return true;
  }
  if (contentLength_ > maxBody_)
    return fail("502", "http: Size of body exceeded bounds",
                "HTTP - Message body exceeds size boundary");
  hasBody_ = contentLength_ > 0;
  left_ = contentLength_;
  state_ = hasBody_ ? LENGTH_BODY : DONE;
  return true;
}

bool MessageParser::endTrailer() {
  state_ = DONE;
  return true;
}

bool MessageParser::parseRequestLine(const std::string& line, std::string& method,
                                     std::string& target, Version& version, Error* error) {
  MessageParser p(static_cast<std::int64_t>(line.size()) + 2, 0);
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

bool MessageParser::parseStatusLine(const std::string& line, int& status, std::string& reason,
                                    Version& version, Error* error) {
  MessageParser p(static_cast<std::int64_t>(line.size()) + 2, 0, RESPONSE);
  p.feed(line.data(), line.size());
  p.feed("\r\n", 2);
  if (p.failed() || p.state_ != FIELD_START) {
    *error = p.error();
    return false;
  }
  status = p.status_;
  reason = p.reason_;
  version = p.version_;
  return true;
}

}  // namespace sf
