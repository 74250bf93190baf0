// errno and strerror_r.
#include "sf/platform/syserr.h"

#include <errno.h>
#include <string.h>

namespace sf {
namespace platform {

int last_error() {
  return errno;
}

void set_last_error(int code) {
  errno = code;
}

std::string error_text(int code) {
  int saved = errno;
  char buf[256];
  // GNU strerror_r returns the text, which may or may not be buf.
  const char* text = strerror_r(code, buf, sizeof buf);
  std::string out(text ? text : "unknown error");
  errno = saved;
  return out;
}

bool is_missing_file(int code) {
  return code == ENOENT;
}

}  // namespace platform
}  // namespace sf
