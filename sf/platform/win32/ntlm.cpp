// NTLM through SSPI: the "NTLM" security package, outbound credentials of
// the user the process runs as (no name or password is given, so the
// package uses the logon session's own).
#include "sf/platform/ntlm.h"

#ifndef SECURITY_WIN32
#define SECURITY_WIN32  // the user-mode SSPI declarations
#endif
#include <windows.h>
// After windows.h, whose types it uses.
#include <security.h>

#include <cstdio>
#include <vector>

#include "sf/platform/syserr.h"

namespace sf {
namespace platform {

namespace {

char g_package[] = "NTLM";  // the SSPI calls take a non-const name

bool fail(std::string* failed, const char* call, SECURITY_STATUS status) {
  char code[16];
  snprintf(code, sizeof code, "0x%08lx", static_cast<unsigned long>(status));
  *failed = std::string(call) + ": " + error_text(static_cast<int>(status)) + " (" + code + ")";
  return false;
}

}  // namespace

struct NtlmClient::State {
  CredHandle cred;
  bool haveCred = false;
  CtxtHandle ctx;
  bool haveCtx = false;
  unsigned long maxToken = 0;  // the package's largest token

  void releaseCredentials() {
    if (haveCred) FreeCredentialsHandle(&cred);
    haveCred = false;
  }
  void releaseContext() {
    if (haveCtx) DeleteSecurityContext(&ctx);
    haveCtx = false;
  }

  bool acquire(std::string* failed) {
    releaseCredentials();
    PSecPkgInfoA info = nullptr;
    SECURITY_STATUS status = QuerySecurityPackageInfoA(g_package, &info);
    if (status != SEC_E_OK) return fail(failed, "QuerySecurityPackageInfo", status);
    maxToken = info->cbMaxToken;
    FreeContextBuffer(info);
    TimeStamp expiry;
    status = AcquireCredentialsHandleA(nullptr, g_package, SECPKG_CRED_OUTBOUND, nullptr, nullptr,
                                       nullptr, nullptr, &cred, &expiry);
    if (status != SEC_E_OK) return fail(failed, "AcquireCredentialsHandle", status);
    haveCred = true;
    return true;
  }

  // One InitializeSecurityContext call: the first one (no context yet, no
  // input) or the answer to input on the existing context.
  bool step(const std::string& input, std::string* token, bool* done, std::string* failed) {
    if (!haveCred && !acquire(failed)) return false;
    std::vector<char> out(maxToken);
    SecBuffer outBuffer = {maxToken, SECBUFFER_TOKEN, out.data()};
    SecBufferDesc outDesc = {SECBUFFER_VERSION, 1, &outBuffer};
    SecBuffer inBuffer = {static_cast<unsigned long>(input.size()), SECBUFFER_TOKEN,
                          const_cast<char*>(input.data())};
    SecBufferDesc inDesc = {SECBUFFER_VERSION, 1, &inBuffer};
    unsigned long attributes = 0;
    TimeStamp expiry;
    // No target name: NTLM over HTTP authenticates to whoever challenged.
    SECURITY_STATUS status = InitializeSecurityContextA(
        &cred, haveCtx ? &ctx : nullptr, nullptr, ISC_REQ_CONNECTION, 0, SECURITY_NATIVE_DREP,
        haveCtx ? &inDesc : nullptr, 0, &ctx, &outDesc, &attributes, &expiry);
    if (status != SEC_E_OK && status != SEC_I_CONTINUE_NEEDED && status != SEC_I_COMPLETE_NEEDED &&
        status != SEC_I_COMPLETE_AND_CONTINUE)
      return fail(failed, "InitializeSecurityContext", status);
    haveCtx = true;
    if (status == SEC_I_COMPLETE_NEEDED || status == SEC_I_COMPLETE_AND_CONTINUE) {
      SECURITY_STATUS completed = CompleteAuthToken(&ctx, &outDesc);
      if (completed != SEC_E_OK) return fail(failed, "CompleteAuthToken", completed);
    }
    token->assign(out.data(), outBuffer.cbBuffer);
    *done = status == SEC_E_OK || status == SEC_I_COMPLETE_NEEDED;
    return true;
  }
};

NtlmClient::NtlmClient() : s_(new State) {}

NtlmClient::~NtlmClient() {
  s_->releaseContext();
  s_->releaseCredentials();
  delete s_;
}

bool NtlmClient::acquire(std::string* failed) {
  return s_->acquire(failed);
}

bool NtlmClient::negotiate(std::string* token, std::string* failed) {
  s_->releaseContext();
  bool done = false;
  return s_->step("", token, &done, failed);
}

bool NtlmClient::answer(const std::string& challenge, std::string* token, bool* done,
                        std::string* failed) {
  return s_->step(challenge, token, done, failed);
}

}  // namespace platform
}  // namespace sf
