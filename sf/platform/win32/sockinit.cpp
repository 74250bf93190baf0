// Winsock start-up: WSAStartup with the version asked for, and the version
// the system granted.
#include "sf/platform/sockinit.h"

#include <mutex>

#include "sf/platform/win32/winsock.h"

namespace sf {
namespace platform {

bool socket_layer_start(int major, int minor, int* grantedMajor, int* grantedMinor) {
  WSADATA data;
  int rc = WSAStartup(MAKEWORD(major, minor), &data);
  if (rc != 0) {
    WSASetLastError(rc);
    return false;
  }
  *grantedMajor = LOBYTE(data.wVersion);
  *grantedMinor = HIBYTE(data.wVersion);
  return true;
}

void socket_layer_cleanup() {
  WSACleanup();
}

void ensure_socket_layer() {
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);  // a failure shows in the socket call that follows
  });
}

}  // namespace platform
}  // namespace sf
