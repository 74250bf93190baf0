// sf::HttpAdaptor: construction, settings, setters and the status tables.
// Reading is in httpread.cpp, writing in httpwrite.cpp.
#include "sf/http/httpadaptor.h"

#include "sf/script/tcl.h"

namespace sf {

Xreject makeReject(const char* status) {
  Xreject x;
  x.reply = new Buffer();
  x.reply->append(status);
  x.close = false;
  return x;
}

HttpAdaptor::HttpAdaptor(bool client) : Adaptor(new PushbackSandwich(nullptr)) {
  InitSettings();
  isClient_ = client;
}

HttpAdaptor::HttpAdaptor(bool client, const char* url, const char* type)
    : Adaptor(new PushbackSandwich(nullptr)) {
  InitSettings();
  isClient_ = client;
  if (url) settings_.requestURL = url;
  settings_.contentType = type;
}

HttpAdaptor::~HttpAdaptor() = default;

void HttpAdaptor::InitSettings() {
  settings_.requestURL = getVarStr("sf.http.requestURL", "Quindel-Tunnel");
  settings_.contentType = getVarStr("sf.http.contentType", "Application/Binary");
  settings_.statusResult = getVarInt("sf.http.statusResult", 200);
  // An unknown configured status has no phrase of its own.
  const char* dfltReason = "";
  try {
    dfltReason = getStatusReason(settings_.statusResult);
  } catch (X&) {
  }
  settings_.statusReason = getVarStr("sf.http.statusReason", dfltReason);
  settings_.userAgent = getVarStr("sf.http.useragent", "Quindel");
  settings_.serverType = getVarStr("sf.http.server", "Quindel");
  // A generic proxy.*.maxlength sets both limits unless the specific key
  // overrides it.
  int generic = getVarInt("proxy.*.maxlength", 1024);
  settings_.maxHeader = getVarInt("sf.http.header.maxlength", generic);
  generic = getVarInt("proxy.*.maxlength", 65535);
  settings_.maxBody = getVarInt("sf.http.body.maxlength", generic);
  pduMore = false;
  bodyAllowed = false;
  closeAfter = false;
  lastStatus_ = 0;
  settings_.rejectStatus = 500;
  settings_.rejectReason.clear();
  SF_LOG(3, "HTTP - Creating new adaptor");
}

void HttpAdaptor::init(Connection*) {
  version = HTTP_1_1;
  closeAfter = false;
  startRequest();
}

void HttpAdaptor::setIsClient(bool v) {
  SF_LOG(3, "HTTP - Setting Client flag to %d", int(v));
  isClient_ = v;
}

void HttpAdaptor::setRequestURL(const char* url) {
  if (!url) return;
  SF_LOG(4, "HTTP - Setting request URL to \"%s\"", url);
  settings_.requestURL = url;
}

void HttpAdaptor::setContentType(const char* type) {
  if (!type) return;
  SF_LOG(4, "HTTP - Setting content type to \"%s\"", type);
  settings_.contentType = type;
}

void HttpAdaptor::setStatusResponse(int status) {
  SF_LOG(4, "HTTP - Setting status response to %d", status);
  settings_.statusResult = status;
}

void HttpAdaptor::setStatusReason(const char* reason) {
  if (!reason) return;
  SF_LOG(4, "HTTP - Setting status reason to \"%s\"", reason);
  settings_.statusReason = reason;
}

void HttpAdaptor::setReject(int status, const char* reason) {
  settings_.rejectStatus = status;
  settings_.rejectReason = reason ? reason : "";
}

void HttpAdaptor::setUserAgent(const char* agent) {
  settings_.userAgent = agent ? agent : "";
}
void HttpAdaptor::setServerType(const char* server) {
  settings_.serverType = server ? server : "";
}
void HttpAdaptor::setMaxHeader(int n) {
  settings_.maxHeader = n;
}
void HttpAdaptor::setMaxBody(int n) {
  settings_.maxBody = n;
}

void HttpAdaptor::setStuffHeaders(std::list<std::string>& lines) {
  if (&lines != &settings_.stuffHeaders) settings_.stuffHeaders = lines;
}

namespace {
struct StatusEntry {
  int code;
  const char* reason;
  bool close;  // a reply with this status ends the connection
};

const StatusEntry kStatuses[] = {
    {100, "Continue", false},
    {101, "Switching Protocols", false},
    {200, "OK", false},
    {201, "Created", false},
    {202, "Accepted", false},
    {203, "Non-Authoritative Information", false},
    {204, "No Content", false},
    {205, "Reset Content", false},
    {206, "Partial Content", false},
    {300, "Multiple Choices", false},
    {301, "Moved Permanently", false},
    {302, "Moved Temporarily", false},
    {303, "See Other", false},
    {304, "Not Modified", false},
    {305, "Use Proxy", true},
    {307, "Temporary Redirect", false},
    {400, "Bad Request", true},
    {401, "Unauthorized", false},
    {402, "Payment Required", true},
    {403, "Forbidden", false},
    {404, "Not Found", false},
    {405, "Method Not Allowed", false},
    {406, "Not Acceptable", true},
    {407, "Proxy Authentication Required", true},
    {408, "Request Time-out", true},
    {409, "Conflict", true},
    {410, "Gone", false},
    {411, "Length Required", true},
    {412, "Precondition Failed", true},
    {413, "Request Entity Too Large", true},
    {414, "Request-URI Too Large", true},
    {415, "Unsupported Media Type", true},
    {416, "Requested range not satisfiable", true},
    {417, "Expectation Failed", true},
    {500, "Internal Server Error", true},
    {501, "Not Implemented", true},
    {502, "Bad Gateway", true},
    {503, "Service Unavailable", true},
    {504, "Gateway Time-out", true},
    {505, "HTTP Version not supported", true},
};

const StatusEntry* findStatus(int code) {
  for (const StatusEntry& e : kStatuses)
    if (e.code == code) return &e;
  return nullptr;
}
}  // namespace

const char* HttpAdaptor::getStatusReason(int status) {
  const StatusEntry* e = findStatus(status);
  if (!e) SF_THROW("statnval", Xinvalid());
  return e->reason;
}

bool HttpAdaptor::getStatusClose(int status) {
  const StatusEntry* e = findStatus(status);
  return e ? e->close : true;
}

}  // namespace sf
