// NTLM in the client role through the platform's security package (GSSAPI
// with the gss-ntlmssp mechanism on POSIX systems, SSPI on Windows), under
// the identity the package finds for the running process.
#pragma once

#include <string>

namespace sf {
namespace platform {

// One handshake: the negotiate token, then the answer to the server's
// challenge. Credentials and the security context are released by the
// destructor, whatever happened. A failed call returns false and names the
// package call that failed in *failed (with the package's text appended).
class NtlmClient {
 public:
  NtlmClient();
  ~NtlmClient();
  NtlmClient(const NtlmClient&) = delete;
  NtlmClient& operator=(const NtlmClient&) = delete;

  // Acquires (fresh) outbound credentials of the process's identity.
  bool acquire(std::string* failed);
  // The first token (raw bytes).
  bool negotiate(std::string* token, std::string* failed);
  // The token that answers challenge (raw bytes); *done says whether the
  // package considers the handshake complete from this side.
  bool answer(const std::string& challenge, std::string* token, bool* done, std::string* failed);

 private:
  struct State;
  State* s_;
};

}  // namespace platform
}  // namespace sf
