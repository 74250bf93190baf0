// Attaching the shared statistics block, done once by start-up. Internal to
// the library.
#pragma once

namespace sf {

// Attaches the block: once per process (later calls return the first
// result). Opens ESTAT_LOG for appending when it names a file, registers the
// library's descriptor tables after any rows already registered, then
// creates or opens the block and its mutex. Returns 0, or -1 when the block
// cannot be had (the library then runs without statistics, and the log
// without cross-process serialisation).
int sfi_attachStats();

}  // namespace sf
