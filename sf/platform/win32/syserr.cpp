// GetLastError and FormatMessage. Winsock reports its errors through the
// same per-thread value, so one code space serves files and sockets.
#include "sf/platform/syserr.h"

#include <windows.h>

namespace sf {
namespace platform {

int last_error() {
  return static_cast<int>(GetLastError());
}

void set_last_error(int code) {
  SetLastError(static_cast<DWORD>(code));
}

std::string error_text(int code) {
  DWORD saved = GetLastError();
  char buf[512];
  DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                           static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buf,
                           sizeof buf, nullptr);
  // The system's texts end in a line break, which a log line must not carry.
  while (n > 0 && (buf[n - 1] == '\n' || buf[n - 1] == '\r' || buf[n - 1] == ' ')) --n;
  std::string out = n ? std::string(buf, n) : "unknown error " + std::to_string(code);
  SetLastError(saved);
  return out;
}

bool is_missing_file(int code) {
  return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND;
}

}  // namespace platform
}  // namespace sf
