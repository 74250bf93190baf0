// Answering 401/407 challenges in the client role.
//
// The response headers of the challenge are read for the schemes offered:
// NTLM, answered by a handshake on the same connection when offered, and
// Basic realms, whose credentials come from the configuration arrays
// sf.http.authname and sf.http.authpasswd. The answer goes out right after
// the request line (a proxy's Basic answer in proxyHeaderLine, anything else
// in extraHeaderLine), with the request written again. Each challenge is
// answered once; what cannot be answered is reported and the caller treats
// the status as a failure. Passwords and tokens are never logged.
#include <vector>

#include "sf/http/base64.h"
#include "sf/http/httpadaptor.h"
#include "sf/platform/ntlm.h"
#include "sf/script/tcl.h"

namespace sf {

namespace {

// A hostile peer decides how many challenges come; at most this many realms
// are tried.
const size_t kMaxRealms = 8;

struct Challenges {
  std::string scope;  // "proxy" (Proxy-Authenticate) or "web" (WWW-Authenticate)
  std::vector<std::string> realms;
  bool ntlm = false;
  std::string ntlmToken;  // the server's NTLM challenge, base64, when one came
  std::string summary;    // why nothing could be answered
};

bool startsWithIgnoringCase(const std::string& s, const char* word) {
  size_t n = strlen(word);
  return s.size() >= n && ichar_traits::compare(s.data(), word, n) == 0;
}

Challenges parseChallenges(const std::list<std::string>& headers) {
  Challenges ch;
  for (const std::string& h : headers) {
    size_t colon = h.find(':');
    if (colon == std::string::npos) {
      SF_LOG(1, "HTTP - bad header %s, colon missing", h.c_str());
      continue;
    }
    bool proxy = iequals(h.data(), colon, "Proxy-Authenticate");
    if (!proxy && !iequals(h.data(), colon, "WWW-Authenticate")) continue;
    ch.scope = proxy ? "proxy" : "web";
    size_t v = h.find_first_not_of(" \t", colon + 1);
    std::string value = v == std::string::npos ? "" : h.substr(v);
    if (value.compare(0, 13, "Basic realm=\"") == 0) {
      size_t close = value.find('"', 13);
      if (close == std::string::npos) {
        SF_LOG(1, "HTTP - malformed realm %s\n", value.c_str());
        continue;
      }
      std::string realm = value.substr(13, close - 13);
      bool known = false;
      for (const std::string& r : ch.realms) known = known || r == realm;
      if (!known && ch.realms.size() < kMaxRealms) ch.realms.push_back(realm);
      continue;
    }
    if (startsWithIgnoringCase(value, "NTLM") && (value.size() == 4 || value[4] == ' ')) {
      size_t sp = value.find(' ');
      std::string token = sp == std::string::npos ? "" : value.substr(sp + 1);
      SF_LOG(5, "found ntlm authenticate: %s from %s", token.c_str(), h.substr(0, colon).c_str());
      ch.ntlm = true;
      ch.ntlmToken = token;
      continue;
    }
    SF_LOG(5, "HTTP - ignoring unsupported auth method %s\n", value.c_str());
    ch.summary += "<" + value + "> (unsupported method); ";
  }
  return ch;
}

}  // namespace

std::string basicCredential(const char* key, const std::string& scope, const std::string& realm) {
  const std::string indices[] = {scope + realm, realm, scope + ".*", "*"};
  for (const std::string& index : indices) {
    std::string value = getVarStr((std::string(key) + "(" + index + ")").c_str(), "");
    if (!value.empty()) return value;
  }
  return "";
}

void HttpAdaptor::resendRequest(Connection* c) {
  switch (requestHeader.method) {
    case METHOD_POST:
      sendMessage(c, pending, POST_REQUEST, &requestHeader);
      break;
    case METHOD_HEAD:
      writeHeaders(c, nullptr, HEAD_REQUEST, &requestHeader);
      break;
    case METHOD_CONNECT:
      writeHeaders(c, nullptr, CONNECT_REQUEST, &requestHeader);
      break;
    default:
      writeHeaders(c, nullptr, GET_REQUEST, &requestHeader);
      break;
  }
}

void HttpAdaptor::sendNtlm(Connection* c, const char* answerName, int phase,
                           const std::string& token) {
  // A token answers this one request: NTLM authenticates the connection,
  // so nothing is added to the requests that follow on it. The tokens are
  // credentials and are not logged.
  SF_LOG(5, "sending phase %d with auth token %s", phase,
         ("(" + std::to_string(token.size()) + " bytes)").c_str());
  extraHeaderLine = std::string(answerName) + ": NTLM " + encodeBase64(token);
  resendRequest(c);
  extraHeaderLine.clear();
}

// Two phases at most on the same connection: the negotiate token, then the
// answer to the server's challenge; the caller reads the final response.
// False when the attempt ends here (the reason is logged); when this process
// has no NTLM identity, the caller goes on to Basic.
bool HttpAdaptor::answerNtlm(Connection* c, const char* answerName, const std::string& challenge,
                             std::string& summary) {
  if (!challenge.empty()) {
    SF_LOG(1, "unexpected challenge '%s' during phase 0 of ntlm authentication", challenge.c_str());
    summary += "<NTLM> (unexpected challenge); ";
    return false;
  }
  platform::NtlmClient ntlm;
  std::string token, failed;
  if (!ntlm.acquire(&failed) || !ntlm.negotiate(&token, &failed)) {
    SF_LOG(1, "HTTP - no NTLM credentials for this process - %s", failed.c_str());
    summary += "<NTLM> (no credentials); ";
    return false;
  }
  sendNtlm(c, answerName, 0, token);

  std::list<std::string> headers;
  Buffer page;
  readMessage(c, page, &headers);
  std::string offered;
  for (const std::string& h : headers) {
    size_t colon = h.find(':');
    bool ours =
        colon != std::string::npos &&
        iequals(h.data(), colon, answerName[0] == 'P' ? "Proxy-Authenticate" : "WWW-Authenticate");
    size_t v = ours ? h.find_first_not_of(" \t", colon + 1) : std::string::npos;
    if (v != std::string::npos && h.size() > v + 5 && startsWithIgnoringCase(h.substr(v), "NTLM "))
      offered = h.substr(v + 5);
  }
  if (offered.empty() || (lastStatus_ != 401 && lastStatus_ != 407)) {
    SF_LOG(1, "expected challenge '%s' during phase 0 of ntlm authentication", offered.c_str());
    return false;
  }
  std::string challengeBytes = decodePem(offered);
  bool done = false;
  if (!ntlm.answer(challengeBytes, &token, &done, &failed)) {
    SF_LOG(1, "HTTP - ntlm: %s", failed.c_str());
    SF_LOG(1, "InitSecurityContext failed...refreshing credentials and retrying...");
    if (!ntlm.acquire(&failed) || !ntlm.answer(challengeBytes, &token, &done, &failed)) {
      SF_LOG(1, "HTTP - ntlm: %s", failed.c_str());
      SF_THROW("InitializeSecurityContext", Xsys("InitializeSecurityContext"));
    }
  }
  if (!done) {
    SF_LOG(1, "protocol error, ntlm handshake not completed after 2 phases");
    return false;
  }
  sendNtlm(c, answerName, 1, token);
  return true;
}

bool HttpAdaptor::resendWithAuth(Connection* c, std::list<std::string>& headers) {
  Challenges ch = parseChallenges(headers);
  const char* answerName = ch.scope == "proxy" ? "Proxy-Authorization" : "Authorization";
  if (ch.ntlm && answerNtlm(c, answerName, ch.ntlmToken, ch.summary)) return true;
  for (const std::string& realm : ch.realms) {
    std::string user = basicCredential("sf.http.authname", ch.scope, realm);
    if (user.empty()) {
      SF_LOG(5, "HTTP - no username found for basic realm '%s'..skipping\n", realm.c_str());
      ch.summary += "<basic realm " + realm + "> (no username/password configured); ";
      continue;
    }
    std::string password = basicCredential("sf.http.authpasswd", ch.scope, realm);
    if (password.empty()) {
      SF_LOG(1, "HTTP - no password found corresponding to user name %s for realm %s\n",
             user.c_str(), realm.c_str());
      continue;
    }
    SF_LOG(5, "HTTP - sending with basic auth for %s:%s", user.c_str(), realm.c_str());
    (ch.scope == "proxy" ? proxyHeaderLine : extraHeaderLine) =
        std::string(answerName) + ": Basic " + encodeBase64(user + ":" + password);
    resendRequest(c);
    return true;
  }
  SF_LOG(1,
         "HTTP - unable to provide authenticated request, no authentication configuration "
         "information found for %s\n",
         ch.summary.c_str());
  return false;
}

}  // namespace sf
