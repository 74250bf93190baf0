// The library side of shutdown. Internal to the library.
#pragma once

namespace sf {

// shutdown(), then then() once readers have stopped and queues drained, on
// whichever thread did the waiting. then may be null.
void sfi_shutdown(void (*then)());

// True once shutdown has been requested.
bool sfi_shuttingDown();

}  // namespace sf
