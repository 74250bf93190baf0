// Answering 401/407 challenges in the client role.
//
// The credentials step (Basic from sf.http.authname/sf.http.authpasswd, and
// NTLM) is not built yet. Until it is, a challenge is never answered: the
// adaptor logs which challenges it saw and reports that it did not re-send,
// so the caller treats the 401 or 407 as a failed response.
#include "sf/http/httpadaptor.h"

namespace sf {

bool HttpAdaptor::resendWithAuth(Connection*, std::list<std::string>& headers) {
  std::string summary;
  for (const std::string& h : headers) {
    size_t colon = h.find(':');
    if (colon == std::string::npos) {
      SF_LOG(1, "HTTP - bad header %s, colon missing", h.c_str());
      continue;
    }
    if (!iequals(h.data(), colon, "Proxy-Authenticate") &&
        !iequals(h.data(), colon, "WWW-Authenticate"))
      continue;
    size_t v = h.find_first_not_of(" \t", colon + 1);
    std::string value = v == std::string::npos ? "" : h.substr(v);
    SF_LOG(5, "HTTP - ignoring unsupported auth method %s\n", value.c_str());
    summary += "<" + value + "> (unsupported method); ";
  }
  SF_LOG(1,
         "HTTP - unable to provide authenticated request, no authentication configuration "
         "information found for %s\n",
         summary.c_str());
  return false;
}

}  // namespace sf
