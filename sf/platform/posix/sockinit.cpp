// POSIX sockets are ready in every process: nothing to start or clean up.
#include "sf/platform/sockinit.h"

namespace sf {
namespace platform {

bool socket_layer_start(int major, int minor, int* grantedMajor, int* grantedMinor) {
  *grantedMajor = major;
  *grantedMinor = minor;
  return true;
}

void socket_layer_cleanup() {}

}  // namespace platform
}  // namespace sf
