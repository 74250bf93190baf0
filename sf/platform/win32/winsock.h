// Winsock inclusion and start-up shared by the win32 files that use sockets.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

// Older SDK headers lack the flag that keeps a new socket out of children.
#ifndef WSA_FLAG_NO_HANDLE_INHERIT
#define WSA_FLAG_NO_HANDLE_INHERIT 0x80
#endif

namespace sf {
namespace platform {

// Starts Winsock 2.2 once per process, so that socket calls work even before
// the library's init (unit tests, tools). Reference counted by the system:
// init's own start-up and version check are unaffected.
void ensure_socket_layer();

}  // namespace platform
}  // namespace sf
