// sf::MessageParser: an incremental, strict HTTP/1.x message parser, for
// requests (server role) and responses (client role).
//
// A flat state machine fed the bytes of a connection in any split: each call
// to feed() looks at every byte once, keeps what the message says (request or
// status line, application headers, body) and stops at the end of the
// message, so the bytes that follow it are never taken. It does no I/O and no
// logging: a refused message leaves an Error that names the status, the
// throw-site word and the log line, for the adaptor to report.
//
// What it refuses in both roles (docs/http.md has the tables):
//  - lines end with CR LF only: a bare LF or a bare CR anywhere in the start
//    line, the header block, a chunk-size line or the trailer;
//  - control characters (NUL included) in a header name or value, white
//    space before a header's colon, a folded header line;
//  - Content-Length that is not all digits or is given twice (even equal),
//    Transfer-Encoding with Content-Length or in an HTTP/1.0 message;
//  - the header block, the trailer and the chunk extensions are each held to
//    the header limit, the body to the body limit; a chunk size has at most
//    16 hexadecimal digits and nothing else before its extension.
// Requests: a version other than HTTP/1.0 and HTTP/1.1 is 505 (a malformed
// one 400), control characters in the method or target, Transfer-Encoding
// other than a single "chunked", two Host headers are 400, other refusals
// their own status. Empty lines before the request line are skipped. A
// request line of GET and a target alone is HTTP/0.9.
// Responses: the status line is "HTTP/1.0" or "HTTP/1.1", three digits and a
// reason; the body is framed as RFC 9112 says for responses (none for 1xx,
// 204, 304, an answer to HEAD or a successful CONNECT; chunked when chunked
// is the last transfer coding, and chunked anywhere else is refused; by
// Content-Length; otherwise until the peer closes, see finish()). Interim
// 1xx answers are skipped, 101 is refused (no upgrade is ever asked for).
// Every refusal of a response has the status 502.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sf {

class MessageParser {
 public:
  // Why a request is refused: the reply status, the short word of the throw
  // record, and the log line (at level 1) that says what was wrong.
  struct Error {
    const char* status = nullptr;  // null while nothing is wrong
    const char* site = nullptr;
    std::string text;
  };

  enum Role { REQUEST, RESPONSE };
  enum Version { V09, V10, V11 };
  enum Method { NONE, GET, POST, HEAD, CONNECT };
  enum ConnectionWish { KEEP_ALIVE, CLOSE, UNSTATED };

  MessageParser(std::int64_t maxHeader, std::int64_t maxBody, Role role = REQUEST) : role_(role) {
    reset(maxHeader, maxBody);
  }

  // Consumes bytes of p up to the end of the message (or the end of the
  // current chunk when pausing at chunks); returns how many it took. Nothing
  // is taken once the message is complete or refused.
  size_t feed(const char* p, size_t n);
  // Starts over for the next message, with these limits.
  void reset(std::int64_t maxHeader, std::int64_t maxBody);
  // Whether any byte of the current message has been taken.
  bool started() const { return headerBytes_ > 0 || headerDone_; }
  // Responses: the method of the request being answered (HEAD and CONNECT
  // change the framing), and whether a reply without a status line is taken
  // as HTTP/0.9, all of it the body. Set after reset(), before feed().
  void answering(Method request, bool allowSimple) {
    answering_ = request;
    allowSimple_ = allowSimple;
  }
  // Responses: the peer closed the connection. Ends a body that runs until
  // then; anywhere else the message is refused as cut short.
  void finish();
  // Stop after every chunk of a chunked body (fragment delivery); resume()
  // goes on to the next one.
  void pauseAtChunks(bool on) { pauseAtChunks_ = on; }
  bool paused() const { return paused_; }
  void resume() { paused_ = false; }

  bool failed() const { return error_.status != nullptr; }
  const Error& error() const { return error_; }
  bool headerDone() const { return headerDone_; }
  bool complete() const { return state_ == DONE; }
  // A body follows the header block (by length, by chunks, or until close).
  bool hasBody() const { return hasBody_; }
  // Responses: the body runs until the peer closes.
  bool untilClose() const { return untilClose_; }
  // Responses: a transfer coding other than chunked was applied to the body
  // (it is delivered still coded).
  bool otherCoding() const { return otherCoding_; }

  // What the request said; valid once the header block is done.
  const std::string& methodWord() const { return method_; }
  Method method() const { return methodCode_; }
  const std::string& target() const { return target_; }
  // What the response said.
  int status() const { return status_; }
  const std::string& reason() const { return reason_; }
  Version version() const { return version_; }
  ConnectionWish connection() const { return connection_; }
  bool chunked() const { return chunked_; }
  std::int64_t contentLength() const { return contentLength_; }
  bool expectsContinue() const { return expectContinue_; }
  // Application headers in arrival order (framing headers are not kept).
  const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }
  // The body taken so far (and not yet taken away by the caller).
  std::string& body() { return body_; }

  // Checks a whole request or status line (without its CR LF) by the same
  // rules. Returns false with *error set when the line is refused.
  static bool parseRequestLine(const std::string& line, std::string& method, std::string& target,
                               Version& version, Error* error);
  static bool parseStatusLine(const std::string& line, int& status, std::string& reason,
                              Version& version, Error* error);

 private:
  enum State {
    LEADING_CR_LF,  // empty lines before the request line
    LEADING_LF,
    METHOD,
    TARGET_START,
    TARGET,
    VERSION,
    REQUEST_LINE_LF,
    SIMPLE_REQUEST_LF,  // HTTP/0.9: the request line is the whole request
    STATUS_VERSION,     // responses: "HTTP/1.1"
    STATUS_CODE,
    STATUS_REASON,
    STATUS_LF,
    FIELD_START,  // a header line, a continuation, or the block's end
    FIELD_NAME,
    FIELD_VALUE,
    FIELD_LF,
    BLOCK_END_LF,  // the last state of the header block (or the trailer)
    LENGTH_BODY,
    CHUNK_SIZE_START,
    CHUNK_SIZE,
    CHUNK_SIZE_BLANK,  // white space after the size: an extension must follow
    CHUNK_EXTENSION,
    CHUNK_SIZE_LF,
    CHUNK_DATA,
    CHUNK_DATA_CR,
    CHUNK_DATA_LF,
    UNTIL_CLOSE,  // a response body that ends when the peer closes
    DONE,
    FAILED
  };

  bool step(char ch);  // one byte of a line; false when refused
  bool fail(const char* status, const char* site, std::string text);
  bool headerByte();
  bool endRequestLine();
  bool statusByte(char ch);
  bool endStatusLine();
  bool endResponseHead();
  const char* noun() const { return role_ == REQUEST ? "Request" : "Response"; }
  bool finishField();
  bool endHeaderBlock();
  bool endTrailer();
  bool onHost(const std::string& value);
  bool onContentLength(const std::string& value);
  bool onTransferEncoding(const std::string& value);
  bool onConnection(const std::string& value);
  size_t takeBody(const char* p, size_t n, std::int64_t* left);
  size_t takeRun(const char* p, size_t n);
  size_t takeStatusStart(const char* p, size_t n);

  using FieldAction = bool (MessageParser::*)(const std::string&);
  struct FieldRule {
    std::string_view name;
    FieldAction action;  // null: the header is dropped
    bool publish;        // also kept as an application header
  };
  static const FieldRule kFieldRules[];

  Role role_;
  Method answering_ = GET;
  bool allowSimple_ = false;
  std::int64_t maxHeader_ = 0;
  std::int64_t maxBody_ = 0;
  State state_ = LEADING_CR_LF;
  Error error_;
  bool pauseAtChunks_ = false;
  bool paused_ = false;

  std::int64_t headerBytes_ = 0;     // bytes of the header block (or trailer) so far
  std::int64_t extensionBytes_ = 0;  // chunk extensions of the whole body so far
  bool inTrailer_ = false;
  bool headerDone_ = false;
  std::string method_, target_, versionText_;
  Method methodCode_ = NONE;
  Version version_ = V11;
  std::string name_, value_;  // the header being read
  bool haveField_ = false;
  std::vector<std::pair<std::string, std::string>> fields_;

  bool hasHost_ = false;
  bool hasContentLength_ = false;
  bool hasTransferEncoding_ = false;
  bool chunked_ = false;
  bool expectContinue_ = false;
  bool hasBody_ = false;
  bool untilClose_ = false;
  bool otherCoding_ = false;
  int status_ = 0;
  std::string reason_;
  std::int64_t contentLength_ = 0;
  ConnectionWish connection_ = UNSTATED;

  std::int64_t left_ = 0;  // bytes of the body (or the current chunk) still to come
  int sizeDigits_ = 0;     // digits of the chunk size (or the status code) so far
  std::string body_;
};

}  // namespace sf
