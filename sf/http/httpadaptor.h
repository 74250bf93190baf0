// sf::HttpAdaptor: HTTP/1.x on top of a connection's adaptor chain.
//
// One class serves both roles. As a server it reads requests (request line,
// headers, body) and writes replies and rejections; as a client it writes
// requests (GET, POST, HEAD, CONNECT) and reads responses. Only the body
// travels in the caller's Buffer: the request or status line and the
// application headers are published as environment entries on the calling
// thread's current Message.
//
// Every HttpAdaptor owns a PushbackSandwich directly below it. Requests and
// responses are read by an incremental parser (MessageParser) fed in blocks of
// up to 4096 bytes; bytes past the end of a message (the next pipelined
// request, or whatever a server sent after its answer) are handed back to the
// sandwich and served before the socket is read again.
//
// Limits: the header block (sf.http.header.maxlength, default 1024) and the
// body (sf.http.body.maxlength, default 65535) are enforced while reading;
// nothing a peer sends can make the adaptor hold more than the limit plus one
// read block. Framing errors in the server role are thrown as Xreject whose
// reply holds the status digits (400, 411, 413, 501, 505); the reader turns
// them into an error reply through reject(). In the client role every refused
// response is an Xproto.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <string>

#include "sf/base/buffer.h"

#include "sf/http/messageparser.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"

namespace sf {

// Character traits that compare letters ignoring case, for header names and
// Connection values: "content-length" equals "Content-Length".
struct ichar_traits : std::char_traits<char> {
  static char up(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }
  static bool eq(char a, char b) { return up(a) == up(b); }
  static bool lt(char a, char b) {
    return static_cast<unsigned char>(up(a)) < static_cast<unsigned char>(up(b));
  }
  static int compare(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i) {
      if (lt(a[i], b[i])) return -1;
      if (lt(b[i], a[i])) return 1;
    }
    return 0;
  }
  static const char* find(const char* s, size_t n, char c) {
    for (size_t i = 0; i < n; ++i)
      if (eq(s[i], c)) return s + i;
    return nullptr;
  }
};

// True when text (of length n) is the word, ignoring case, over its exact
// length: "host" matches "Host", "Hosts" does not.
inline bool iequals(const char* text, size_t n, const char* word) {
  size_t wn = strlen(word);
  return n == wn && ichar_traits::compare(text, word, n) == 0;
}

// The message environment entry that holds an HTTP header: "header:" and the
// name in lower case. A header name cannot hold a colon, so no header a peer
// sends can land on an entry of the reader's or the adaptor's own
// (HttpRequestURL, HttpResultCode...), and "Host" and "host" are one entry.
std::string headerEntry(const std::string& name);

class HttpAdaptor : public Adaptor {
 public:
  // The protocol version. LATER is a major version above 1: accepted when
  // read, and written back as a bare "HTTP/".
  enum HttpVer { HTTP_0_9 = 0, HTTP_1_0 = 1, HTTP_1_1 = 2, HTTP_LATER = 3 };

  // What kind of message writeHeaders() starts, and so whether a body
  // follows with a Content-Length, chunked, or not at all.
  enum HttpDataType {
    GET_REQUEST = 1,     // client: GET, no body
    POST_REQUEST = 2,    // client: POST, whole body with Content-Length
    HEAD_REQUEST = 3,    // client: HEAD, no body
    REPLY = 4,           // server: reply, whole body with Content-Length
    CHUNKED_REPLY = 5,   // server: reply, chunked body
    CHUNKED_POST = 6,    // client: POST, chunked body
    CONNECT_REQUEST = 7  // client: CONNECT (tunnel)
  };

  // Request method codes. NO_METHOD marks a response being read.
  enum Method {
    METHOD_GET = 1,
    METHOD_POST = 2,
    METHOD_HEAD = 3,
    NO_METHOD = 4,
    METHOD_CONNECT = 7
  };

  // Values of ConnectionData::connection.
  enum { CONN_KEEPALIVE = 0, CONN_CLOSE = 1, CONN_UNSTATED = 2 };

  // What the headers of one message said about its body and connection;
  // consulted by closeConnection().
  struct ConnectionData {
    std::int64_t contentLength = 0;  // 0 when none was given
    int connection = CONN_UNSTATED;
    bool readToEof = false;  // the body runs until the peer closes
    bool hasBody = true;
    bool chunked = false;
    // The version of the message read (the request's own version).
    HttpVer version = HTTP_1_1;
  };

  // Describes one outgoing message.
  struct HttpHeader {
    int method = 0;                  // Method code
    std::list<std::string> headers;  // extra header lines, written as given
    std::string url;                 // request URL; empty: the adaptor's requestURL
    std::string contentType;         // empty: the adaptor's contentType
    int status = 0;                  // reply status
    std::string reason;              // reply reason phrase
    void reset() { *this = HttpHeader(); }
  };

  explicit HttpAdaptor(bool isClient);
  // requestURL replaces the configured one unless null; contentType always
  // replaces it and must not be null.
  HttpAdaptor(bool isClient, const char* requestURL, const char* contentType);
  ~HttpAdaptor() override;
  HttpAdaptor(const HttpAdaptor&) = delete;
  HttpAdaptor& operator=(const HttpAdaptor&) = delete;

  // Reads the sf.http.* settings (see docs/configuration.md).
  void InitSettings();
  // Called when pushed on a connection: writes HTTP/1.1, no forced close.
  void init(Connection*) override;

  // --- setters ---
  void setIsClient(bool v);
  void setRequestURL(const char* url);
  void setContentType(const char* type);
  void setStatusResponse(int status);  // the reason phrase is not changed
  void setStatusReason(const char* reason);
  void setReject(int status, const char* reason);
  void setUserAgent(const char* agent);
  void setServerType(const char* server);
  void setMaxHeader(int n);
  void setMaxBody(int n);
  void setStuffHeaders(std::list<std::string>& lines);

  // --- reading (the Adaptor read operations) ---
  // One message's body. Client role: answers 407 then 401 through
  // resendWithAuth() and throws Xio "http response error" unless the final
  // status is 200.
  void readPdu(Connection* c, Buffer& body) override;
  // As readPdu in the server role, but a chunked body is delivered one chunk
  // per call: readPduIsMore() tells whether readPduNext() has more to give.
  void readPduFirst(Connection* c, Buffer& body) override;
  void readPduNext(Connection* c, Buffer& body) override;
  bool readPduIsMore(Connection* c) override;
  // Whether a whole message has arrived, from the strict incremental parser
  // (docs/http.md): a request in the server role (throws the Xreject of a
  // refused one), the answer to the last request written in the client role
  // (throws Xproto for a refused one, as readPdu would).
  Framing frame(Connection* c, const char* data, size_t len) override;
  // Both read one message; n is not consulted.
  void readUptoNB(Connection* c, Buffer& body, int n) override;
  void readTillEof(Connection* c, Buffer& body, int n) override;
  // One message whose body must be exactly n bytes (Xio "read size mismatch").
  void read(Connection* c, Buffer& body, int n) override;

  // Reads one whole message; the body goes to body, the application headers
  // to *headers (each "Name: value") when headers is not null.
  void readMessage(Connection* c, Buffer& body, std::list<std::string>* headers);
  // Request and status lines, by the parser's rules. Both throw on malformed
  // lines (Xreject with 400 or 505, and Xproto respectively); a status line
  // that does not start with "HTTP/" is HTTP/0.9, code and reason "null".
  HttpVer parseRequest(const std::string& line, std::string& method, std::string& url);
  HttpVer parseStatus(const std::string& line, std::string& code, std::string& reason);

  // Answers a 401/407 challenge (its response headers) by sending the
  // request again with credentials in extraHeaderLine; true when it did.
  // False, with a level-1 line saying why, when nothing could be answered.
  virtual bool resendWithAuth(Connection* c, std::list<std::string>& headers);
  // Writes the last request again: its headers, and the pending body.
  void resendRequest(Connection* c);
  // The NTLM handshake of a challenge (auth.cpp).
  bool answerNtlm(Connection* c, const char* answerName, const std::string& challenge,
                  std::string& summary);
  void sendNtlm(Connection* c, const char* answerName, int phase, const std::string& token);

  // --- writing ---
  // Client: request(); server: reply(), then the close rule.
  void write(Connection* c, const Buffer& body) override;
  void request(Connection& c, const Buffer& body);  // POST when body is not empty, else GET
  void get(Connection& c, const Buffer& body);
  void post(Connection& c, const Buffer& body);
  // The header lines are kept (requestHeader.headers) to send the request
  // again when a server asks for credentials: pass them with std::move.
  void get(Connection* c, const char* url, std::list<std::string> headers);
  void post(Connection* c, const char* url, const char* contentType, const Buffer& body,
            std::list<std::string> headers);
  // A HEAD request; the response is read with headers only.
  void head(Connection* c, const char* url, std::list<std::string> headers);
  // Opens a tunnel through a proxy with CONNECT target; Xio "http connect
  // failed" unless the proxy answers 2xx. Writes HTTP/1.0 afterwards.
  void httpConnect(Connection& c, const char* target);
  void reply(Connection& c, const Buffer& body);
  void replyOk(Connection* c);
  void replyOk(Connection* c, const char* contentType, const Buffer& body);
  void replyGen(Connection* c, int status, const char* reason, const char* contentType,
                const Buffer& body, const std::list<std::string>& headers);
  // status 0: the configured rejectStatus; null reason: rejectReason. The
  // reason text is the body.
  void reject(Connection* c, int status, const char* reason) override;
  // The payload's leading number is the status.
  void reject(Connection* c, Buffer& payload) override;
  void writePduFirst(Connection* c, const Buffer& frag) override;
  void writePduNext(Connection* c, const Buffer& frag) override;
  void writePduLast(Connection* c, const Buffer& frag) override;
  // Writes the header block of a message of the given type; returns whether
  // a body may follow.
  bool writeHeaders(Connection* c, const Buffer* body, HttpDataType type, HttpHeader* header);
  void writeLine(Buffer& block, const char* text);
  void writeBody(Connection* c, const Buffer& body);
  // One chunk; the terminating chunk when data is null.
  void writeTransferChunk(Connection* c, const Buffer* data);
  static void appendVer(Buffer& b, HttpVer v);
  // Closes the connection when the message described by cd (or, without
  // one, a forced close) calls for it.
  void closeConnection(Connection* c, ConnectionData* cd);

  // Server role: the request just read is handed to another thread, which
  // will reply. Takes a reservation on c, so that the reader reads nothing
  // more from it (a pipelined request included) until that reply is written;
  // the reply operations (write, replyGen, reject, writePduLast) release it.
  void reserveForReply(Connection& c);
  // Gives back the reservation reserveForReply took, if it is still held:
  // the reply operations call it, and so does a reader whose request nobody
  // took.
  void releaseReservation(Connection* c);

  // The reason phrase of a status (Xinvalid "statnval" for unknown codes),
  // and whether a reply with that status closes the connection.
  static const char* getStatusReason(int status);
  static bool getStatusClose(int status);

  // Client role: an answer without a status line, or with a transfer coding
  // other than chunked, is refused (Xproto) instead of being read as HTTP/0.9
  // or delivered still coded; a forwarding worker sets it so that nothing but
  // an HTTP answer's plain body is ever relayed. Every other rule of the
  // response parser holds for every client.
  void setStrictResponse(bool strict) { strictResponse = strict; }

  // What messages are written and read with: the sf.http.* keys read at
  // construction (InitSettings), changed through the setters above.
  struct Settings {
    std::string requestURL;
    std::string contentType;
    int statusResult = 200;
    std::string statusReason;
    std::string userAgent;
    std::string serverType;
    std::int64_t maxHeader = 1024;
    std::int64_t maxBody = 65535;
    std::list<std::string> stuffHeaders;
    std::string rejectReason;
    int rejectStatus = 500;
  };
  const Settings& settings() const { return settings_; }
  bool isClient() const { return isClient_; }
  // The status of the last response read (client role); 0 before one.
  int lastStatus() const { return lastStatus_; }

 private:
  // Server role (httprequest.cpp).
  void readRequest(Connection* c, Buffer& body, std::list<std::string>* headers, bool byChunk);
  void readNextChunk(Connection* c, Buffer& body);
  void startRequest();
  void applyLimits();
  void skipFramed(Connection* c);
  void checkRequest(Connection* c);
  void receiveRequest(Connection* c);
  void publishRequest(std::list<std::string>* headers);
  void deliverBody(Buffer& body);
  // Client role (httpread.cpp).
  void readResponse(Connection* c, Buffer& body, std::list<std::string>* headers);
  void startResponse();
  Framing frameResponse(const char* data, size_t len);
  void checkResponse();
  void receiveResponse(Connection* c);
  void publishResponse(std::list<std::string>* headers);
  void deliverResponse(Connection* c, Buffer& body);
  void setEnv(const char* name, const std::string& value);
  [[noreturn]] static void refuseResponse(const MessageParser::Error& e);
  bool buildHeaders(Connection* c, const Buffer* body, HttpDataType type, HttpHeader* header,
                    Buffer& block);
  void sendMessage(Connection* c, const Buffer& body, HttpDataType type, HttpHeader* header);
  bool requestEndsConnection() const;
  void closeAfterReply(Connection* c);

  Settings settings_;
  bool isClient_ = false;
  HttpVer version = HTTP_1_1;  // written; HTTP/1.0 after a CONNECT
  bool bodyAllowed = false;    // the message being written may carry a body
  bool closeAfter = false;     // the peer asked to close after the reply
  int lastStatus_ = 0;
  // Written after the request line when not empty: the answer to a
  // server's challenge, filled by the authentication step.
  std::string extraHeaderLine;
  // The answer to a proxy's Basic challenge. It is written before
  // extraHeaderLine on this and every later request, so that a server's own
  // challenge behind the proxy adds its answer instead of replacing it.
  std::string proxyHeaderLine;
  bool strictResponse = false;
  bool pduMore = false;      // a chunked message is being delivered piecewise
  Buffer pending;            // the body of the last POST, for a re-send
  HttpHeader requestHeader;  // the request being sent (client role)
  // The last request read (server role): its version, method and
  // connection wishes decide how the reply is framed and whether the
  // connection stays open.
  ConnectionData lastRequest;
  int lastMethod = 0;
  // A reservation taken by reserveForReply() and not yet given back.
  std::atomic<bool> replyOwed{false};
  Buffer work_;                              // scratch for CONNECT responses
  Buffer received_;                          // one read of a response (client role)
  MessageParser request_{1024, 65535};       // the request being read (server role)
  std::unique_ptr<MessageParser> response_;  // the response being read (client role)
  size_t framed_ = 0;                        // bytes frame() fed to a parser, still below
  bool responseFramed_ = false;              // frame() began the response being read
  bool continueSent_ = false;                // "100 Continue" written for this request
};

// The Xreject thrown by the HTTP layer: its reply holds the status digits
// (e.g. "413"), and the close flag is clear (the status decides).
Xreject makeReject(const char* status);
// The Basic credential under the configuration array key for a challenge:
// the first non-empty element of key(scope+realm), key(realm),
// key(scope+".*"), key(*); "" when none is set.
std::string basicCredential(const char* key, const std::string& scope, const std::string& realm);
// Logs why the parser refused a request and throws its Xreject.
[[noreturn]] void throwRefusal(const MessageParser::Error& e);

}  // namespace sf
