// The configured limits of Buffer and the BER codec (internal).
#pragma once

namespace sf {

// Hands sf.maxbuf to Buffer and proxy.*.maxlength, sf.ber.maxdepth,
// sf.ber.logerrorlevel and sf.ber.loginfolevel to the BER codec as plain
// values: now, and whenever a script sets them later. Each takes them at its
// first use and keeps them, so a key takes effect when it is set before that
// use. Called by initTcl once the site's config.tcl has run; once per
// process.
void sfi_handLimits();

}  // namespace sf
