// Start-up and clean-up of the system's socket layer.
#pragma once

namespace sf {
namespace platform {

// Starts the socket layer asking for version major.minor and reports the
// version granted. Returns false when the layer cannot start at all. Systems
// whose sockets need no start-up grant what is asked.
bool socket_layer_start(int major, int minor, int* grantedMajor, int* grantedMinor);

// Undoes socket_layer_start.
void socket_layer_cleanup();

}  // namespace platform
}  // namespace sf
