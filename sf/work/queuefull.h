// Overload marks: a queue that refuses a message because it is full says so
// to the sending thread, which answers its client accordingly. Internal to
// the library.
#pragma once

namespace sf {

// Notes that a queue refused a message of this thread because it was full;
// sfi_takeQueueFull() tells (once) whether that happened since it last asked.
void sfi_noteQueueFull();
bool sfi_takeQueueFull();

}  // namespace sf
