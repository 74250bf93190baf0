// The calling thread's last system error and its text.
#pragma once

#include <string>

namespace sf {
namespace platform {

// The last system error of the calling thread (errno on POSIX).
int last_error();
void set_last_error(int code);

// The system's message text for code. Never changes last_error().
std::string error_text(int code);

// True when code says that a file does not exist.
bool is_missing_file(int code);

}  // namespace platform
}  // namespace sf
