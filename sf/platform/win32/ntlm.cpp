// NTLM on Windows is to go through SSPI (QuerySecurityPackageInfo,
// AcquireCredentialsHandle, InitializeSecurityContext). Until that is
// written, this build has no NTLM identity: acquire() fails, and the HTTP
// client answers a challenge's Basic realms instead.
#include "sf/platform/ntlm.h"

namespace sf {
namespace platform {

struct NtlmClient::State {};

NtlmClient::NtlmClient() : s_(new State) {}

NtlmClient::~NtlmClient() {
  delete s_;
}

bool NtlmClient::acquire(std::string* failed) {
  *failed = "AcquireCredentialsHandle: NTLM through SSPI is not built yet";
  return false;
}

bool NtlmClient::negotiate(std::string*, std::string* failed) {
  return acquire(failed);
}

bool NtlmClient::answer(const std::string&, std::string*, bool*, std::string* failed) {
  return acquire(failed);
}

}  // namespace platform
}  // namespace sf
