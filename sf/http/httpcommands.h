// The HTTP script commands (httpReader, httpWorker, httpPush, httpHeader,
// httpType). Internal.
#pragma once

namespace sf {

// Registers the five commands, in that order. Called by init after the
// site's config.tcl has run.
void sfi_registerHttpCommands();

}  // namespace sf
