// The dump file written when the process ends in disaster or on request.
// Internal to the library.
#pragma once

namespace sf {

// Writes "dump_<pid>" in the current directory with reason.
void sfi_writeDump(const char* reason);

}  // namespace sf
