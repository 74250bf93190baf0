// NTLM through GSSAPI: the gss-ntlmssp mechanism, which takes the user from
// NTLMUSER (or USER) and the password from the file NTLM_USER_FILE names.
#include "sf/platform/ntlm.h"

#include <gssapi/gssapi.h>

namespace sf {
namespace platform {

namespace {

// 1.3.6.1.4.1.311.2.2.10, the NTLM security support provider.
gss_OID_desc ntlmMechanism = {10, const_cast<char*>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};

std::string statusText(OM_uint32 code, int type) {
  std::string text;
  OM_uint32 minor = 0, more = 0;
  do {
    gss_buffer_desc msg = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_status(&minor, code, type, &ntlmMechanism, &more, &msg))) break;
    if (!text.empty()) text += "; ";
    text.append(static_cast<const char*>(msg.value), msg.length);
    gss_release_buffer(&minor, &msg);
  } while (more != 0);
  return text;
}

bool fail(std::string* failed, const char* call, OM_uint32 major, OM_uint32 minor) {
  *failed = std::string(call) + ": " + statusText(major, GSS_C_GSS_CODE);
  if (minor != 0) *failed += " (" + statusText(minor, GSS_C_MECH_CODE) + ")";
  return false;
}

}  // namespace

struct NtlmClient::State {
  gss_cred_id_t cred = GSS_C_NO_CREDENTIAL;
  gss_ctx_id_t ctx = GSS_C_NO_CONTEXT;
  gss_name_t target = GSS_C_NO_NAME;

  void releaseCredentials() {
    OM_uint32 minor;
    if (cred != GSS_C_NO_CREDENTIAL) gss_release_cred(&minor, &cred);
    cred = GSS_C_NO_CREDENTIAL;
  }
  void releaseContext() {
    OM_uint32 minor;
    if (ctx != GSS_C_NO_CONTEXT) gss_delete_sec_context(&minor, &ctx, GSS_C_NO_BUFFER);
    ctx = GSS_C_NO_CONTEXT;
  }

  bool step(const std::string& input, std::string* token, bool* done, std::string* failed) {
    OM_uint32 minor = 0;
    if (target == GSS_C_NO_NAME) {
      // The mechanism wants a target; NTLM over HTTP names none in
      // particular.
      gss_buffer_desc name = {4, const_cast<char*>("HTTP")};
      OM_uint32 major = gss_import_name(&minor, &name, GSS_C_NT_HOSTBASED_SERVICE, &target);
      if (GSS_ERROR(major)) return fail(failed, "gss_import_name", major, minor);
    }
    gss_buffer_desc in = {input.size(), const_cast<char*>(input.data())};
    gss_buffer_desc out = GSS_C_EMPTY_BUFFER;
    OM_uint32 major = gss_init_sec_context(
        &minor, cred, &ctx, target, &ntlmMechanism, 0, GSS_C_INDEFINITE, GSS_C_NO_CHANNEL_BINDINGS,
        input.empty() ? GSS_C_NO_BUFFER : &in, nullptr, &out, nullptr, nullptr);
    if (GSS_ERROR(major)) return fail(failed, "gss_init_sec_context", major, minor);
    token->assign(static_cast<const char*>(out.value), out.length);
    gss_release_buffer(&minor, &out);
    *done = !(major & GSS_S_CONTINUE_NEEDED);
    return true;
  }
};

NtlmClient::NtlmClient() : s_(new State) {}

NtlmClient::~NtlmClient() {
  s_->releaseContext();
  s_->releaseCredentials();
  OM_uint32 minor;
  if (s_->target != GSS_C_NO_NAME) gss_release_name(&minor, &s_->target);
  delete s_;
}

bool NtlmClient::acquire(std::string* failed) {
  s_->releaseCredentials();
  gss_OID_set_desc mechs = {1, &ntlmMechanism};
  OM_uint32 minor = 0;
  OM_uint32 major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechs,
                                     GSS_C_INITIATE, &s_->cred, nullptr, nullptr);
  if (GSS_ERROR(major)) return fail(failed, "gss_acquire_cred", major, minor);
  return true;
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
